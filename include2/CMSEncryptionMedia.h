#ifndef NORVCRYPTO_CMS_ENCRYPTION_MEDIA_H
#define NORVCRYPTO_CMS_ENCRYPTION_MEDIA_H

/// \file
/// Encrypting a mail body while it streams through, and decrypting one with whatever key of a key store fits.
/// `EncrypterMediaOut` takes the body in pieces and, when it is ended, writes one DER-encoded CMS EnvelopedData
/// (RFC 2315, RFC 5652; version 0, RSA key transport with PKCS#1 1.5 padding) to the stream that it is attached to.
/// `DecrypterMediaIn` takes such a structure, DER or BER, from any sender, and writes the clear body.
///
/// \code
/// Norvane::Crypto::initialize();                      // once, before anything else
/// Norvane::MemoryMediaOut message;
/// CMS::EncrypterMediaOut encrypter(AES_256_CBC, {bobsCertificate, carolsCertificate});
/// encrypter.attach(message);
/// body.write(encrypter);                              // as many writes as there are pieces
/// encrypter.end();                                    // also ends `message`
///
/// Norvane::MemoryMediaIn received(message.content());
/// Norvane::SwapBufferMediaOut clear(0x10000, "/var/spool/tmp/swapXXXXXX");
/// CMS::DecrypterMediaIn decrypter(received, NVX509::RefKeyStore::instance(false, false));
/// if (decrypter.decrypt(clear)) {                     // rather than write: what a failed try wrote is gone
///     clear.in().write(destination);
/// }
/// \endcode
///
/// - Encryption is not authentication. CBC has no check value: whoever can change a message on its way can change the
///   body that comes out, and learns from an answer that tells good padding from bad. Never tell a sender why a
///   decryption failed, and sign what must not be changed.
/// - Bytes are encrypted exactly as written: no line ending is changed, no MIME is looked at.
/// - The encrypting side holds the encrypted body in memory until it is ended, once; the decrypting side holds the
///   structure, once, or nothing of it but a handle on a source whose bytes lie in memory (`MemoryMediaIn`,
///   `MappedFileMediaIn`), where they are read in place. The clear body passes in constant memory on both sides, written in
///   pieces.
/// - One stream is used by one thread at a time; certificates, keys and the key store may be shared between streams of
///   several threads.

#include <norvcmsg/Buffer.h>
#include <norvcmsg/Media.h>
#include <norvcmsg/SwapBufferMediaOut.h>
#include <norvcrypto/ASN1.h>
#include <norvcrypto/BIOMediaImpl.h>
#include <norvcrypto/CMS.h>
#include <norvcrypto/Certificate.h>
#include <norvcrypto/DistinguishedName.h>
#include <norvcrypto/Encryption.h>
#include <norvcrypto/Export.h>
#include <norvcrypto/KeyStore.h>

#include <cstddef>
#include <list>
#include <memory>
#include <string>

namespace Norvane::Crypto::CMS {

class StructureStream;

/// The body of an `EncrypterMediaOut`.
class NORVCRYPTO_EXPORT EncrypterMediaOutImpl : public MediaOutImpl {
public:
    /// See `EncrypterMediaOut`.
    EncrypterMediaOutImpl(Cipher cipher, const std::list<NVX509::RefCertificate>& recipients);
    ~EncrypterMediaOutImpl() override;
    EncrypterMediaOutImpl(const EncrypterMediaOutImpl&) = delete;
    EncrypterMediaOutImpl& operator=(const EncrypterMediaOutImpl&) = delete;

    /// Adds bytes to the body. They collect in a buffer of 4096 bytes that is passed on when the next piece does not
    /// fit. A piece of more than 8192 bytes is encrypted at once, from where it lies.
    ///
    /// Deliberately odd: what is written after `end()` is dropped without a word, since the structure is finished.
    void write(const Buffer& data) override;
    /// As above; the bytes are borrowed and need not live on.
    void write(const unsigned char* data, unsigned int length) override;
    /// Encrypts what is left, sends the structure to the target and ends the target. A second call sends the same
    /// structure again, byte for byte, and ends the target again: also after the target threw, to another target.
    ///
    /// Deliberately odd: the first call leaves an entry in OpenSSL's error queue when it succeeds (library PKCS7,
    /// "operation not supported on this type"). Clear the queue (`getErrString()`) before asking OpenSSL yourself.
    ///
    /// \throws Exception "CMS::EncrypterMediaOutImpl::end", code 4, file CMSEncryptionMedia, line 136, detail the
    ///         OpenSSL errors: the body was not encrypted to its end (no memory, or more than 2147483647 bytes) or the
    ///         structure is not finished; nothing was sent
    /// \throws Exception "CMS::EncrypterMediaOutImpl::end", code 4, file CMSEncryptionMedia, without a fixed line,
    ///         detail the OpenSSL errors: the structure is not encoded (no memory, or more than 2147483647 bytes);
    ///         nothing was sent
    /// \throws Exception "operator->", code 1: nothing is attached
    /// \throws what the target throws, unchanged
    void end() override;

    void attach(MediaOut& target);
    void detach();

    /// Adds a recipient while the stream is being made, for which the constructor calls it. The content key is
    /// encrypted for the recipients there are when the constructor returns; nobody can be added after that.
    /// \throws Exception "CMS::EncrypterMediaOutImpl::addCertificate", code 4, file CMSEncryptionMedia, line 96, detail
    ///         the OpenSSL errors: the certificate is an empty handle, has no RSA key (OpenSSL's PKCS#7 knows no other
    ///         key transport) or comes too late
    void addCertificate(const NVX509::RefCertificate& certificate) const;

private:
    std::unique_ptr<StructureStream> m_stream;
};

/// A sink that encrypts what is written to it; see `EncrypterMediaOutImpl` for writing and ending. Without `end()`
/// nothing reaches the target.
class NORVCRYPTO_EXPORT EncrypterMediaOut : public MediaOut {
public:
    /// A handle without a body: every operation on it throws "operator->", code 1.
    EncrypterMediaOut();
    /// \param cipher     one of the eight of `Cipher`
    /// \param recipients the certificates of those who shall read the body, named in the structure by issuer and serial
    ///                   number. Nothing but the kind of key is asked of them: validity, key usage and trust are the
    ///                   caller's to check before (see `CertificateVerifier`). Their order is the order in which they
    ///                   are added; DER sorts them by their encodings. An empty list is not refused: it gives a
    ///                   structure that nobody can read. A certificate twice gives two recipients.
    /// \throws Exception "CMS::EncrypterMediaOutImpl::EncrypterMediaOutImpl", code 4, file CMSEncryptionMedia, detail
    ///         the OpenSSL errors:
    ///         - line 47: the structure cannot be typed
    ///         - line 55: the cipher has no object identifier
    ///         - line 74: the cipher does not start, or the content key cannot be encrypted for a recipient (an RSA key
    ///           that is too short for it)
    /// \throws Exception "CMS::EncrypterMediaOutImpl::addCertificate", line 96: a recipient is refused, see there
    /// \throws what `initializeCipher` throws for another value
    /// \throws Exception "CMS::RefContentInfo::RefContentInfo", code 4, line 404, "Creation failed": no memory
    EncrypterMediaOut(Cipher cipher, const std::list<NVX509::RefCertificate>& recipients);
    EncrypterMediaOut(const EncrypterMediaOut& other);
    EncrypterMediaOut& operator=(const EncrypterMediaOut& other);
    ~EncrypterMediaOut() override;

    /// Sends the structure to `target`, which is shared and which `end()` ends.
    /// \throws Exception "CMS::EncrypterMediaOut::attach", code 1, file CMSEncryptionMedia: the body was replaced by
    ///         another kind of sink, or `target` is this stream itself
    /// \throws Exception "operator->", code 1: there is no body
    void attach(MediaOut& target);
    /// Lets go of the target.
    /// \throws Exception as above
    void detach();
};

class DecrypterMediaInImpl;

/// Decrypts one structure with the keys of a key store: for each recipient, in the structure's order, the store is
/// asked for the pair of that issuer and serial number, until one decrypts the body.
class NORVCRYPTO_EXPORT DecrypterMediaIn : public MediaIn, private NonCopyable {
public:
    /// Who a recipient is. Copies share both parts, which live on without the structure.
    class NORVCRYPTO_EXPORT Identifier {
    public:
        /// Deliberately odd: the issuer is parsed anew from its text (`DistinguishedName::asString`), so that what the
        /// text form cannot carry is lost: attributes of unknown upper-cased types, emailAddress among them, and
        /// values with commas. Identify certificates by the structure's own `IssuerAndSerialNumber`.
        /// \throws Exception for a negative serial number, as `IssuerAndSerialNumber` does
        explicit Identifier(const IssuerAndSerialNumber& recipient);
        /// Shares both handles.
        Identifier(const NVX509::RefDistinguishedName& issuer, const ASN1::RefInteger& serialNumber);

        /// The issuer's name; never an empty handle when it came from a structure. The recipients of one message that
        /// have the same issuer share it.
        [[nodiscard]] const NVX509::RefDistinguishedName& issuer() const noexcept { return m_issuer; }
        /// The serial number; a null handle for a structure without one.
        [[nodiscard]] const ASN1::RefInteger& serialNumber() const noexcept { return m_serialNumber; }

    private:
        NVX509::RefDistinguishedName m_issuer;
        ASN1::RefInteger m_serialNumber;
    };

    /// The recipient whose key decrypted the body.
    class NORVCRYPTO_EXPORT DecryptedOutput {
    public:
        /// \throws as `Identifier`
        explicit DecryptedOutput(const IssuerAndSerialNumber& recipient);
        /// Shares both handles.
        DecryptedOutput(const NVX509::RefDistinguishedName& issuer, const ASN1::RefInteger& serialNumber);

        [[nodiscard]] const Identifier& identifier() const noexcept { return m_identifier; }
        /// Deliberately odd: always empty. The clear body goes to the sink that `write` is given, never here; no file
        /// is made. (Up to 65536 bytes in memory, then a file of the template "/var/spool/tmp/swapXXXXXX".)
        [[nodiscard]] const SwapBufferMediaOut& output() const noexcept { return m_output; }

    private:
        Identifier m_identifier;
        SwapBufferMediaOut m_output;
    };

    /// What one recipient came to. A value; copies share the parts of the recipient.
    class NORVCRYPTO_EXPORT Attempt {
    public:
        /// The numbers are fixed. `Failed` tells on purpose no more than that: a sender who learns whether the content key
        /// or the content was at fault can decrypt messages that others wrote. The other outcomes follow from the
        /// structure as everybody can read it and from what the key store holds.
        enum Outcome : int {
            Succeeded = 0,               ///< the body was decrypted
            Failed = 1,                  ///< there is a key, and it did not decrypt the body
            NoKey = 2,                   ///< the store has no pair, or one without a private key
            KeyOfAnotherCertificate = 3, ///< the private key does not belong to the certificate that it comes with
            UnsupportedAlgorithm = 4,    ///< there is a key, but `algorithm()` is not one of this class
            NotTried = 5,                ///< beyond what one message may cost, see `write`
            NegativeSerialNumber = 6,    ///< the recipient cannot be named: `recipient()` has a null serial number
        };

        Attempt(Identifier recipient, Outcome outcome, std::string algorithm = std::string(),
                unsigned long bytesWritten = 0);

        [[nodiscard]] const Identifier& recipient() const noexcept { return m_recipient; }
        [[nodiscard]] Outcome outcome() const noexcept { return m_outcome; }
        /// For `UnsupportedAlgorithm` the name and object identifier of the cipher of the content, or of the algorithm that
        /// the content key is encrypted under: "RSAES-OAEP (1.2.840.113549.1.1.7)", or the identifier alone. Else empty.
        [[nodiscard]] const std::string& algorithm() const noexcept { return m_algorithm; }
        /// How many bytes went to the sink, good or not. They are the body when it succeeded.
        [[nodiscard]] unsigned long bytesWritten() const noexcept { return m_bytesWritten; }

    private:
        Identifier m_recipient;
        Outcome m_outcome;
        std::string m_algorithm;
        unsigned long m_bytesWritten;
    };

    /// Reads the structure at once; reads and throws as `RefContentInfo(MediaIn&)` does. What the structure is, is
    /// not asked here. `in` may go once this returns; its body is kept where its bytes lie in memory. What is undecodable here may still be a sound message, with
    /// recipients of newer kinds or originator information: `EnvelopeOutline` (CMSEnvelopeOutline.h) tells.
    /// \param keys shared. An empty handle makes `write` throw "operator->", code 1, at the first recipient.
    DecrypterMediaIn(MediaIn& in, const NVX509::RefKeyStore& keys);
    ~DecrypterMediaIn() override;

    /// Decrypts the body into `out`, which is returned and not ended. Nothing about the structure or the keys is
    /// thrown: ask `decryptionSucceeded()`. A body of 0 bytes is a success too.
    ///
    /// IF NOTHING SUCCEEDED, DISCARD WHAT IS IN `out`; AND PREFER `decrypt`. A try on damaged content writes what it decrypts
    /// before it comes to the damage, and the next one writes behind it. A sender who puts a recipient with a content key of
    /// his own before the right one so writes the beginning of `out`, although a later one succeeds. With this operation, the
    /// body is the last `attempts().back().bytesWritten()` bytes of `out`; `decrypt` leaves those alone. And a success proves
    /// nothing about the content: of damaged messages, about one in 256 has a padding that looks right (see the top).
    ///
    /// Content is decrypted under any cipher that OpenSSL has, with two exceptions that would succeed with garbage: modes
    /// that are not for content (key wrapping, authenticated ones), and a missing initialisation vector. Both are
    /// failures. Ciphers without padding (CFB, OFB, RC4) would take any content key: they succeed only when the RSA
    /// decryption gave a content key of exactly the cipher's length. Whoever is told of such a success or failure learns
    /// something about the RSA decryption, so never tell a sender. Content keys that are encrypted otherwise than with
    /// PKCS#1 1.5 padding (OAEP) are failures.
    ///
    /// A key whose certificate names the recipient is tried on that recipient and on no other. A store may also answer
    /// with a pair of another name (a renewed certificate); its key is then tried on every recipient, once for each
    /// message, and what it opens counts as this recipient's. The failures of an RSA decryption are not told apart from
    /// those of the content: the content is then decrypted with a random key (RFC 3218).
    ///
    /// What a message may cost, whatever its sender put into it: the content is decrypted 12 times at most, and 3 times at
    /// most for recipients of the same issuer and serial number; keys of another name take 1000 RSA operations at most,
    /// beginning with the recipient that was asked for, then in the structure's order. A message within what mail carries
    /// comes to none of these limits. The recipients beyond are in `failed()`, as `Attempt::NotTried`; the store is not
    /// asked again for a name that is used up.
    ///
    /// What is logged, each at level 0:
    /// - 0x3000058, a blank: the structure is no enveloped data; nothing is tried or recorded
    /// - 0x3000059, "CMSEncryptionMedia.cpp" and 250: it has no encrypted content; likewise
    /// - 0x300005A, the issuer's text and the serial number in lower-case hexadecimal: the store has no pair for the
    ///   recipient or the pair has no private key; the recipient is in `failed()`
    /// - 0x300005B, a blank: the private key does not belong to the certificate, which names this recipient (nothing is
    ///   decrypted then), or the decryption failed; the recipient is in `failed()`
    /// - 0x300005B, a blank: a recipient's serial number is negative, so that it cannot be named; it is skipped and in
    ///   neither of the two lists
    /// - 0x300005F, "recipients not tried" and their number: once, at the end, when there are any beyond the limits
    ///
    /// Deliberately odd: a second call tries all again and adds to both lists; make a decrypter for each message.
    /// The thread's OpenSSL error queue is emptied on the way; nothing is left in it.
    ///
    /// \throws what `out` throws, unchanged: the recipient whose body was being written is then in neither list, those
    ///         that failed before stay recorded, and `out` holds what it took
    /// \throws what a plug-in of the key store throws, unchanged
    /// \throws Exception "CMS::DecrypterMediaIn", code 1, file CMSEncryptionMedia: the body was replaced, through the
    ///         base class, by another kind of source; so do the three that follow
    MediaOut& write(MediaOut& out) override;

    /// Decrypts the body as `write` does, each try into an empty `out`: what `out` held before, and what a failed try
    /// wrote, is gone. True with the body, and nothing else, in `out`; false with `out` empty. `out` is not ended.
    /// Recorded, logged and limited as `write`.
    /// \throws as `write`, with `out` empty; MediaException "SwapBufferMediaOut", code 1: `out` is a null handle or
    ///         refers to another kind of stream
    bool decrypt(SwapBufferMediaOut& out);

    /// What each recipient came to, in the order tried, those after the one that succeeded left out; added to by each
    /// `write` and `decrypt`.
    [[nodiscard]] const std::list<Attempt>& attempts() const;
    /// The recipient that decrypted the body; at most one for each `write`.
    [[nodiscard]] const std::list<DecryptedOutput>& succeeded() const;
    /// The recipients that were tried without success, in the order tried.
    [[nodiscard]] const std::list<Identifier>& failed() const;
    /// True when `succeeded()` is not empty.
    [[nodiscard]] bool decryptionSucceeded() const;

private:
    [[nodiscard]] DecrypterMediaInImpl& body() const;
};

/// The body of a `DecrypterMediaIn`.
class NORVCRYPTO_EXPORT DecrypterMediaInImpl : public MediaInImpl {
public:
    /// See `DecrypterMediaIn`.
    DecrypterMediaInImpl(MediaIn& in, const NVX509::RefKeyStore& keys);
    ~DecrypterMediaInImpl() override;
    DecrypterMediaInImpl(const DecrypterMediaInImpl&) = delete;
    DecrypterMediaInImpl& operator=(const DecrypterMediaInImpl&) = delete;

    using MediaInImpl::read;
    /// Deliberately odd, as are the next two: byte-wise reading is not offered. False, always.
    [[nodiscard]] bool atEnd() const override;
    /// 0, always.
    [[nodiscard]] int peek() const override;
    /// 0 bytes, always; logged, event 0x3000057. The other ways to read end here and give nothing.
    int read(unsigned char* out, unsigned int length) override;
    /// See `DecrypterMediaIn::write`.
    MediaOut& write(MediaOut& out) override;

    [[nodiscard]] const std::list<DecrypterMediaIn::DecryptedOutput>& succeeded() const noexcept { return m_succeeded; }
    [[nodiscard]] const std::list<DecrypterMediaIn::Identifier>& failed() const noexcept { return m_failed; }
    /// See `DecrypterMediaIn::decrypt`.
    bool decrypt(SwapBufferMediaOut& out);
    [[nodiscard]] const std::list<DecrypterMediaIn::Attempt>& attempts() const noexcept { return m_attempts; }

private:
    using Attempt = DecrypterMediaIn::Attempt;
    struct Round;

    bool tryRecipients(MediaOut& out, SwapBufferMediaOut* fresh);
    bool isDecryptedFor(std::size_t recipient, Round& round);
    bool isDecryptedWith(const NVX509::_KeyCertificatePair& pair, std::size_t recipient,
                         const DecrypterMediaIn::Identifier& identifier, Round& round);
    bool recordFailure(const Attempt& attempt);
    bool recordUntried(const DecrypterMediaIn::Identifier& identifier, Round& round);

    RefContentInfo m_contentInfo;
    NVX509::RefKeyStore m_keys;
    std::list<DecrypterMediaIn::Identifier> m_failed;
    std::list<DecrypterMediaIn::DecryptedOutput> m_succeeded;
    BIOMediaOut m_unused; // an adapter without a target
    std::list<Attempt> m_attempts;
};

} // namespace Norvane::Crypto::CMS

#endif
