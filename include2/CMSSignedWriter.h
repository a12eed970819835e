#ifndef NORVCRYPTO_CMS_SIGNED_WRITER_H
#define NORVCRYPTO_CMS_SIGNED_WRITER_H

/// \file
/// Writing CMS SignedData (RFC 5652, section 5; RFC 8551) while a body of any size streams through: with the body inside
/// or beside it, by one signer or several, with today's algorithms.
///
/// \code
/// Norvane::Crypto::initialize();                      // once, before anything else
/// CMS::SignedWriter::Options options;
/// options.signers.emplace_back(NVX509::KeyCertificatePair(key, certificate, chain));
/// options.signers.back().rsaScheme = CMS::SignedWriter::RsaScheme::pss;
///
/// Norvane::MemoryMediaOut message;
/// CMS::SignedWriter writer(options);                  // refuses here what cannot be signed
/// writer.attach(message);
/// body.write(writer);                                 // as many writes as there are pieces
/// writer.end();                                       // also ends `message`
/// \endcode
///
/// What is written, by `Options::content` and `Options::encoding`:
///
/// | content, encoding | when the target is written to | memory |
/// |---|---|---|
/// | attached, BER (the default) | as the body comes: indefinite lengths, segments of 4,096 to 65,536 octets | constant |
/// | attached, DER, `length` announced | as the body comes | constant |
/// | attached, DER, otherwise, or with a signer whose key is an elliptic curve's (ECDSA) | at the end | the body is spilled: `memory` octets are kept, more go to a nameless file (mode 0600) |
/// | detached | at the end, DER | constant |
///
/// DER announces all lengths before the body, those of the signatures behind it too. RSA, Ed25519 and Ed448 signatures have
/// one; that of an ECDSA signature varies from one to the next. Hence the spilling.
///
/// - Bytes are signed exactly as written: no line ending is changed, no MIME is looked at. S/MIME bodies have CRLF line
///   endings, and making them is the caller's work (RFC 8551, 3.1.1).
/// - The body is digested once for each digest algorithm, however many signers name it.
/// - All sets are in the order of their encodings, as DER demands, in BER too: signers and certificates do not stay in the
///   order in which they are given.
/// - A signature without signed attributes over a body that is itself a SET OF attributes is one over these attributes, too.
///   Leave `Signer::signedAttributes` on for bodies that others wrote.
/// - Whether a certificate is valid or may sign at all (key usage) is not asked.
/// - Private keys stay in OpenSSL, which blinds RSA; nothing of them is copied.
/// - One stream is used by one thread at a time. Keys and certificates are shared while it lives.

#include <norvcmsg/Buffer.h>
#include <norvcmsg/Media.h>
#include <norvcrypto/CMSIdentifier.h>
#include <norvcrypto/Certificate.h>
#include <norvcrypto/CertificateRevocationList.h>
#include <norvcrypto/Export.h>
#include <norvcrypto/Hasher.h>
#include <norvcrypto/KeyStore.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Norvane::Crypto::CMS {

class SignedWork;

/// A sink that signs what is written to it and writes the structure to the target that it is attached to. Copies share the
/// body.
class NORVCRYPTO_EXPORT SignedWriter : public MediaOut {
public:
    enum class Content : int {
        attached, ///< the body is in the structure
        detached, ///< the body is sent beside it
    };
    /// How lengths are written; see the top of this file.
    enum class Encoding : int { ber, der };
    /// How RSA keys sign. Other keys have one way. A key that is for RSASSA-PSS alone signs so whatever is asked.
    enum class RsaScheme : int {
        pkcs1, ///< RSASSA-PKCS1-v1_5 (RFC 8017, 8.2), which every receiver verifies
        pss,   ///< RSASSA-PSS (RFC 4056): MGF1 over the digest of the message, a salt of its length
    };
    /// What of a signer's pair goes into the structure.
    enum class Include : int { nothing, certificate, certificateAndChain };

    /// One algorithm that the signer can read, for the S/MIME capabilities (RFC 8551, 2.5.2).
    struct Capability {
        std::string identifier; ///< digits and dots
        Buffer parameters;      ///< one element in DER; empty: none, which is not the same as NULL
    };
    /// What a signer says to be able to read unless told otherwise, the most wanted first: AES-256-GCM, AES-128-GCM,
    /// AES-256-CBC, AES-192-CBC, AES-128-CBC (RFC 8551, 2.7 demands 128-bit AES in both modes of receivers).
    static std::vector<Capability> defaultCapabilities();

    /// One signer.
    struct NORVCRYPTO_EXPORT Signer {
        explicit Signer(const NVX509::KeyCertificatePair& signingPair);

        NVX509::KeyCertificatePair pair;
        /// SHA-2 (224 to 512), SHA-3, or SHA-1, which is for receivers that know nothing else: collisions can be made at
        /// will. Unset: SHA-256 for RSA and for curves of up to 256 bits, SHA-384 for those of up to 384 bits, SHA-512
        /// for longer ones, and what RFC 8419 demands for Edwards curves, which take no other: SHA-512 for Ed25519,
        /// SHAKE256 with 512 bits for Ed448.
        std::optional<Hasher::Type> digest;
        RsaScheme rsaScheme = RsaScheme::pkcs1;
        NamedBy namedBy = NamedBy::issuerAndSerialNumber;
        Include include = Include::certificateAndChain;

        /// Whether the signature covers attributes (RFC 5652, 5.3), among them the digest of the body. Demanded for
        /// content types other than id-data, and for Edwards curves. Without them none of the members below has an effect.
        bool signedAttributes = true;
        bool signingTime = true; ///< RFC 5652, 11.3: UTCTime from 1950 to 2049, else GeneralizedTime
        /// The time to tell, in seconds since 1970; unset: when the first octet of the body is written, or, for an empty one,
        /// the end.
        std::optional<std::int64_t> signedAt;
        /// ESS signing-certificate-v2 (RFC 5035): binds the signature to this very certificate, by its SHA-256 digest and
        /// its issuer and serial number.
        bool signingCertificate = true;
        Hasher::Type signingCertificateDigest = Hasher::SHA256;
        /// None: no such attribute. At first `defaultCapabilities()`.
        std::vector<Capability> capabilities;
        /// Further attributes, each of them an Attribute (RFC 5652, 5.3) in DER: a SEQUENCE of its type and a SET OF values.
        /// Each type stands once among all attributes.
        std::vector<Buffer> attributes;
    };

    struct NORVCRYPTO_EXPORT Options {
        Options();

        std::vector<Signer> signers;
        Content content = Content::attached;
        Encoding encoding = Encoding::ber;
        /// The type of the body (digits and dots): id-data.
        std::string contentType = "1.2.840.113549.1.7.1";
        /// The octets of the body where they are known beforehand. Another number is an error, in every encoding.
        std::optional<std::uint64_t> length;
        /// Further certificates, and revocation lists. Each stands in the structure once, those of signers included.
        std::vector<NVX509::RefCertificate> certificates;
        std::vector<NVX509::RefCertificateRevocationList> revocationLists;
        /// A structure that nobody signs, to carry certificates and lists (RFC 8551, 3.8): without signers, without a body.
        bool certificatesOnly = false;
        /// How much of a spilled body is kept in memory, in octets, and the file for what is more: a path that ends in "XXXXXX",
        /// as mkstemp takes it. Empty: "norvcrypto-XXXXXX" in the system's folder for temporary files.
        unsigned int memory = 65536;
        std::string spillFile;
    };

    /// Prepares all signers; nothing is written.
    /// \throws Exception "CMS::SignedWriter", code 4, file "CMSSignedWriter", with the reason as detail:
    ///         - "there is no signer", "certificates alone have no signers", "there are no certificates and no revocation
    ///           lists", "certificates alone are of the content type id-data"
    ///         - "signer 2: there is no key and certificate", "signer 2: there is no certificate", "signer 2: there is no private
    ///           key", "signer 2: the private key does not match the certificate", "signer 2: the key has no private part"
    ///           (a public key). Signers are counted from 1
    ///         - "signer 1: unsupported: keys of type DSA do not sign here", "signer 1: unsupported: the digest MD5 for
    ///           signatures", "signer 1: the digest SHA512 is too long for an RSA key of 512 bits", "signer 1: ED25519 signs with
    ///           the digest SHA512, not with SHA256"
    ///         - "signer 1: " and what `CertificateIdentifier` refuses: the certificate has no subject key identifier
    ///         - "signer 1: Edwards curves sign attributes alone", "signer 1: a content type other than id-data demands signed
    ///           attributes", "signer 1: there is no such time"
    ///         - "signer 1: attribute 3: " and what is wrong with the caller's attribute: no DER, no attribute, without value, values
    ///           out of order, a type that stands twice, or one that may not be signed (countersignature). Also "capability 3: "
    ///         - "certificate 1: the handle is empty", "revocation list 1: the handle is empty", "signer 1: certificate 2 of the
    ///           chain: the handle is empty"
    ///         - "the content type is no object identifier", "the announced length is more than 2^62 octets"
    ///         - OpenSSL's errors: no memory
    explicit SignedWriter(const Options& options);
    SignedWriter(const SignedWriter& other);
    SignedWriter& operator=(const SignedWriter& other);
    ~SignedWriter() override;

    /// Sends what is written from now on to `target`, which is shared and which `end()` ends.
    /// \throws Exception "CMS::SignedWriter::attach", code 1: the body was replaced by another kind of sink, or `target` is
    /// this stream itself
    void attach(MediaOut& target);
    /// Lets go of the target. \throws Exception "CMS::SignedWriter::attach", code 1: the body was replaced
    void detach();
};

/// The body of a `SignedWriter`.
class NORVCRYPTO_EXPORT SignedWriterImpl : public MediaOutImpl {
public:
    /// See `SignedWriter`.
    explicit SignedWriterImpl(const SignedWriter::Options& options);
    ~SignedWriterImpl() override;
    SignedWriterImpl(const SignedWriterImpl&) = delete;
    SignedWriterImpl& operator=(const SignedWriterImpl&) = delete;

    using MediaOutImpl::write;
    /// Adds octets to the body: they are digested where they lie, and pieces of 4,096 and more go to the target from there.
    /// \throws Exception "CMS::SignedWriter::write", code 4, file "CMSSignedWriter", with the reason as detail: "the
    ///         structure was ended", "writing failed before", "the body is longer than the 10 octets announced",
    ///         "certificates alone have no body"; or OpenSSL's errors
    /// \throws Exception "operator->", code 1: nothing is attached, and the structure begins before its end
    /// \throws what the target throws, unchanged; MediaException of `SwapBufferMediaOut`: the body cannot be spilled
    void write(const unsigned char* data, unsigned int length) override;
    /// Signs, writes what is left of the structure, and ends the target. Without it the structure is cut, or not begun.
    /// \throws Exception "CMS::SignedWriter::end", code 4, file "CMSSignedWriter", with the reason as detail: "the
    ///         structure was ended" (a second call), "writing failed before", "the body has 9 octets, announced were 10",
    ///         "the structure is too long" (2 GiB of certificates and lists); or OpenSSL's errors: the key does not sign
    /// \throws Exception "operator->", code 1: nothing is attached; the stream can still be ended
    /// \throws as `write` does, otherwise
    void end() override;

    void attach(const MediaOut& target);
    void detach();

private:
    std::unique_ptr<SignedWork> m_work;
};

} // namespace Norvane::Crypto::CMS

#endif
