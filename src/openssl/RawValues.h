#pragma once

/// \file
/// Small values out of encodings that are not decoded as a whole. All of these leave the error queue as it was.

#include "framing/Elements.h"
#include "openssl/Pointers.h"

#include <ctime>
#include <optional>
#include <string>

namespace Norvane::Crypto::openssl {

/// The identifier that a whole element holds; null when it holds none.
[[nodiscard]] ObjectPtr objectOf(framing::Octets element) noexcept;
/// OpenSSL's number of it; NID_undef for none and for one that OpenSSL does not know.
[[nodiscard]] int nidOf(framing::Octets element) noexcept;
/// The identifier in digits, cut off after 127 characters; empty for none.
[[nodiscard]] std::string digitsOf(framing::Octets element);
/// Its name as `usualName` has it.
[[nodiscard]] std::string nameOf(framing::Octets element);

/// The moment of a whole UTCTime or GeneralizedTime; nothing when it is no valid one.
[[nodiscard]] std::optional<std::time_t> momentOf(framing::Octets element) noexcept;

/// A distinguished name, ready to be compared; null when the octets are none. \throws std::bad_alloc
[[nodiscard]] NamePtr distinguishedNameOf(framing::Octets element);

} // namespace Norvane::Crypto::openssl
