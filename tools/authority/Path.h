#pragma once

/// \file
/// Extensions that take part in the validation of a path (RFC 5280, 4.2.1 and 6.1), proper and odd ones.

#include <authority/Authority.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace norvauthority {

/// One subtree of name constraints: a base, and the fields that RFC 5280 leaves at their defaults.
struct Subtree {
    GeneralName base;
    std::optional<std::string> minimum{}; ///< hexadecimal
    std::optional<std::string> maximum{};
};
/// Name constraints (4.2.1.10), critical as they have to be.
Extension nameConstraints(const std::vector<Subtree>& permitted, const std::vector<Subtree>& excluded = {});

/// Certificate policies (4.2.1.4) without qualifiers: "2.5.29.32.0" is any policy.
Extension certificatePolicies(const std::vector<std::string>& policies, bool critical = false);
/// Policy mappings (4.2.1.5): of the issuer's domain, of the subject's domain.
Extension policyMappings(const std::vector<std::pair<std::string, std::string>>& mappings);
/// Policy constraints (4.2.1.11): after how many certificates; unset fields are left out.
Extension policyConstraints(std::optional<unsigned int> requireExplicitPolicy,
                            std::optional<unsigned int> inhibitPolicyMapping);
/// Inhibit anyPolicy (4.2.1.14).
Extension inhibitAnyPolicy(unsigned int skipCertificates);

} // namespace norvauthority
