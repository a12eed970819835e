#ifndef NORVCRYPTO_CMS_SIGNER_MEDIA_H
#define NORVCRYPTO_CMS_SIGNER_MEDIA_H

/// \file
/// Signing a mail body while it streams through, and checking such a signature. `SignerMediaOut` takes the body in
/// pieces and, when it is ended, writes one DER-encoded CMS SignedData (RFC 2315, RFC 5652) with a detached signature
/// to the stream that it is attached to; the body itself is not in it and is sent beside it. `CMSVerifier` takes such a
/// structure, or one that another program made, and checks one signer's signature over a body.
///
/// \code
/// Norvane::Crypto::initialize();                      // once, before anything else
/// Norvane::MemoryMediaOut signature;
/// CMS::SignerMediaOut signer(Hasher::SHA256, NVX509::KeyCertificatePair(key, certificate, chain));
/// signer.attach(signature);
/// body.write(signer);                                 // as many writes as there are pieces
/// signer.end();                                       // also ends `signature`
///
/// Norvane::MemoryMediaIn received(signature.content());
/// const CMS::CMSVerifier verifier(received);
/// const CMS::SignedData data = CMS::signedData(verifier.contentInfo());
/// for (const CMS::SignerInfo& one : data.signerInfo()) {
///     const bool good = verifier.isValid(sameBody, one, certificate); // the one that `one` names: issuer, serial number
/// }
/// \endcode
///
/// - Signatures are made without signed attributes. A body that is itself a SET OF attributes must not be signed so: the
///   signature would be one over those attributes, too, and with them over another text. Ask an `AttributeSetDetector`
///   (CMSVerification.h) about bodies that others wrote.
/// - Bytes are signed exactly as written: no line ending is changed, no MIME is looked at. S/MIME bodies have CRLF line
///   endings, and making them is the caller's work (RFC 8551, 3.1.1).
/// - Check what strangers sent with `verifySignatures` (CMSVerification.h): it bounds the work, and refuses what RFC 5652
///   forbids and this verifier accepts.
/// - A good signature is not trust. The certificate is the caller's choice: it is not checked that the signer names it
///   by issuer and serial number, nor is it validated (see `CertificateVerifier`). A `true` tells only that the holder
///   of that certificate's key signed this body.
/// - A body of any size passes in constant memory on both sides, written in pieces.
/// - One stream or verifier is used by one thread at a time.

#include <norvcmsg/Buffer.h>
#include <norvcmsg/Media.h>
#include <norvcrypto/CMS.h>
#include <norvcrypto/Certificate.h>
#include <norvcrypto/Export.h>
#include <norvcrypto/Hasher.h>
#include <norvcrypto/KeyStore.h>

#include <memory>

namespace Norvane::Crypto::CMS {

class StructureStream;

/// The body of a `SignerMediaOut`.
class NORVCRYPTO_EXPORT SignerMediaOutImpl : public MediaOutImpl {
public:
    /// See `SignerMediaOut`.
    SignerMediaOutImpl(Hasher::Type type, const NVX509::KeyCertificatePair& signer);
    ~SignerMediaOutImpl() override;
    SignerMediaOutImpl(const SignerMediaOutImpl&) = delete;
    SignerMediaOutImpl& operator=(const SignerMediaOutImpl&) = delete;

    /// Adds bytes to the body. They collect in a buffer of 4096 bytes that is passed on when the next piece does not
    /// fit; a piece larger than the buffer makes it grow to that size, for good.
    void write(const Buffer& data) override;
    /// As above; the bytes are borrowed and need not live on.
    void write(const unsigned char* data, unsigned int length) override;
    /// Signs the body, sends the structure to the target and ends the target. The structure has the signer's
    /// certificate first, then the chain, no content and no signed attributes: the signature covers the body's digest
    /// directly.
    ///
    /// Deliberately odd: this does not change the state. A second call passes the last buffered bytes on again and
    /// sends a second structure, which signs the body with those bytes repeated. End a stream once.
    ///
    /// \throws Exception "CMS::SignerMediaOutImpl::end", code 4, file CMSSignerMedia, line 147, detail the OpenSSL
    ///         errors: the key does not sign (a public key in the place of the private one), or a piece of the body
    ///         could not be digested when it was written, which `write` does not tell
    /// \throws Exception "CMS::SignerMediaOutImpl::end", code 4, file CMSSignerMedia, without a fixed line, detail the
    ///         OpenSSL errors: the structure is not encoded (no memory)
    /// \throws Exception "operator->", code 1: nothing is attached
    /// \throws what the target throws, unchanged
    void end() override;

    void attach(MediaOut& target);
    void detach();

private:
    std::unique_ptr<StructureStream> m_stream;
};

/// A sink that signs what is written to it; see `SignerMediaOutImpl` for writing and ending. Without `end()` nothing
/// reaches the target.
class NORVCRYPTO_EXPORT SignerMediaOut : public MediaOut {
public:
    /// \param type   the digest, by its OpenSSL number
    /// \param signer the private key, its certificate, and further certificates that are sent along in list order
    ///               behind it (empty handles are skipped). Key and certificates are shared while it signs. A null pair
    ///               is a programming error and ends the process.
    /// \throws Exception "CMS::SignerMediaOutImpl::SignerMediaOutImpl", code 4, file CMSSignerMedia:
    ///         - line 43, detail "Private key does not match certificate": it does not, or either is missing. This is
    ///           asked first; OpenSSL's queue is left as it was
    ///         - line 49, detail the OpenSSL errors: the structure cannot be typed
    ///         - line 56, detail the OpenSSL errors (often none): no such digest
    ///         - line 63, detail the OpenSSL errors: this key cannot sign with this digest in PKCS#7 (a DSA key with
    ///           SHA-384 or SHA-512, an Edwards-curve key)
    ///         - line 91, detail the OpenSSL errors: the digest does not start
    ///         - without a fixed line, detail the OpenSSL errors: a certificate cannot be added (no memory)
    /// \throws Exception "CMS::RefContentInfo::RefContentInfo", code 4, line 404, "Creation failed": no memory
    SignerMediaOut(Hasher::Type type, const NVX509::KeyCertificatePair& signer);
    SignerMediaOut(const SignerMediaOut& other);
    SignerMediaOut& operator=(const SignerMediaOut& other);
    ~SignerMediaOut() override;

    /// Sends the structure to `target`, which is shared and which `end()` ends.
    /// \throws Exception "CMS::SignerMediaOut::attach", code 1: the body was replaced by another kind of sink, or
    /// `target` is this stream itself
    void attach(MediaOut& target);
    /// Lets go of the target.
    /// \throws Exception "CMS::SignerMediaOut::attach", code 1: the body was replaced
    void detach();
};

/// Checks the signers of one structure, one at a time as the caller asks.
///
/// A loop over signers and certificates is dangerous on what strangers sent: both are as many as they like, a try is a
/// public-key operation that a hostile key draws out to milliseconds, and each digest of a body costs a pass over it.
/// `verifySignatures` (CMSVerification.h) is that loop with limits. Which body is judged must not be left to the sender
/// either: see `carriedContent` there.
class NORVCRYPTO_EXPORT CMSVerifier {
public:
    /// Decodes the structure; reads and throws as `RefContentInfo(MediaIn&)` does. What the structure is, is not asked:
    /// `signedData(contentInfo())` has no signer when it is no signed data. Certificates that come with it are decoded when
    /// somebody asks for them, which no operation here does.
    explicit CMSVerifier(MediaIn& in);
    virtual ~CMSVerifier();

    /// The structure. Signers taken from it live as long as this verifier, or a copy of the handle.
    const RefContentInfo& contentInfo() const;

    /// A sink that digests a body as `signer` did: write the body into it, do not end it, then ask `isValid`.
    /// \throws Exception "Crypto::Hasher", code 4: the signer's digest is none that OpenSSL knows (detail "Unrecognized
    ///         DigestType 0x" and the number in hexadecimal, 0 for an unknown identifier) or does not start
    VerifierMediaOut verifierMediaOut(const SignerInfo& signer) const;

    /// Whether `signer`'s signature over the body in `digested` belongs to the key of `certificate`. Works for RSA
    /// (PKCS#1 1.5), DSA and EC keys, with and without signed attributes; `digested` can be asked again, for another
    /// signer with the same digest too. It must not have been ended: the answer is false then.
    ///
    /// Deliberate: of the signed attributes only the first message digest is compared, and the signature algorithm that
    /// the signer names is not looked at: the key and the digest decide. So a second message digest or value, and a
    /// content type attribute that is missing, stands twice or is not the content's, are accepted here although RFC 5652
    /// (5.3, 11.1, 11.2) forbids them; and so is a signature without attributes over a body that is a SET OF attributes,
    /// which may have been made over them for another body. `verifySignatures` refuses all of these.
    ///
    /// A false may also mean that the algorithm is not supported (RSASSA-PSS, Edwards curves): `verifySignatures` tells
    /// that apart.
    ///
    /// A bad signature is an answer, never an exception; the reason is logged at level 0, text "s_signatureVerify":
    /// event 0x300004E the body was digested with another algorithm than the signer's; 0x300004F signed attributes
    /// without a message digest; 0x3000050 the message digest is not the body's; 0x3000051 the certificate is empty or
    /// its key cannot be decoded; 0x3000052 the signature is wrong.
    /// \throws what `VerifierMediaOut::verifier()` throws for a null handle
    bool isValid(VerifierMediaOut& digested, const SignerInfo& signer, const NVX509::RefCertificate& certificate) const;

    /// The same over a whole stream, which is read to its end.
    /// \throws what `verifierMediaOut` and `body` throw
    bool isValid(MediaIn& body, const SignerInfo& signer, const NVX509::RefCertificate& certificate) const;

private:
    RefContentInfo m_contentInfo;
};

} // namespace Norvane::Crypto::CMS

#endif
