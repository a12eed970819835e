#pragma once

// Values of extensions that take part in the validation of a path.

#include <authority/Authority.h>
#include <authority/Path.h>

#include <string>
#include <utility>
#include <vector>

namespace trusttesting {

/// NameConstraints (RFC 5280, 4.2.1.10). \param minimum an element behind each base
inline norvauthority::Bytes nameConstraints(const std::vector<norvauthority::GeneralName>& permitted,
                                            const std::vector<norvauthority::GeneralName>& excluded,
                                            const norvauthority::Bytes& minimum = {}) {
    namespace der = norvauthority::der;
    std::vector<norvauthority::Bytes> parts;
    unsigned int number = 0;
    for (const auto* names : {&permitted, &excluded}) {
        norvauthority::Bytes trees;
        for (const auto& name : *names) {
            der::append(trees, der::sequence({name.der, minimum}));
        }
        if (!names->empty()) {
            parts.push_back(der::element(der::contextConstructed(number), trees));
        }
        ++number;
    }
    return der::sequence(parts);
}

inline norvauthority::Bytes certificatePolicies(const std::vector<std::string>& policies) {
    return norvauthority::certificatePolicies(policies).value;
}
inline norvauthority::Bytes policyMappings(const std::vector<std::pair<std::string, std::string>>& mappings) {
    return norvauthority::policyMappings(mappings).value;
}

} // namespace trusttesting
