#ifndef NORVCRYPTO_CMS_ENVELOPE_OUTLINE_H
#define NORVCRYPTO_CMS_ENVELOPE_OUTLINE_H

/// \file
/// What an encrypted message needs of whoever opens it, read from its frame without a key (RFC 5652, RFC 5083).
/// `DecrypterMediaIn` reads what PKCS#7 1.5 knows (RFC 2315): recipients by issuer and serial number with an RSA-encrypted
/// content key. Sound messages of newer senders are undecodable for it. This class tells those from damaged ones, names
/// what they need, and leaves out what is not needed to read them.
///
/// \code
/// Norvane::Buffer message = ...;                      // for which DecrypterMediaIn's constructor threw
/// const CMS::EnvelopeOutline outline(message);
/// if (outline.isReadable()) {                         // only its frame was new
///     Norvane::MemoryMediaIn in(outline.readable(message));
///     CMS::DecrypterMediaIn decrypter(in, keys);
/// }
/// for (const std::string& feature : outline.unsupported()) {
///     std::cerr << "not supported: " << feature << '\n';
/// }
/// \endcode
///
/// Nothing is decrypted or verified here; every answer follows from what everybody can read in the message. A value; const
/// operations may be used by several threads at once.

#include <norvcmsg/Buffer.h>
#include <norvcrypto/Export.h>

#include <list>
#include <string>

namespace Norvane::Crypto::CMS {

/// The outline of one message.
class NORVCRYPTO_EXPORT EnvelopeOutline {
public:
    /// What the bytes are; the numbers are fixed.
    enum Kind : int {
        Damaged = 0,           ///< no structure, cut off, or without the parts that its type has
        EnvelopedData = 1,     ///< 1.2.840.113549.1.7.3
        AuthEnvelopedData = 2, ///< 1.2.840.113549.1.9.16.1.23, RFC 5083: encrypted under AES-GCM, mostly
        OtherType = 3          ///< a structure of another type
    };

    /// Walks over the message, DER or BER, in time that grows with the number of its elements and memory for a few names.
    /// What follows the structure is not looked at.
    explicit EnvelopeOutline(const Buffer& message);

    [[nodiscard]] Kind kind() const noexcept { return m_kind; }

    /// What `DecrypterMediaIn` cannot do, in words with the names and object identifiers of algorithms, each once, in the
    /// message's order: "recipients by key agreement (dhSinglePass-stdDH-sha1kdf-scheme (1.3.133.16.840.63.0.2))",
    /// "recipients by password", "AuthEnvelopedData (id-aes256-GCM (2.16.840.1.101.3.4.1.46))". 16 at most, the others in
    /// one. Recipients by issuer and serial number that have another algorithm than RSA are not listed:
    /// `DecrypterMediaIn::attempts` names those.
    [[nodiscard]] const std::list<std::string>& unsupported() const noexcept { return m_unsupported; }

    /// Whether `DecrypterMediaIn` can read it: EnvelopedData with a recipient by issuer and serial number.
    [[nodiscard]] bool isReadable() const noexcept { return m_readable; }

    /// The message with what `DecrypterMediaIn` does not know left out: originator information, unprotected attributes and
    /// recipients of other kinds. None of these is needed for decrypting with the other recipients' keys, and none is
    /// protected against changes on its way. Empty unless `isReadable()`, or when it would be longer than 2147483647 bytes.
    /// \param message the bytes that this outline was made of
    [[nodiscard]] Buffer readable(const Buffer& message) const;

private:
    Kind m_kind = Damaged;
    bool m_readable = false;
    std::list<std::string> m_unsupported;
};

} // namespace Norvane::Crypto::CMS

#endif
