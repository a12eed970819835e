#pragma once

#include <norvcmsg/Media.h>

#include <cstddef>
#include <string_view>

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

/// Whether all decoders make the same of quoted-printable: each `=` begins an octet or a soft line break that a line follows
/// (RFC 2045, 6.7). Of "==" or "=4Z" some leave parts out, and some do not. Bytes that need an octet and have none (8-bit, NUL)
/// are no fault here: they mean themselves.
class QuotedPrintableCheck {
public:
    void see(std::string_view piece);
    /// Nothing follows.
    void end();
    [[nodiscard]] bool isWellFormed() const noexcept { return m_wellFormed; }

private:
    enum class Escape : int { none, begun, oneDigit, blanks, returned };
    void seeByte(char byte);
    void seeEscaped(char byte);
    void endLine();

    bool m_wellFormed = true;
    Escape m_escape = Escape::none;
    std::size_t m_blanks = 0; ///< in a row
};

} // namespace Norvane::Crypto::SMime::writing
