#include "Policies.h"

#include <algorithm>

namespace Norvane::Crypto::Trust::detail {

namespace {

bool has(const X509* certificate, int extension) {
    return X509_get_ext_by_NID(certificate, extension, -1) >= 0;
}

bool hasConstraintsAlone(const X509* certificate) {
    return has(certificate, NID_policy_constraints) && !has(certificate, NID_certificate_policies);
}

/// RFC 5280, 4.2.1.4: there is one, and none stands there twice. What does not decode is OpenSSL's to say.
bool areSound(const CERTIFICATEPOLICIES* policies) {
    if (policies == nullptr) {
        return true;
    }
    std::vector<const ASN1_OBJECT*> all;
    const int count = sk_POLICYINFO_num(policies);
    all.reserve(static_cast<std::size_t>(count));
    for (int index = 0; index < count; ++index) {
        all.push_back(sk_POLICYINFO_value(policies, index)->policyid);
    }
    std::ranges::sort(all, [](const ASN1_OBJECT* left, const ASN1_OBJECT* right) { return OBJ_cmp(left, right) < 0; });
    const auto isSame = [](const ASN1_OBJECT* left, const ASN1_OBJECT* right) { return OBJ_cmp(left, right) == 0; };
    return !all.empty() && std::ranges::adjacent_find(all, isSame) == all.end();
}

/// Whether a certificate has policy constraints and policies that are none: these, too, OpenSSL forgets.
bool hasUnsoundPolicies(const X509* certificate) {
    if (!has(certificate, NID_policy_constraints) || !has(certificate, NID_certificate_policies)) {
        return false;
    }
    const QuietQuestion quiet;
    const Owned<CERTIFICATEPOLICIES> policies(
        static_cast<CERTIFICATEPOLICIES*>(X509_get_ext_d2i(certificate, NID_certificate_policies, nullptr, nullptr)));
    if (!policies) {
        quiet.throwWithoutMemory();
    }
    return !areSound(policies.get());
}

Owned<POLICY_CONSTRAINTS> constraintsOf(const X509* certificate) {
    const QuietQuestion quiet;
    Owned<POLICY_CONSTRAINTS> found(
        static_cast<POLICY_CONSTRAINTS*>(X509_get_ext_d2i(certificate, NID_policy_constraints, nullptr, nullptr)));
    if (!found) {
        quiet.throwWithoutMemory();
    }
    return found;
}

bool isNegative(const ASN1_INTEGER* number) {
    return number != nullptr && ASN1_STRING_type(number) == V_ASN1_NEG_INTEGER;
}

/// RFC 5280, 4.2.1.11: one of the two numbers is there.
bool areSound(const POLICY_CONSTRAINTS* constraints) {
    return constraints != nullptr &&
           (constraints->requireExplicitPolicy != nullptr || constraints->inhibitPolicyMapping != nullptr) &&
           !isNegative(constraints->requireExplicitPolicy) && !isNegative(constraints->inhibitPolicyMapping);
}

/// A certificate with constraints and without policies has no other extension that counts; of others OpenSSL says it once it was asked,
/// here about each alone, so that nothing multiplies.
bool isInvalid(X509* certificate) {
    if (hasConstraintsAlone(certificate)) {
        return !areSound(constraintsOf(certificate).get());
    }
    if (hasUnsoundPolicies(certificate)) {
        return true;
    }
    const QuietQuestion quiet;
    const auto alone = made(sk_X509_new_reserve(nullptr, 2)); // with room for both, which are then put in without fail
    sk_X509_push(alone.get(), certificate);
    sk_X509_push(alone.get(), certificate); // the last of a chain would be an anchor, of which nothing is asked
    X509_POLICY_TREE* tree = nullptr;
    int isExplicit = 0;
    const int answer = X509_policy_check(&tree, &isExplicit, alone.get(), nullptr, 0);
    X509_policy_tree_free(tree);
    if (answer == X509_PCY_TREE_INTERNAL) { // or more policies than it counts, which are sound for all that
        quiet.throwWithoutMemory();
    }
    return (X509_get_extension_flags(certificate) & EXFLAG_INVALID_POLICY) != 0;
}

/// After how many more certificates a policy is demanded; negative: this one does not say.
long demandIn(const X509* certificate) {
    const QuietQuestion quiet;
    const auto constraints = constraintsOf(certificate);
    return constraints && constraints->requireExplicitPolicy != nullptr
               ? ASN1_INTEGER_get(constraints->requireExplicitPolicy)
               : -1;
}

std::vector<int> invalidOnes(STACK_OF(X509) * chain, int below) {
    std::vector<int> found;
    for (int depth = 0; depth != below; ++depth) {
        if (isInvalid(sk_X509_value(chain, depth))) {
            found.push_back(depth);
        }
    }
    return found;
}

} // namespace

std::optional<PolicyAnswer> answerBesideOpenssl(STACK_OF(X509) * chain, bool isDemanded) {
    const int below = sk_X509_num(chain) - 1; // the last one is the anchor, and no part of the path
    bool isAsked = true;
    for (int depth = 0; depth < below; ++depth) {
        const X509* const certificate = sk_X509_value(chain, depth);
        isAsked = isAsked && !hasConstraintsAlone(certificate) && !hasUnsoundPolicies(certificate);
    }
    if (isAsked) {
        return std::nullopt;
    }
    PolicyAnswer answer{invalidOnes(chain, below)};
    if (!answer.invalid.empty()) {
        return answer;
    }
    long left = isDemanded ? 0 : below + 1L;
    for (int depth = below; left > 0 && depth-- > 0;) {
        X509* const certificate = sk_X509_value(chain, depth);
        const bool isIssuedToItself = (X509_get_extension_flags(certificate) & EXFLAG_SI) != 0;
        left -= isIssuedToItself ? 0 : 1;
        if (const long demand = demandIn(certificate); demand >= 0) {
            left = std::min(left, demand);
        }
    }
    answer.missing = left == 0;
    return answer;
}

} // namespace Norvane::Crypto::Trust::detail
