#pragma once

/// \file
/// How long opening a PKCS#12 structure would take. Its maker chooses the iteration counts of the functions that turn
/// the password into keys: up to 2^31 for the MAC, which runs before anything is known of the maker, and for each
/// encrypted part. OpenSSL sets no bound.

#include "openssl/Pointers.h"

#include <cstdint>
#include <string>

namespace Norvane::Crypto::openssl {

/// The most iterations that one structure may ask for in all: some seconds. Usual programs ask for 2,000 to 1,000,000.
inline constexpr std::int64_t mostIterations = 20'000'000;

/// Whether checking the password stays within the bound.
bool isMacAffordable(const PKCS12_st* structure) noexcept;

/// Whether all the rest does together. Opens encrypted parts whose own counts are within the bound, for those inside;
/// what cannot be opened or decoded counts nothing. The password ends at an embedded NUL. Leaves the error queue as it
/// was.
bool isContentAffordable(const PKCS12_st* structure, const std::string& password) noexcept;

} // namespace Norvane::Crypto::openssl
