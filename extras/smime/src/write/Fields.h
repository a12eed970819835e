#pragma once

/// \file
/// Header fields as they are written: lines end with CRLF.

#include "mime/Header.h"

#include <string>
#include <string_view>

namespace Norvane::Crypto::SMime::writing {

/// A field of the message that stays outside, as it stands but for its line ends: CRLF for LF, a blank for a CR or NUL
/// alone, which others might take for the end of a line; a line that is too long to be sent is folded.
std::string outerField(std::string_view octets);

/// A field that goes inside: 7-bit (RFC 2047, RFC 2231; GMime does it), no line too long or blank or with blanks at its end,
/// which relays cut off. One that is so already keeps its bytes.
/// \param where for failures: "the part at 1.2"
/// \throws Exception: it cannot be folded, or the Content-Type of a multipart has no form in 7 bits
std::string innerField(std::string_view name, std::string_view value, const std::string& where);

/// What is no field, with CRLF at the ends of its lines and all else as it stands.
std::string linesAsTheyStand(std::string_view octets);

/// Lines without blanks at their ends, which relays cut off, and without lines that have nothing else, which end a header for
/// some.
std::string withoutTrailingBlanks(std::string_view lines);

/// A field that is ours: of 7-bit characters, folded at blanks to lines of 78.
std::string newField(std::string_view name, std::string_view value);

/// A field with a parameter added behind all of its own.
std::string withParameter(std::string field, std::string_view parameter);

/// A field that was written, as readers find it.
mime::Header readAgain(const std::string& field);

/// What became of the addresses of a value in the field that was made of it.
enum class Addresses : int {
    none, ///< there are none, or not all of it can be read
    kept, ///< domains of another script may stand there as A-labels
    lost,
};
/// \param value in UTF-8, unfolded
Addresses addressesOf(const std::string& field, const std::string& name, const std::string& value);

/// Bytes as UTF-8: what is none is read as ISO-8859-1, in which each byte is a character.
std::string asUtf8(std::string_view bytes);

/// Whether a text can stand in 7-bit mail.
bool isSevenBit(std::string_view text) noexcept;

} // namespace Norvane::Crypto::SMime::writing
