#ifndef NORVCMSG_EMAIL_ADDRESS_H
#define NORVCMSG_EMAIL_ADDRESS_H

/// \file
/// Mail addresses: the Mailbox of RFC 5321 section 4.1.2, with the characters beyond ASCII of RFC 6531 on request.
///
/// \code
/// auto address = Norvane::EmailAddress::rfc5321Parse("Fred.Bloggs@example.com", false);
/// address.domain();                                                       // "example.com"
/// Norvane::EmailAddress::rfc5321Parse("fred@@example.com", false).isNull(); // true
/// \endcode
///
/// Threads: a value. It may be read by several threads at once, and copies belong to whoever has them.

#include <norvcmsg/Export.h>

#include <cstddef>
#include <string>

namespace Norvane {

/// An address, the empty address, or none (null).
class NORVCMSG_EXPORT EmailAddress {
public:
    /// The null address.
    EmailAddress();

    /// Reads `local-part@domain`: a dot-string or quoted string, then a domain or an address literal ("[192.0.2.1]",
    /// "[IPv6:2001:db8::1]", "[tag:content]"). The text must be all of it: no angle brackets, comments, source routes
    /// or white space around it. Lengths are limited to 64 bytes before the "@", 255 after it, 63 per label and 254 in
    /// all. Never throws; takes time linear in the text.
    ///
    /// \param allowUtf8 admits well-formed UTF-8 beyond ASCII in both parts, except for controls and characters that
    ///                  separate lines or change the direction of writing; a label's characters are not looked up in
    ///                  the tables of IDNA
    /// \returns the address; the empty address for an empty text (the sender of a bounce); the null address for
    ///          everything else, a text with a NUL byte included
    static EmailAddress rfc5321Parse(const std::string& text, bool allowUtf8);

    /// True when there is no address text: the empty address and the null address.
    [[nodiscard]] bool isEmptyAddress() const noexcept { return m_address.empty(); }
    /// True when nothing was parsed, or without success.
    [[nodiscard]] bool isNull() const noexcept { return m_null; }

    /// The whole address as it was given; empty for the empty and the null address.
    [[nodiscard]] const std::string& address() const noexcept { return m_address; }
    /// What stands before the "@", with its quotes if it has any.
    [[nodiscard]] std::string localPart() const;
    /// What stands after the "@", with its brackets if it is a literal.
    [[nodiscard]] std::string domain() const;

    /// Equal local parts, and domains that are equal without regard to the case of ASCII letters; null equals null
    /// only.
    bool operator==(const EmailAddress& other) const;

private:
    std::string m_address;
    std::size_t m_at = 0;
    bool m_null = true;
};

} // namespace Norvane

#endif
