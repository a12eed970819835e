#include "Path.h"

#include <array>
#include <cstdio>

namespace norvauthority {

namespace {

/// The content of an INTEGER under a tag of its context.
Bytes tagged(unsigned int tag, const std::string& hexNumber) {
    Bytes encoded = der::integer(hexNumber);
    encoded[0] = der::context(tag);
    return encoded;
}

std::string hex(unsigned int number) {
    std::array<char, 16> digits{};
    static_cast<void>(std::snprintf(digits.data(), digits.size(), "%x", number));
    return digits.data();
}

Bytes subtrees(unsigned int tag, const std::vector<Subtree>& trees) {
    std::vector<Bytes> all;
    for (const Subtree& tree : trees) {
        std::vector<Bytes> parts{tree.base.der};
        if (tree.minimum)
            parts.push_back(tagged(0, *tree.minimum));
        if (tree.maximum)
            parts.push_back(tagged(1, *tree.maximum));
        all.push_back(der::sequence(parts));
    }
    return der::element(der::contextConstructed(tag), der::concat(all));
}

} // namespace

Extension nameConstraints(const std::vector<Subtree>& permitted, const std::vector<Subtree>& excluded) {
    std::vector<Bytes> parts;
    if (!permitted.empty())
        parts.push_back(subtrees(0, permitted));
    if (!excluded.empty())
        parts.push_back(subtrees(1, excluded));
    return {.oid = "2.5.29.30", .value = der::sequence(parts), .critical = true};
}

Extension certificatePolicies(const std::vector<std::string>& policies, bool critical) {
    std::vector<Bytes> all;
    all.reserve(policies.size());
    for (const std::string& policy : policies)
        all.push_back(der::sequence({der::oid(policy)}));
    return {.oid = "2.5.29.32", .value = der::sequence(all), .critical = critical};
}

Extension policyMappings(const std::vector<std::pair<std::string, std::string>>& mappings) {
    std::vector<Bytes> all;
    all.reserve(mappings.size());
    for (const auto& [ofIssuer, ofSubject] : mappings)
        all.push_back(der::sequence({der::oid(ofIssuer), der::oid(ofSubject)}));
    return {.oid = "2.5.29.33", .value = der::sequence(all), .critical = true};
}

Extension policyConstraints(std::optional<unsigned int> requireExplicitPolicy,
                            std::optional<unsigned int> inhibitPolicyMapping) {
    std::vector<Bytes> parts;
    if (requireExplicitPolicy)
        parts.push_back(tagged(0, hex(*requireExplicitPolicy)));
    if (inhibitPolicyMapping)
        parts.push_back(tagged(1, hex(*inhibitPolicyMapping)));
    return {.oid = "2.5.29.36", .value = der::sequence(parts), .critical = true};
}

Extension inhibitAnyPolicy(unsigned int skipCertificates) {
    return {.oid = "2.5.29.54", .value = der::integer(hex(skipCertificates)), .critical = true};
}

} // namespace norvauthority
