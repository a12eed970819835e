#ifndef NORVCRYPTO_CMS_VERIFICATION_H
#define NORVCRYPTO_CMS_VERIFICATION_H

/// \file
/// All signatures of one structure over one body, judged with bounded work: the loop that a caller of `CMSVerifier`
/// would write, with what RFC 5652 forbids refused and what cannot be judged told apart from what is wrong.
///
/// \code
/// Norvane::FileMediaIn file(Norvane::File::Path("body.p7s"));
/// const CMS::RefContentInfo structure(file);
/// Norvane::FileMediaIn body(Norvane::File::Path("body"));
/// const CMS::SignatureReport report = CMS::verifySignatures(structure, body);
/// for (const CMS::SignatureResult& signer : report.signers) {
///     if (signer.verdict == CMS::SignatureVerdict::good) {
///         std::cout << "signed by " << signer.certificate->subject().asString() << '\n'; // not trusted yet
///     }
/// }
/// \endcode
///
/// What a stranger chooses, and what it costs at most:
/// - `maximumSigners` signers; a structure with more is not judged at all.
/// - `maximumDigests` digest algorithms, each fed once with the body, however many signers name it.
/// - `maximumTries` certificates a signer: those that its issuer and serial number name. Copies of one certificate count
///   once; which certificates are named is found in one pass over them.
/// - Public-key work: keys that OpenSSL would compute with for milliseconds (`SignatureReason::keyTooLarge`) are not
///   used, and `maximumWork` is what all signers of a structure may cost together.
/// - The signed attributes of a signer are encoded and digested once.
///
/// A good signature is not trust: the certificate is named by the signer, but not validated (see `CertificateVerifier`).
/// Unsigned attributes, countersignatures included, are not looked at. One object is used by one thread at a time.

#include <norvcmsg/Buffer.h>
#include <norvcmsg/Media.h>
#include <norvcrypto/CMS.h>
#include <norvcrypto/Certificate.h>
#include <norvcrypto/Export.h>

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <vector>

namespace Norvane::Crypto::CMS {

/// What is said about a signature.
enum class SignatureVerdict : int {
    good = 0,        ///< the holder of the certificate's key signed this body
    refused = 1,     ///< no: the body, the signature or the structure is not as it must be
    unsupported = 2, ///< neither yes nor no: something is in the way that the sender may rightly have used
};

/// Why a signature is not good.
enum class SignatureReason : int {
    none = 0, ///< it is good

    // refused
    bodyDiffers = 1,       ///< the message digest attribute is not the body's digest
    signatureWrong,        ///< the signature does not belong to this body and the certificate's key
    contentDiffers,        ///< the structure carries a content, and the body given is another one
    certificateMissing,    ///< no certificate has the signer's issuer and serial number
    keyUnusable,           ///< the certificate's RSA key cannot be decoded
    algorithmDiffers,      ///< the signature algorithm is one of other keys than the certificate's
    attributesMissing,     ///< a content that is no plain data needs signed attributes (RFC 5652, 5.3)
    contentTypeMissing,    ///< signed attributes without a content type (RFC 5652, 5.3)
    contentTypeRepeated,   ///< a content type that stands twice, or has not exactly one value (RFC 5652, 11.1)
    contentTypeDiffers,    ///< the content type attribute is not the type of the content (RFC 5652, 11.1)
    messageDigestMissing,  ///< signed attributes without a message digest that is an OCTET STRING (RFC 5652, 5.3)
    messageDigestRepeated, ///< a message digest that stands twice, or has not exactly one value (RFC 5652, 11.2)
    signingTimeRepeated,   ///< a signing time that stands twice, or has not exactly one value (RFC 5652, 11.3)
    bodyIsAttributes,      ///< without signed attributes, over a body that is a set of attributes; see
                           ///< `AttributeSetDetector`
    // from here on by `SignedReader` alone
    certificateDamaged,        ///< the certificate that the signer names does not decode
    digestDiffers,             ///< the signature algorithm is one with another digest than the signer's
    parametersWrong,           ///< RSASSA-PSS with parameters that are missing or make no sense (RFC 4056)
    signingCertificateDiffers, ///< the signing certificate attribute names another certificate (RFC 5035), or is damaged
    contentTypeUnexpected,     ///< a countersignature with a content type attribute (RFC 5652, 11.4)
    attributeMisplaced, ///< beside signed attributes, an unsigned one that must be signed: content type, message digest,
                        ///< signing time (RFC 5652, 11), signing certificate, receipt request (RFC 2634); or a signed
                        ///< countersignature
    receiptRequestRepeated, ///< a receipt request that stands twice, or has not exactly one value (RFC 2634, 2.7)

    // unsupported
    digestAlgorithm = 101, ///< the signer's digest algorithm
    signatureAlgorithm,    ///< the signer's signature algorithm: RSASSA-PSS, EdDSA, ...
    keyAlgorithm,          ///< the certificate's key, its parameters, or that key with this digest
    keyTooLarge,           ///< a modulus or public exponent that no sound key has; see `maximumKeyWork`
    tooManyDigests,        ///< `maximumDigests` others were named before this signer's
    tooManyCertificates,   ///< `maximumTries` certificates of this name failed, and there are more
    tooMuchWork,           ///< the signers before this one spent `maximumWork`
    // from here on by `SignedReader` alone
    digestNotAnnounced, ///< the digest algorithm is none of those that stand in front of the content, so that there is no digest
    contentNotKept,     ///< a signature over the content itself, which is longer than what is kept (Ed25519, Ed448)
    attributesNotDer,   ///< long signed attributes that are not in DER
    certificateRefused, ///< the certificate that the signer names is refused (see Acceptance.h)
};

/// One sentence without an end, in plain ASCII: "the body is not the one that was signed".
NORVCRYPTO_EXPORT const char* textOf(SignatureReason reason) noexcept;

inline constexpr std::size_t maximumSigners = 100; ///< in a structure that is judged
inline constexpr std::size_t maximumDigests = 4;   ///< different digest algorithms in one structure
inline constexpr std::size_t maximumTries = 4;     ///< different certificates for one signer
/// Work is counted in squarings of a 1024-bit number, some 0.2 to 0.5 microseconds each: 68 for RSA with 2048 bits and
/// the exponent 65537, 1024 for P-256, 8632 for P-521. An RSA exponent has 64 bits at most.
inline constexpr std::uint64_t maximumKeyWork = 16384; ///< for one operation: RSA with 16384 bits and a 64-bit exponent
inline constexpr std::uint64_t maximumWork = 500000;   ///< for a structure

/// What became of one signer.
struct SignatureResult {
    SignatureVerdict verdict = SignatureVerdict::refused;
    SignatureReason reason = SignatureReason::signatureWrong;
    /// For `digestAlgorithm`, `signatureAlgorithm`, `keyAlgorithm` and `keyTooLarge`: the algorithm that is in the way by
    /// its usual name ("RSASSA-PSS", "Ed25519"), else by OpenSSL's long name or its object identifier in digits. For
    /// `certificateRefused` the reason: "refused: explicit elliptic curve parameters".
    std::string algorithm;
    /// The certificate that the verdict is about: the good one, else the first that the signer names; an empty handle
    /// when there is none. It may outlive the structure.
    NVX509::RefCertificate certificate;
};

/// Which body was judged.
enum class JudgedBody : int {
    given = 0,    ///< the caller's; a content in the structure, if there is one, was compared with it
    embedded = 1, ///< the content of the structure
};

/// What became of a structure's signatures.
struct SignatureReport {
    JudgedBody body = JudgedBody::given;
    std::uint64_t bodyLength = 0;         ///< in bytes
    std::vector<SignatureResult> signers; ///< in the structure's order

    /// True when there is a signer and every signature is good.
    [[nodiscard]] bool allGood() const noexcept {
        for (const SignatureResult& signer : signers) {
            if (signer.verdict != SignatureVerdict::good) {
                return false;
            }
        }
        return !signers.empty();
    }
};

/// What a signed structure carries beside its signatures. The sender chooses it: a program that judges the content when
/// there is one, and another body otherwise, lets the sender choose which.
enum class CarriedContent : int {
    none = 0,   ///< nothing: the signature is detached
    octets = 1, ///< bytes, maybe none: what `embeddedContent` delivers
    other = 2,  ///< a structure in the place of bytes (PKCS#7 1.5 allows it), which cannot be judged
};

/// What `structure` carries; `none` when it is no signed data.
NORVCRYPTO_EXPORT CarriedContent carriedContent(const RefContentInfo& structure);

/// Judges a structure while its body streams through.
class NORVCRYPTO_EXPORT SignatureVerifier {
public:
    /// Keeps a handle on the structure and starts the digests.
    /// \throws Exception "CMS::SignatureVerifier::SignatureVerifier", code 4, file CMSVerification, detail "no signed
    ///         data", "more than 100 signers" or "the content is a structure, not bytes"
    explicit SignatureVerifier(const RefContentInfo& structure);
    ~SignatureVerifier();
    SignatureVerifier(SignatureVerifier&& other) noexcept;
    SignatureVerifier& operator=(SignatureVerifier&& other) noexcept;

    /// Adds bytes to the body.
    void write(const unsigned char* data, std::size_t length);
    /// Adds all that is left of a stream. \throws what `body` throws
    void write(MediaIn& body);

    /// The verdicts over all bytes so far, with the certificates in the structure. More bytes may follow.
    /// OpenSSL's error queue is left as it was; nothing is logged.
    [[nodiscard]] SignatureReport report() const;
    /// The same with these certificates instead of those in the structure; empty handles are skipped.
    [[nodiscard]] SignatureReport report(const std::list<NVX509::RefCertificate>& certificates) const;

private:
    struct State;
    std::unique_ptr<State> m_state;
};

/// Judges a structure over `body`, which is read to its end. A structure that carries a content is judged by the body,
/// too, and each of its signers is refused when the two are not equal (`SignatureReason::contentDiffers`).
/// \throws what `SignatureVerifier` and `body` throw
NORVCRYPTO_EXPORT SignatureReport verifySignatures(const RefContentInfo& structure, MediaIn& body);
NORVCRYPTO_EXPORT SignatureReport verifySignatures(const RefContentInfo& structure, MediaIn& body,
                                                   const std::list<NVX509::RefCertificate>& certificates);

/// Judges a structure over the content that it carries.
/// \throws Exception "CMS::verifyEmbeddedSignatures", code 4, file CMSVerification, detail "the structure carries no
///         content": the signature is detached
/// \throws what `SignatureVerifier` throws
NORVCRYPTO_EXPORT SignatureReport verifyEmbeddedSignatures(const RefContentInfo& structure);
NORVCRYPTO_EXPORT SignatureReport verifyEmbeddedSignatures(const RefContentInfo& structure,
                                                           const std::list<NVX509::RefCertificate>& certificates);

/// Tells whether a body is a SET OF attributes, as it passes in pieces of any size. Nothing of it is kept.
///
/// CMS signs two things with one key and does not say which: the body, when there are no signed attributes, or the
/// encoding of the attributes, one of which holds the body's digest. So a signature without attributes over bytes that
/// are a SET OF attributes is a signature with these attributes, too, over any text that has the digest in them, and the
/// reverse (RFC 5652, 5.4, has both shapes). `SignerMediaOut` signs without attributes: whoever has it sign what others
/// wrote asks this first, and signs no such body. `SignatureVerifier` refuses the reverse.
///
/// \code
/// CMS::AttributeSetDetector detector;
/// for (each piece) {
///     detector.update(piece, length);
///     signer.write(piece, length);
/// }
/// if (!detector.isAttributeSet()) {
///     signer.end();
/// }
/// \endcode
class NORVCRYPTO_EXPORT AttributeSetDetector {
public:
    AttributeSetDetector();
    ~AttributeSetDetector();
    AttributeSetDetector(AttributeSetDetector&& other) noexcept;
    AttributeSetDetector& operator=(AttributeSetDetector&& other) noexcept;

    void update(const unsigned char* data, std::size_t length) noexcept;
    /// Whether the bytes so far are one BER or DER SET of one attribute or more, and nothing else. The values of the
    /// attributes may be anything; which attributes they are, and in what order they stand, makes no difference.
    [[nodiscard]] bool isAttributeSet() const noexcept;

private:
    class Parser;
    std::unique_ptr<Parser> m_parser;
};

/// What keeps a structure from being decoded although it is well formed: "a signer that is named by a key identifier".
/// To be asked about the bytes that `RefContentInfo(MediaIn&)` refused with "ASN1 Decode failed:". Empty when nothing
/// such is found: the bytes are damaged, or no signed data. They are walked in place; nothing is decoded or allocated.
NORVCRYPTO_EXPORT std::string unsupportedPart(const unsigned char* structure, std::size_t length);
NORVCRYPTO_EXPORT std::string unsupportedPart(const Buffer& structure);

} // namespace Norvane::Crypto::CMS

#endif
