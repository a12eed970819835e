#pragma once

/// \file
/// What is asked about the line ends of long texts, sixteen octets in one step: a search that stops at each line end costs more than
/// digesting the text.

#include <cstddef>
#include <string_view>

namespace Norvane::Crypto::SMime::mime {

/// Where, at `from` or behind it, a line feed stands with `first` behind it; `npos` when there is none.
[[nodiscard]] std::size_t findLineStart(std::string_view text, char first, std::size_t from = 0) noexcept;

/// The same with a whole text behind the line feed. \param start its first octet is the line feed; at least two
[[nodiscard]] std::size_t findLine(std::string_view text, std::string_view start, std::size_t from = 0) noexcept;

/// How often an octet stands there.
[[nodiscard]] std::size_t countOf(char octet, std::string_view text) noexcept;

/// Whether CR and LF stand there as pairs alone: then the text is canonical (RFC 8551, 3.1.1), whatever is around it.
[[nodiscard]] bool isCanonical(std::string_view text) noexcept;

} // namespace Norvane::Crypto::SMime::mime
