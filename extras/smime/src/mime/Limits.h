#pragma once

#include <cstddef>

namespace Norvane::Crypto::SMime::mime {

/// What a stranger may choose of one header block.
struct HeaderLimits {
    std::size_t octets = std::size_t{256} << 10U; ///< of all of it
    std::size_t fields = 2000;
};

/// Longer boundaries than RFC 2046, 5.1.1, allows are met; what is longer than this is no boundary.
inline constexpr std::size_t maximumBoundary = 200;
/// Blanks behind a boundary on its line (RFC 2046, 5.1.1, "transport padding"); a line with more is no delimiter.
inline constexpr std::size_t maximumPadding = 128;
/// Of the value of a field that is handed to the MIME library.
inline constexpr std::size_t maximumValue = 16384;
/// Addresses that are read out of the fields of one kind.
inline constexpr std::size_t maximumAddresses = 100;
/// Commas, semicolons, "<" and "@" in them: so many addresses have three each, and names may have some, too.
inline constexpr std::size_t maximumSigns = 5 * maximumAddresses;
/// Words between commas that are no addresses, for each of which GMime goes through all that is left of the value.
inline constexpr std::size_t maximumOthers = 100;

} // namespace Norvane::Crypto::SMime::mime
