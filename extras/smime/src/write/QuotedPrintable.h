#pragma once

#include <norvcmsg/Media.h>

namespace Norvane::Crypto::SMime::writing {

/// What comes into the filter below.
enum class QuotedFrom : int {
    text,   ///< lines, of any bytes, that end with CRLF
    quoted, ///< quoted-printable already, and not fit to be sent: 8-bit, too long lines, blanks at their ends, ...
};

/// Quoted-printable (RFC 2045, 6.7) in lines of at most 76 characters. What a relay may change is written as octets:
/// blanks at the end of a line, "From " and "." at its start, where mailboxes and SMTP put characters before them, and "--",
/// so that nothing that is encoded anew looks like a boundary around it. GMime's encoder does not do these.
///
/// Of what was quoted already the content stays the same: each `=` with its digits stays together, and blanks at the ends of
/// lines go, as readers drop them (RFC 2045, 6.7, rule 3).
MediaOut quotedPrintable(const MediaOut& target, QuotedFrom from);

} // namespace Norvane::Crypto::SMime::writing
