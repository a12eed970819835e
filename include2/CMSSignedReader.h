#ifndef NORVCRYPTO_CMS_SIGNED_READER_H
#define NORVCRYPTO_CMS_SIGNED_READER_H

/// \file
/// Reading signed messages (CMS SignedData, RFC 5652, 5) of any size in one pass and constant memory: the content is read
/// out, or the detached body written in, and the signers are judged behind it.
///
/// \code
/// Norvane::Crypto::initialize();                           // once, before anything else
/// Norvane::FileMediaIn file(Norvane::File::Path("message.p7m"));
/// CMS::SignedReader message(file);                         // reads up to the content
/// if (message.isDetached()) {
///     Norvane::MediaOut digest = message.digest();
///     body.write(digest);                                  // the body that came beside the message
/// } else {
///     message.write(content);                              // or read(): `message` is a MediaIn
/// }
/// for (const CMS::SignedReader::Signer& signer : message.signers()) {
///     const CMS::SignatureResult result = message.verdict(signer);
///     if (result.verdict == CMS::SignatureVerdict::good) {
///         std::cout << "signed by " << result.certificate->subject().asString() << '\n'; // not trusted yet
///     } else {
///         std::cout << CMS::textOf(result.reason) << '\n';
///     }
/// }
/// \endcode
///
/// THE CONTENT IS OUT BEFORE IT IS JUDGED: who may not use what nobody signed keeps it apart until there is a verdict.
/// Whether there is a content, too, is the sender's choice: ask `isDetached` before it is decided which body is judged.
///
/// What is read: BER and DER, lengths definite or not. A source whose bytes lie in memory (`BytesInMemory`: `MemoryMediaIn`,
/// `MappedFileMediaIn`) is read in place; of any other no byte behind the structure is read, so that what follows is still
/// there. `write` is the fast way; it hands pieces of up to 64 KB on.
///
/// What is verified: RSA (PKCS#1 1.5), RSASSA-PSS (RFC 4056), DSA, ECDSA on curves by name, Ed25519 and Ed448 (RFC 8419);
/// every digest of a fixed length that OpenSSL has, and SHAKE256 with 512 bits for Edwards curves, beside which signed
/// attributes may have any digest, not only the one that RFC 8419 has senders take. Which of them are good enough is not
/// decided here. A signature by Ed25519 or Ed448 without signed attributes covers the content itself: such
/// contents are kept up to `Budget::content` octets. An algorithm that is not verified is `unsupported`, with its name,
/// and never `refused`.
///
/// What is decoded: nothing but the certificates that a signer names, unless somebody asks. Names and key identifiers are
/// compared where they lie, so that twenty certificates cost what one does. What is not asked for may be damaged without
/// anybody noticing.
///
/// What a stranger chooses is bounded: see `Budget`; `maximumSigners`, `maximumDigests`, `maximumTries`, `maximumKeyWork`
/// and `maximumWork` (CMSVerification.h); 2,500 certificates; elements within elements to 32 levels.
///
/// Unlike OpenSSL this refuses: strings made of anything but octet strings (X.690, 8.7.3.2); sets and sequences that say to
/// be primitive; attributes and algorithms that RFC 5652 forbids or that contradict each other, each with its own reason.
///
/// A good signature is not trust: the certificate is named by the signer, but not validated (see `CertificateVerifier`).
/// One message, its signers included, is used by one thread at a time.

#include <norvcmsg/Buffer.h>
#include <norvcmsg/Media.h>
#include <norvcrypto/CMSIdentifier.h>
#include <norvcrypto/CMSVerification.h>
#include <norvcrypto/Certificate.h>
#include <norvcrypto/CertificateRevocationList.h>
#include <norvcrypto/Export.h>

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Norvane::Crypto::CMS {

class SignedMessage;
struct SignerParts;

/// A signed message that is being read; the content, if there is one, is what it delivers as a `MediaIn`.
///
/// `read`, `peek`, `atEnd` and `write` throw
/// - Exception "CMS::SignedReader", code 4, file CMSSignedReader, with the reason as detail: "the source ended before the
///   structure", for instance, or "more than 100 signers". What is behind the content is read together with its last byte.
///   They throw the same again when they are called again;
/// - what the source throws, unchanged, and afterwards the above: "the source failed".
class NORVCRYPTO_EXPORT SignedReader : public MediaIn, private NonCopyable {
public:
    /// How much a message may be kept of, in octets; no more than 2^31 - 1 for `head` and `tail`.
    struct Budget {
        std::size_t head = std::size_t{4} << 20U;     ///< the digest algorithms
        std::size_t tail = std::size_t{4} << 20U;     ///< certificates, revocation lists and signers, each
        std::size_t content = std::size_t{64} << 10U; ///< of the content, for signatures that cover it itself
        std::uint64_t segments = ~UINT64_C(0);        ///< segments that a content may be made of
    };

    class Signer;

    /// Reads up to the content; all of a message that has none. Keeps a handle on `in`, which nobody else reads until the
    /// end.
    /// \throws Exception "CMS::SignedReader", code 4, file CMSSignedReader: what comes is no signed data ("no signed data"),
    ///         damaged, beyond the budget; or has a structure in the place of bytes (PKCS#7 1.5 allows it): "unsupported: the
    ///         content is a structure, not bytes"
    /// \throws what `in` throws
    explicit SignedReader(const MediaIn& in);
    SignedReader(const MediaIn& in, const Budget& budget);
    ~SignedReader() override;

    /// The object identifier of the content's type, in digits: "1.2.840.113549.1.7.1" for data.
    [[nodiscard]] std::string contentType() const;
    /// Whether the message carries no content. Then it is at its end at once, and judged over what is written into
    /// `digest()`: over an empty body when nothing is.
    [[nodiscard]] bool isDetached() const noexcept;
    /// A sink for the body of a detached message. Ending it makes no difference; verdicts are over what was written so far.
    /// It may outlive this.
    /// \throws Exception as above, detail "the content is in the structure": it is not detached
    [[nodiscard]] MediaOut digest() const;
    /// The bytes of the content or body so far.
    [[nodiscard]] std::uint64_t bodyLength() const noexcept;
    /// Whether the message was read to its end.
    [[nodiscard]] bool isComplete() const noexcept;

    // All of the following throw as `read` does, and before the end of the content is reached Exception as above, detail
    // "the content was not read to its end".

    /// The signers in the message's order; none for a message that only carries certificates.
    [[nodiscard]] const std::vector<Signer>& signers() const;

    /// The verdict on a signer, or on one who countersigned, with the certificates in the message that it names. Asking again
    /// costs nothing, unless more was written into `digest()`. OpenSSL's error queue is left as it was; nothing is logged.
    /// \throws Exception as above, detail "a signer of another message"
    [[nodiscard]] SignatureResult verdict(const Signer& signer) const;
    /// The verdict with this certificate, whether or not the signer names it (the signing certificate attribute is compared,
    /// though). An empty handle gives `certificateMissing`.
    [[nodiscard]] SignatureResult verdict(const Signer& signer, const NVX509::RefCertificate& certificate) const;
    /// Whether that is `good`.
    [[nodiscard]] bool isValid(const Signer& signer, const NVX509::RefCertificate& certificate) const;
    /// The verdicts on all signers, with the certificates in the message.
    [[nodiscard]] SignatureReport report() const;
    /// The verdict on the signed attributes of a signer alone, as if the body had the message digest that stands in them.
    /// For programs that find out why a body differs: `good` says that somebody signed a body of that digest, and nothing
    /// about any body that is at hand.
    ///
    /// With the certificates in the message, or with `certificate` unless its handle is empty. `digestAlgorithm` ("sha512")
    /// replaces the one that the signer names. All of them together take `maximumWork`, whatever is asked.
    ///
    /// A signer without signed attributes is refused with `messageDigestMissing`.
    /// \throws Exception as above, detail "a signer of another message"
    [[nodiscard]] SignatureResult verdictOnAttributes(const Signer& signer,
                                                      const NVX509::RefCertificate& certificate = {},
                                                      const std::string& digestAlgorithm = {}) const;

    /// The X.509 certificates in the message, decoded when they are first asked for. Damaged ones, refused ones (see
    /// Acceptance.h), and certificates of other formats are not among them.
    /// \throws Exception as above, detail "more than 2500 certificates"
    [[nodiscard]] const std::list<NVX509::RefCertificate>& certificates() const;
    /// Likewise the revocation lists.
    /// \throws Exception as above, detail "more than 2500 revocation lists"
    [[nodiscard]] const std::list<NVX509::RefCertificateRevocationList>& revocationLists() const;
    /// The encodings of all certificates, of whatever format (RFC 5652, 10.2.2): copies.
    [[nodiscard]] std::vector<Buffer> encodedCertificates() const;
    /// The encodings of all revocation information, of whatever format (RFC 5652, 10.2.1): copies.
    [[nodiscard]] std::vector<Buffer> encodedRevocationLists() const;

private:
    std::shared_ptr<SignedMessage> m_message;
    mutable std::vector<Signer> m_signers;
};

/// One who signed, as the message says: none of it is verified, and unsigned attributes are anybody's. A value: it keeps
/// what it was read from, the source included, and may outlive the reader.
class NORVCRYPTO_EXPORT SignedReader::Signer {
public:
    /// One algorithm of the S/MIME capabilities (RFC 8551, 2.5.2).
    struct Capability {
        std::string identifier; ///< digits and dots
        std::string name;       ///< its usual name, or the digits
        Buffer parameters;      ///< their encoding; empty when there are none
    };
    /// One certificate of a signing certificate attribute: the first is the signer's.
    struct CertificateHash {
        int version = 0;    ///< of the attribute: 1 (RFC 2634, 5.4) or 2 (RFC 5035, 3)
        std::string digest; ///< the name of the algorithm: "sha256"
        Buffer hash;
    };

    /// The name of its certificate.
    /// \throws Exception "CMS::CertificateIdentifier::CertificateIdentifier", code 4: it does not decode
    [[nodiscard]] CertificateIdentifier identifier() const;
    /// The name of the digest algorithm: "sha256".
    [[nodiscard]] std::string digestAlgorithm() const;
    /// The name of the signature algorithm: "rsaEncryption", "RSASSA-PSS", "ecdsa-with-SHA256", "Ed25519".
    [[nodiscard]] std::string signatureAlgorithm() const;
    /// The octets of the signature.
    [[nodiscard]] Buffer signature() const;
    [[nodiscard]] bool hasSignedAttributes() const noexcept;
    /// The digest of the body that it says to have signed (RFC 5652, 11.2); nothing without signed attributes, and when the
    /// attribute is missing, repeated or no OCTET STRING.
    [[nodiscard]] std::optional<Buffer> messageDigest() const;

    /// When it says to have signed (RFC 5652, 11.3), in seconds since 1970; nothing when it does not say, or no valid time.
    [[nodiscard]] std::optional<std::time_t> signingTime() const;
    /// What its sender can read, the most wanted first; empty when it does not say, or not well-formed.
    [[nodiscard]] std::vector<Capability> capabilities() const;
    /// Those of version 1, then those of version 2. `verdict` compares the first of each with the certificate.
    [[nodiscard]] std::vector<CertificateHash> signingCertificates() const;

    /// Those who signed this signature (RFC 5652, 11.4); `verdict` judges them like signers. 16 at most, and they may have
    /// some of their own, three deep.
    [[nodiscard]] std::vector<Signer> countersigners() const;
    /// Whether there are countersignatures that are not among them: more, deeper ones, damaged ones.
    [[nodiscard]] bool hasMoreCountersigners() const;

private:
    friend class SignedReader;
    Signer(std::shared_ptr<SignedMessage> message, SignerParts* parts) noexcept;

    std::shared_ptr<SignedMessage> m_message;
    SignerParts* m_parts;
};

} // namespace Norvane::Crypto::CMS

#endif
