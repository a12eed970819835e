#ifndef NORVCRYPTO_CMS_ENVELOPE_READER_H
#define NORVCRYPTO_CMS_ENVELOPE_READER_H

/// \file
/// Encrypted messages of any size, read in constant memory: EnvelopedData (RFC 5652, 6) and AuthEnvelopedData (RFC 5083),
/// in DER or BER. Beside `DecrypterMediaIn`, which keeps the whole message in memory and knows the recipients of PKCS#7 1.5.
///
/// \code
/// Norvane::FileMediaIn file(Norvane::File::Path("message.p7m"));
/// CMS::EnvelopeReader message(file);                       // reads up to the content
/// if (!message.open(CMS::KeyStoreLookup(keys))) {
///     std::cerr << (message.unsupported().empty() ? "no key" : "not supported: " + message.unsupported()) << '\n';
///     return;
/// }
/// Norvane::FileMediaOut clear(Norvane::File::Path("body"));
/// try {
///     message.write(clear);                                // throws for a damaged message
///     clear.end();
/// } catch (const Norvane::Exception& failure) {
///     discard(clear);                                      // what is there may be anything, see isAuthenticated()
/// }
/// \endcode
///
/// EnvelopedData IS NOT AUTHENTICATED. Its content is passed on while it is decrypted, before its end is seen; who changed
/// the message on its way decides what comes out, and only about 255 of 256 damages of the end are noticed at all. Never
/// act on a part of it, and never tell a sender whether decrypting succeeded. AuthEnvelopedData is passed on only after
/// all of it was found authentic: `isAuthenticated()` tells which one a message is. Neither says who sent it: anybody may
/// encrypt for a recipient.
///
/// WHETHER A MESSAGE IS AUTHENTICATED IS THE CHOICE OF WHOEVER SENT IT LAST. Both structures carry the content key in the same
/// recipients, so that anybody on the way can take those of an AuthEnvelopedData, put its octets into an EnvelopedData under
/// a cipher without authentication, CFB or CBC, and have parts of the text come out among what he chose (RFC 9709 tells
/// how). Who expects authenticated messages asks `isAuthenticated()` before `open`, and opens no other.
///
/// What is supported:
/// - key transport: RSA with PKCS#1 1.5 or OAEP (SHA-1, SHA-2, any label)
/// - key agreement: ECDH (RFC 5753; standard and cofactor; X9.63 with SHA-1 or SHA-2) and X25519, X448 (RFC 8418); AES key
///   wrap and that of triple DES
/// - key-encryption keys under the same wraps; passwords with PBKDF2 (RFC 5652, 6.2.3 and 6.2.4)
/// - content: the ciphers that `DecrypterMediaIn` decrypts; authenticated AES-GCM (RFC 5084) with nonces of up to 128
///   octets, ChaCha20-Poly1305 (RFC 8103)
///
/// A failure of the key and one of the content look alike and come to the same work (RFC 3218): where no content key
/// opens, a random one is used. What is told apart follows from what everybody can read in the message.
///
/// From a source whose bytes lie in memory (`BytesInMemory`) nothing is copied, and an authenticated message is gone through
/// twice in place, for its tag (with AES-GCM beyond 64 KB without decrypting) and for its content: who changes the bytes in
/// between, as others may those of a mapped file, changes what comes out. From any other source nothing is read beyond the
/// structure, and the content of an authenticated message is kept, encrypted, in memory up to 64 KB and in a file without a
/// name (mode 0600) beyond.
///
/// One reader is used by one thread at a time.

#include <norvcmsg/Buffer.h>
#include <norvcmsg/Media.h>
#include <norvcrypto/CMSIdentifier.h>
#include <norvcrypto/Export.h>
#include <norvcrypto/KeyStore.h>

#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Norvane::Crypto::CMS {

/// Who has the private keys. Asked once at most for each name in a message.
class NORVCRYPTO_EXPORT KeyLookup {
public:
    KeyLookup() = default;
    KeyLookup(const KeyLookup&) = delete;
    KeyLookup& operator=(const KeyLookup&) = delete;
    virtual ~KeyLookup();

    /// The pair for a recipient; a null pair, or one without a private key, when there is none. What it throws reaches
    /// the caller of `open`.
    [[nodiscard]] virtual NVX509::KeyCertificatePair find(const CertificateIdentifier& recipient) const = 0;
    /// False when `find` has certainly no answer for a name, which so need not be decoded: with a hundred recipients that
    /// takes longer than all else. True unless a class knows better. Throwing is up to `find`.
    /// \param octets what `CertificateIdentifier::octets` gives: a borrowing buffer, not to be kept
    [[nodiscard]] virtual bool mayFind(NamedBy namedBy, const Buffer& octets) const noexcept;
};

/// The key store, which finds by issuer and serial number alone.
class NORVCRYPTO_EXPORT KeyStoreLookup : public KeyLookup {
public:
    /// \param keys shared. An empty handle makes `find` throw "operator->", code 1
    explicit KeyStoreLookup(const NVX509::RefKeyStore& keys);
    ~KeyStoreLookup() override;
    [[nodiscard]] NVX509::KeyCertificatePair find(const CertificateIdentifier& recipient) const override;

private:
    NVX509::RefKeyStore m_keys;
};

/// A list of pairs, found by either kind of name. Finding takes about as long with many pairs as with one.
class NORVCRYPTO_EXPORT KeyListLookup : public KeyLookup {
public:
    /// Pairs without a certificate are left out.
    explicit KeyListLookup(const std::list<NVX509::KeyCertificatePair>& pairs);
    ~KeyListLookup() override;
    [[nodiscard]] NVX509::KeyCertificatePair find(const CertificateIdentifier& recipient) const override;
    [[nodiscard]] bool mayFind(NamedBy namedBy, const Buffer& octets) const noexcept override;

private:
    struct Index;
    std::unique_ptr<const Index> m_index;
};

struct ReceivedRecipient;
class EnvelopeReaderImpl;

/// One message.
class NORVCRYPTO_EXPORT EnvelopeReader : public MediaIn, private NonCopyable {
public:
    /// What a sender, of whom nothing is known, may choose. What is beyond is refused with a `TooCostlyException` (Key.h)
    /// whose text names the member; the message is not damaged then. Elements within elements to more than 32 levels, which
    /// no sender makes, count as damage. 2^31 - 1 octets before and behind the content are the most whatever is asked for.
    struct Budget {
        std::uint32_t head = 4U << 20U;   ///< octets before the content: originator information, recipients, algorithm
        std::uint32_t tail = 4U << 20U;   ///< octets behind it: attributes, tag
        std::uint32_t recipients = 10000; ///< those of key agreements count for each key
        std::uint32_t passwordIterations = 1000000;
        std::uint32_t privateKeyOperations = 8;       ///< by all calls of `open` with a lookup
        std::uint64_t spill = UINT64_C(0x1000000000); ///< octets of authenticated content in the file without a name
    };

    /// How far it has come. The numbers are fixed.
    enum Verdict : int {
        Unopened = 0,    ///< no key was chosen
        Running = 1,     ///< the content can be read
        Complete = 2,    ///< all of it was read, and nothing was found to be wrong
        Damaged = 3,     ///< damaged, cut off, forged, or the key was a wrong one
        Unsupported = 4, ///< `unsupported()` tells what
    };

    /// One who can open the message. A value that may outlive the reader; copies share their octets.
    class NORVCRYPTO_EXPORT Recipient {
    public:
        /// The numbers are fixed.
        enum Kind : int {
            keyTransport = 0,     ///< an RSA key
            keyAgreement = 1,     ///< a key of an elliptic curve; one recipient for each encrypted key
            keyEncryptionKey = 2, ///< a symmetric key that both sides have
            password = 3,
            other = 4, ///< a kind that is not known (RFC 5652, 6.2.5), or not decodable
        };

        [[nodiscard]] Kind kind() const noexcept;
        /// Whose certificate it is; nothing for other kinds than the first two, and for a name that does not decode.
        [[nodiscard]] std::optional<CertificateIdentifier> identifier() const;
        /// The octets that name a key-encryption key; empty for other kinds.
        [[nodiscard]] Buffer keyIdentifier() const;
        /// The algorithm that the content key is encrypted with, by name and object identifier: "RSAES-OAEP
        /// (1.2.840.113549.1.1.7)", "dhSinglePass-stdDH-sha256kdf-scheme (1.3.132.1.11.1)"; for `other` the identifier of
        /// the kind. Empty when there is none.
        [[nodiscard]] std::string algorithm() const;
        /// What of it is not supported, by name; empty when it is supported. For a kind that is not known its identifier.
        [[nodiscard]] std::string unsupported() const;

    private:
        friend class EnvelopeReader;
        friend class EnvelopeReaderImpl;
        explicit Recipient(std::shared_ptr<const ReceivedRecipient> parts) noexcept;

        std::shared_ptr<const ReceivedRecipient> m_parts;
    };

    /// Keeps `in`, which nobody else reads from now on, and reads up to the content.
    /// \throws Exception "CMS::EnvelopeReader", code 4, file CMSEnvelopeReader: the structure is of another type, which the
    ///         text names, or there is none, or a damaged one
    /// \throws TooCostlyException likewise: beyond the budget
    /// \throws what `in` throws, unchanged
    explicit EnvelopeReader(const MediaIn& in);
    EnvelopeReader(const MediaIn& in, const Budget& budget);
    ~EnvelopeReader() override;

    /// All recipients in the message's order; decoded when first asked for.
    [[nodiscard]] const std::vector<Recipient>& recipients() const;
    /// AuthEnvelopedData: no octet comes out before all of the content was found authentic.
    [[nodiscard]] bool isAuthenticated() const;
    /// The type of the content in digits: "1.2.840.113549.1.7.1" for data. Authenticated where the message is: a content
    /// of another type than data must come with the attribute that says so (RFC 5083, 2.1), else it counts as damaged.
    [[nodiscard]] std::string contentType() const;
    /// The cipher by name and object identifier: "AES-256-CBC (2.16.840.1.101.3.4.1.42)".
    [[nodiscard]] std::string cipher() const;
    /// False when the message carries no encrypted content, because it is somewhere else. It cannot be opened then.
    [[nodiscard]] bool hasContent() const;

    /// Where the file for the content of an authenticated message is made, as for `SwapBufferMediaOut`; to be called before
    /// the first octet is read. "norvcrypto-XXXXXX" in the system's folder for
    /// temporary files unless it is called.
    void spillTo(const std::string& fileTemplate);

    /// Chooses the one key that the content is read with, by asking for each recipient until there is a key. True tells that
    /// there is one, not that it is the right one; false that there is none, or only for what is not supported: ask
    /// `unsupported()`. Others may be tried then.
    ///
    /// A pair whose certificate has another name than the recipient (a renewed one) is used when there is none of the right
    /// name. One whose private key does not belong to its certificate is none. Where a key fails in a way that leaves no
    /// doubt (OAEP, key wrap) the next recipient is tried.
    /// \throws Exception "CMS::EnvelopeReader", code 4: a key was chosen before, or there is no content
    /// \throws TooCostlyException beyond `Budget::privateKeyOperations`
    bool open(const KeyLookup& keys);
    /// Chooses a key for one recipient, whatever the certificate's name is. False as above, and when the recipient is of
    /// another kind than what is given.
    /// \throws Exception likewise; the recipient is of another message
    bool open(const Recipient& recipient, const NVX509::KeyCertificatePair& pair);
    /// \param key the octets of a key-encryption key
    bool open(const Recipient& recipient, const Buffer& key);
    /// \param password its octets (RFC 5652 asks for UTF-8)
    /// \throws TooCostlyException beyond `Budget::passwordIterations`, before anything is computed
    bool openWithPassword(const Recipient& recipient, const Buffer& password);
    /// The recipient that was chosen; null before.
    [[nodiscard]] const Recipient* opened() const;

    /// What is not supported, by name: the cipher, which is known from the start, or what the recipients with a key need.
    [[nodiscard]] const std::string& unsupported() const;
    [[nodiscard]] Verdict verdict() const;

    // The clear body: `read`, `peek`, `atEnd` of MediaIn, and `write`, which is the fastest. `atEnd()` is true for
    // `Complete` alone. Each throws:
    // - Exception "CMS::EnvelopeReader", code 4, "the message is damaged, or the key is not the right one": for every
    //   damage, now and from now on. The verdict is `Damaged`
    // - Exception likewise, with a text of its own: no key was chosen; something is not supported
    // - TooCostlyException: behind the content is more than `Budget::tail`, or it is longer than `Budget::spill`. The verdict
    //   is `Damaged`, since nothing more can be read
    // - what the source throws, unchanged; likewise

    /// Decrypts all that is left into `out`, which is returned and not ended. \throws what `out` throws, unchanged
    MediaOut& write(MediaOut& out) override;

private:
    [[nodiscard]] EnvelopeReaderImpl& body() const;
};

} // namespace Norvane::Crypto::CMS

#endif
