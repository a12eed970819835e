#pragma once

/// \file
/// Judging by another way where the first one breaks.

#include "Judgement.h"

#include <cstddef>
#include <vector>

namespace Norvane::Crypto::Trust::detail {

/// How many ways are tried for one verdict.
inline constexpr std::size_t maximumWays = 4;

struct Judged {
    Verdict verdict;
    std::vector<X509_CRL*> lists; ///< that may have mattered
};

/// OpenSSL takes the first issuer that fits by name and key identifier, and never another one: a root that came with the
/// message hides that it is cross-signed, an authority with two keys and no key identifiers has one too many. Where its way
/// breaks at a candidate that has a namesake, it is judged again without it. The first accepted verdict is the answer, else
/// that of the first way.
Judged judgedByAnyWay(const Snapshot& snapshot, Request request);

} // namespace Norvane::Crypto::Trust::detail
