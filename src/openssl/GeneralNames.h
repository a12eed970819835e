#pragma once

/// \file
/// Looking for general names among others without comparing each with each.

#include <openssl/x509v3.h>

#include <vector>

namespace Norvane::Crypto::openssl {

/// General names, borrowed, in an order in which equal ones stand together.
using OrderedNames = std::vector<const GENERAL_NAME*>;

/// The names of a stack, which may be null, put in order. Without those that `GENERAL_NAME_cmp` finds unequal to
/// themselves, which are equal to nothing.
[[nodiscard]] OrderedNames orderedNames(const GENERAL_NAMES* names);

/// Whether one of the names equals `name`: two null ones do, else those for which `GENERAL_NAME_cmp` answers 0.
[[nodiscard]] bool contains(const OrderedNames& names, const GENERAL_NAME* name);

} // namespace Norvane::Crypto::openssl
