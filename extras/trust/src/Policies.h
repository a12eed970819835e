#pragma once

/// \file
/// What OpenSSL 3.0 must not be asked of the policies of a chain (RFC 5280, 6.1): of a certificate that has policy constraints and
/// no policies, or the same policy twice, it forgets the constraints that it decoded, and their memory with them, which a stranger's
/// certificate chooses.

#include "OpenSsl.h"

#include <optional>
#include <vector>

namespace Norvane::Crypto::Trust::detail {

/// What the policies of a chain come to.
struct PolicyAnswer {
    std::vector<int> invalid; ///< depths of certificates whose policies contradict themselves
    bool missing = false;     ///< a policy is demanded, and none holds for the chain
};

/// Nothing where OpenSSL may be asked: each certificate below the last one has sound policies, or no policy constraints. Otherwise one
/// is invalid, or no policy can hold for all of the chain, and what is left is whether one is demanded.
/// \param isDemanded by the caller (initial-explicit-policy)
/// \throws std::bad_alloc
std::optional<PolicyAnswer> answerBesideOpenssl(STACK_OF(X509) * chain, bool isDemanded);

} // namespace Norvane::Crypto::Trust::detail
