#pragma once

// Extensions that the test authority has no words for.

#include <authority/Authority.h>

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

/// CertificatePolicies without qualifiers (RFC 5280, 4.2.1.4).
inline norvauthority::Bytes certificatePolicies(const std::vector<std::string>& policies) {
    namespace der = norvauthority::der;
    std::vector<norvauthority::Bytes> all;
    for (const std::string& policy : policies) {
        all.push_back(der::sequence({der::oid(policy)}));
    }
    return der::sequence(all);
}

/// PolicyMappings (RFC 5280, 4.2.1.5): of the issuer's, and of the subject's domain.
inline norvauthority::Bytes policyMappings(const std::vector<std::pair<std::string, std::string>>& mappings) {
    namespace der = norvauthority::der;
    std::vector<norvauthority::Bytes> all;
    for (const auto& [issuers, subjects] : mappings) {
        all.push_back(der::sequence({der::oid(issuers), der::oid(subjects)}));
    }
    return der::sequence(all);
}

} // namespace trusttesting
