#ifndef NORVCRYPTO_CMS_ENVELOPE_WRITER_H
#define NORVCRYPTO_CMS_ENVELOPE_WRITER_H

/// \file
/// Encrypting a mail body of any size while it streams through, for recipients of every kind that CMS has: a sink that
/// writes EnvelopedData (RFC 5652, 6; AES or triple DES in CBC mode) or AuthEnvelopedData (RFC 5083 and 5084; AES in GCM
/// mode) to the stream that it is attached to. `EncrypterMediaOut` (CMSEncryptionMedia.h) is the older one: RSA with
/// PKCS#1 1.5 and CBC alone, DER, with the encrypted body in memory.
///
/// \code
/// Norvane::Crypto::initialize();                                   // once, before anything else
/// CMS::EnvelopeOptions options;
/// options.cipher = CMS::strongestCommonCipher({capabilitiesOfBob, {}}).value_or(CMS::ContentCipher::aes128Cbc);
/// CMS::EnvelopeWriter writer({CMS::EnvelopeRecipient(bobsCertificate),             // by his key: RSA, ECDH, X25519
///                             CMS::EnvelopeRecipient::rsaOaep(carolsCertificate),
///                             CMS::EnvelopeRecipient::password(passphrase)},
///                            options);
/// writer.attach(message);
/// body.write(writer);                                              // as many writes as there are pieces
/// writer.end();                                                    // also ends `message`
/// \endcode
///
/// - What goes out goes out at once, in constant memory: some 20 KB, whatever the body has. DER needs to know the length of
///   the body before (`EnvelopeOptions::bodyLength`); otherwise the encrypted body waits for the end in a file without a
///   name. Bodies may have more than 4 GiB.
/// - CBC has no check value: whoever can change such a message on its way can change the body that comes out. GCM has one,
///   which older programs cannot read (of those at hand in 2026: gpgsm 2.2, NSS 3.87). Neither says who encrypted.
/// - Nothing is asked of certificates but the kind and the size of their keys: validity, trust, and that the key usage
///   allows it (keyEncipherment for RSA, keyAgreement for ECDH and X25519) are the caller's to check before.
/// - Bytes are encrypted exactly as written: no line ending is changed, no MIME is looked at.
/// - Keys, passwords and what is derived from them are wiped as soon as they are not needed; random numbers are OpenSSL's.
/// - What recipients' certificates may cost is bounded: see `maximumRecipients` and those after it.
/// - One stream is used by one thread at a time; certificates and recipients may be shared between several.

#include <norvcmsg/Buffer.h>
#include <norvcmsg/Media.h>
#include <norvcrypto/CMSIdentifier.h>
#include <norvcrypto/Certificate.h>
#include <norvcrypto/Export.h>
#include <norvcrypto/Hasher.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Norvane::Crypto::CMS {

/// What bodies are encrypted with. The numbers are fixed.
enum class ContentCipher : int {
    aes128Cbc = 0, ///< the one that every S/MIME program of the last decades reads
    aes192Cbc = 1,
    aes256Cbc = 2,
    /// DES-EDE3-CBC, for peers that know nothing else: its blocks of 8 bytes give plain text away after some gigabytes
    tripleDesCbc = 3,
    aes128Gcm = 4,
    aes192Gcm = 5,
    aes256Gcm = 6,
};

/// How a message is encoded. The numbers are fixed.
enum class EnvelopeEncoding : int {
    ber = 0, ///< indefinite lengths, the content in segments: any length in constant memory
    der = 1, ///< definite lengths, see `EnvelopeOptions::bodyLength`
};

/// What one message may have; more is refused before anything is encrypted.
inline constexpr std::size_t maximumRecipients = 10000;
/// The octets of all recipients together, which grow with the names that others put into certificates: what readers, ours
/// too, take.
inline constexpr std::size_t maximumRecipientOctets =
    (std::size_t{4} << 20U) - 1024; // and what else stands before the content
/// What the public keys of all recipients together cost to encrypt with, which others chose, in squarings of a 1024-bit
/// number of some 0.2 to 0.5 microseconds: 68 for RSA with 2048 bits, 2048 for P-256, 17264 for P-521. And what one may:
/// RSA with 16384 bits and a 64-bit exponent, or P-521.
inline constexpr std::uint64_t maximumEnvelopeWork = 10000000;
inline constexpr std::uint64_t maximumRecipientWork = 20000;
/// The octets of one password, OAEP label or identifier of a key-encryption key.
inline constexpr std::size_t maximumParameterOctets = 1024;
/// How often passwords are hashed: fewer times are no protection (RFC 8018, 4.2), more are refused by readers.
inline constexpr unsigned int minimumPasswordIterations = 1000;
inline constexpr unsigned int maximumPasswordIterations = 1000000;

/// RSAES-OAEP (RFC 8017, 7.1; RFC 3560). Digests, here and below: SHA1, SHA224, SHA256, SHA384, SHA512.
struct OaepParameters {
    Hasher::Type digest = Hasher::SHA256;
    std::optional<Hasher::Type> maskDigest{}; ///< of MGF1; unset: the same
    Buffer label{};                           ///< usually empty
};

/// Elliptic curve Diffie-Hellman with a key of the sender's for this once (RFC 5753; RFC 8418 for X25519).
struct KeyAgreementParameters {
    /// Of the key derivation: X9.63, or HKDF for X25519 (SHA256, SHA384 or SHA512). Unset: SHA256 for P-256 and X25519,
    /// SHA384 for P-384, SHA512 for P-521.
    std::optional<Hasher::Type> digest{};
    /// Names the cofactor variant, which for these curves is the same computation. Not for X25519.
    bool cofactor = false;
};

/// PBKDF2 (RFC 8018, 5.2) with HMAC over a digest.
struct PasswordParameters {
    unsigned int iterations = 600000; ///< a fraction of a second for the sender, and for each guess
    Hasher::Type digest = Hasher::SHA256;
};

/// Somebody who shall read a message. A value; copies share what is in it, secrets included, which are wiped with the last
/// of them. Making one for an RSA key takes half as long as encrypting with it: keep it for further messages.
///
/// Every maker throws Exception "CMS::EnvelopeRecipient", code 4, file CMSEnvelopeWriter, with the reason as detail.
class NORVCRYPTO_EXPORT EnvelopeRecipient {
public:
    /// By the certificate's key: PKCS#1 1.5 for RSA, key agreement with its defaults for P-256, P-384, P-521 and X25519.
    /// \throws Exception as above: an empty handle; a key that cannot encrypt ("the key is Ed25519, ..."); a key that
    ///         costs too much, or hides nothing (RSA with the exponent 1); to be named by a subject key identifier that
    ///         is not there. So do the next three.
    explicit EnvelopeRecipient(const NVX509::RefCertificate& certificate,
                               NamedBy namedBy = NamedBy::issuerAndSerialNumber);
    /// RSAES-PKCS1-v1_5, which every program opens. \throws Exception likewise: no RSA key
    static EnvelopeRecipient rsaPkcs1(const NVX509::RefCertificate& certificate,
                                      NamedBy namedBy = NamedBy::issuerAndSerialNumber);
    /// \throws Exception likewise: no RSA key; another digest; a label that is too long
    static EnvelopeRecipient rsaOaep(const NVX509::RefCertificate& certificate,
                                     const OaepParameters& parameters = OaepParameters(),
                                     NamedBy namedBy = NamedBy::issuerAndSerialNumber);
    /// The content key is wrapped with AES of the strength of the content's cipher (triple DES with triple DES).
    /// \throws Exception likewise: a key on none of the curves; another digest; a cofactor for X25519
    static EnvelopeRecipient keyAgreement(const NVX509::RefCertificate& certificate,
                                          const KeyAgreementParameters& parameters = KeyAgreementParameters(),
                                          NamedBy namedBy = NamedBy::issuerAndSerialNumber);
    /// A key that both sides have. \param key 16, 24 or 32 octets, for AES key wrap \param identifier by which the reader
    /// finds it: 1 to `maximumParameterOctets` octets, readable by everybody. \throws Exception for other lengths
    static EnvelopeRecipient keyEncryptionKey(const Buffer& key, const Buffer& identifier);
    /// A password that both sides know (PWRI-KEK, RFC 3211). The key under which the content key is wrapped has the strength of
    /// the content's cipher, and AES in CBC mode also where the content has GCM.
    /// \param password 1 to `maximumParameterOctets` octets, used as they are
    /// \throws Exception: another length; fewer than `minimumPasswordIterations` or more than `maximumPasswordIterations`;
    ///         another digest
    static EnvelopeRecipient password(const Buffer& password,
                                      const PasswordParameters& parameters = PasswordParameters());

    EnvelopeRecipient(const EnvelopeRecipient& other);
    EnvelopeRecipient& operator=(const EnvelopeRecipient& other);
    ~EnvelopeRecipient();

    /// What is in it, for the library.
    struct State;
    [[nodiscard]] const State& state() const noexcept { return *m_state; }

private:
    explicit EnvelopeRecipient(std::shared_ptr<const State> state);

    std::shared_ptr<const State> m_state;
};

/// How a message is to be.
struct EnvelopeOptions {
    /// AES-128-CBC where nothing is known of a recipient, which all open; see `strongestCommonCipher`.
    ContentCipher cipher = ContentCipher::aes128Cbc;
    EnvelopeEncoding encoding = EnvelopeEncoding::ber;
    /// How many bytes the body will have. With it, DER goes out in constant memory, and a body of another length is an
    /// error, in BER too. Without it, DER is kept until the end: encrypted, in a file beyond 64 KiB.
    std::optional<std::uint64_t> bodyLength{};
    /// What the body is, as an object identifier in digits: id-data, unless it is another CMS structure. With GCM, another
    /// type is authenticated in a content-type attribute (RFC 5083, 2.1), which OpenSSL 3.0.19 does not read and 3.0.22 does.
    std::string contentType = "1.2.840.113549.1.7.1";
    /// Where the file is made, which has no name and is its owner's alone: a path that ends in "XXXXXX" (see
    /// `SwapBufferMediaOut`). Empty: "norvcrypto-XXXXXX" in the system's folder for temporary files.
    std::string temporaryFile{};
};

/// The strongest cipher that all recipients say they can read (S/MIME capabilities; RFC 8551, 2.5.2 and 2.7.1): GCM before
/// CBC, then the longer key. Triple DES counts only with `tripleDes`, being weak (RFC 8551, 2.7.2).
///
/// \param capabilities for each recipient the object identifiers of the signed message that told them, in digits and in
///        any order. A list that names no cipher for contents at all, an empty one above all, leaves it unknown: this
///        recipient is taken to read `whenUnknown` and AES-128-CBC.
/// \param whenUnknown RFC 8551, 2.7.1.2 advises AES-256-GCM, or else AES-128-CBC, which is read by more programs
/// \return nothing when they have none in common: they need messages of their own (RFC 8551, 2.7.3). `whenUnknown` for no
///         recipients.
NORVCRYPTO_EXPORT std::optional<ContentCipher> strongestCommonCipher(
    const std::vector<std::vector<std::string>>& capabilities, ContentCipher whenUnknown = ContentCipher::aes128Cbc,
    bool tripleDes = false);

class EnvelopeStream;

/// The body of an `EnvelopeWriter`.
class NORVCRYPTO_EXPORT EnvelopeWriterImpl : public MediaOutDecoratorImpl {
public:
    /// See `EnvelopeWriter`.
    EnvelopeWriterImpl(const std::vector<EnvelopeRecipient>& recipients, const EnvelopeOptions& options);
    /// Does not end the stream: without `end()` the message is cut off and the target not ended.
    ~EnvelopeWriterImpl() override;
    EnvelopeWriterImpl(const EnvelopeWriterImpl&) = delete;
    EnvelopeWriterImpl& operator=(const EnvelopeWriterImpl&) = delete;

    using MediaOutDecoratorImpl::write;
    /// Encrypts the bytes and passes on the segments that are full; nothing when `data` is null or `length` 0. Small pieces
    /// are gathered. DER of a length that was not announced needs no target yet.
    ///
    /// \throws Exception "CMS::EnvelopeWriter::write", code 4, file CMSEnvelopeWriter, with the reason as detail:
    ///         - "written to after its end"
    ///         - "the body is longer than the 10 bytes that were announced"
    ///         - "AES in GCM mode encrypts no more than 68719476704 bytes" (2^36 - 32; NIST SP 800-38D, 5.2.1.1)
    ///         - the OpenSSL errors
    ///         - "the message is broken: ...": something of the above, or the target's exception, came before. What the target
    ///           has is the beginning of a message; make a new writer.
    /// \throws Exception "operator->", code 1: there is no target; nothing was taken
    /// \throws what the target, or the temporary file, throws, unchanged
    void write(const unsigned char* data, unsigned int length) override;

    /// Completes the message and ends the target. After that it does nothing: it may be called any number of times. When
    /// only ending the target failed, a further call ends it again; when DER that was kept could not be sent, a further
    /// call sends all of it again, to another target, too.
    ///
    /// \throws Exception "CMS::EnvelopeWriter::end", code 4, file CMSEnvelopeWriter, with the reason as detail: "the body has
    ///         9 bytes, 10 were announced", the OpenSSL errors, or "the message is broken: ..."
    /// \throws Exception "operator->", code 1: there is no target; attach one and end again
    /// \throws what the target, or the temporary file, throws, unchanged
    void end() override;

private:
    std::unique_ptr<EnvelopeStream> m_stream;
};

/// A sink that encrypts what is written to it; see `EnvelopeWriterImpl` for writing and ending. Attach a target before
/// writing.
class NORVCRYPTO_EXPORT EnvelopeWriter : public MediaOutDecorator {
public:
    /// A handle without a body: every operation on it throws "operator->", code 1.
    EnvelopeWriter();
    /// Makes the content key and encrypts it for all recipients, which are named in their order (in DER's in DER). A certificate
    /// twice gives two recipients.
    /// \throws Exception "CMS::EnvelopeWriter", code 4, file CMSEnvelopeWriter, with the reason as detail:
    ///         - "there is no recipient", or more than `maximumRecipients`
    ///         - "recipient 2 (...): " and that the RSA key is too short for the content key under its padding, or the OpenSSL
    ///           errors
    ///         - that they exceed `maximumRecipientOctets` or `maximumEnvelopeWork`
    ///         - the content type is no object identifier; a cipher or an encoding that is none of the enumerators; a body
    ///           length beyond 2^62, or beyond what GCM encrypts
    ///         - the OpenSSL errors
    explicit EnvelopeWriter(const std::vector<EnvelopeRecipient>& recipients,
                            const EnvelopeOptions& options = EnvelopeOptions());
    EnvelopeWriter(const EnvelopeWriter& other);
    EnvelopeWriter& operator=(const EnvelopeWriter& other);
    ~EnvelopeWriter() override;
};

} // namespace Norvane::Crypto::CMS

#endif
