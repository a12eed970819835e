#pragma once

#include <norvcrypto/DistinguishedName.h>

#include <string>
#include <vector>

struct X509_name_st;

namespace Norvane::Crypto::NVX509 {

/// Attributes as text; the back is the top of a stack.
using Pairs = std::vector<RDNPair>;

/// The pairs of a name's entries, in their order.
[[nodiscard]] Pairs pairsOf(const X509_name_st* name);
[[nodiscard]] Pairs pairsOf(const stack_st_X509_NAME_ENTRY* entries);

/// The pairs of a text, in its order.
[[nodiscard]] Pairs parsePairs(const std::string& text);

/// The text of the pairs, the last one first.
[[nodiscard]] std::string printPairs(const Pairs& pairs);

} // namespace Norvane::Crypto::NVX509
