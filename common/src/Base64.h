#pragma once

/// \file
/// The base64 of RFC 4648 section 4.

#include <optional>
#include <string>
#include <string_view>

namespace Norvane::base64 {

/// The most bytes that a text of `length` characters decodes to.
[[nodiscard]] constexpr unsigned int decodedBound(std::size_t length) noexcept {
    return static_cast<unsigned int>(length / 4 * 3);
}

/// Decodes `text` into `out`, which has room for `decodedBound` bytes. White space is skipped. Answers the number of
/// bytes, or nothing when a character, the padding or the bits left over by padding are wrong.
[[nodiscard]] std::optional<unsigned int> decode(std::string_view text, unsigned char* out) noexcept;

/// The text of `bytes`, padded, without line breaks.
[[nodiscard]] std::string encode(std::string_view bytes);

} // namespace Norvane::base64
