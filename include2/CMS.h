#ifndef NORVCRYPTO_CMS_H
#define NORVCRYPTO_CMS_H

/// \file
/// Read-only views of the CMS (PKCS#7) structures that carry S/MIME bodies: what kind a received structure is, who
/// signed it, for whom it was encrypted, which certificates and revocation lists came with it. RFC 2315 (PKCS#7 1.5)
/// and the part of RFC 5652 (CMS) that has the same shapes; subject-key-identifier signers, key agreement and
/// AuthEnvelopedData do not decode.
///
/// \code
/// Norvane::Crypto::initialize();                       // once, before anything else
/// Norvane::FileMediaIn file(Norvane::File::Path("smime.p7s"));
/// CMS::RefContentInfo message(file);                   // throws when the bytes are no structure
/// if (message->typeAsEnum() == CMS::ContentInfo::SignedData) {
///     const CMS::SignedData data = CMS::signedData(message);
///     for (const CMS::SignerInfo& signer : data.signerInfo()) {
///         std::cout << signer.issuerAndSerialNumber().issuer().asString() << '\n';
///     }
/// }
/// \endcode
///
/// Rules of every view:
/// - A view borrows the OpenSSL structure that it was made over and must not outlive it: what comes out of a
///   `RefContentInfo` (certificates and lists included) lives no longer than the last handle on that body.
/// - Of a structure that was decoded from a source, the certificates, revocation lists, recipients and the encrypted
///   content are decoded when they are first asked for: by their accessors through `signedData` and `envelopedData`, and
///   all of them by `RefContentInfo`'s conversion to OpenSSL's structure. What decodes and what does not is told by the
///   constructor all the same: what waits is known to decode. Pointers that were handed out before stay valid.
/// - A view over null is allowed; its accessors answer an empty value, an empty list or a null handle.
/// - An accessor decodes on its first call and answers the same object from then on; later changes of the structure are
///   not seen. A list without entries is looked up again on each call.
/// - Accessors do not fail, with one exception: a negative integer (a version or serial number that no sound sender
///   makes) throws as `ASN1::Integer` does ("ASN1::Integer::Integer", code 4, line 25), each time it is asked for.
/// - Views are used by one thread at a time: even const accessors fill caches without a lock.

#include <norvcmsg/Media.h>
#include <norvcrypto/ASN1.h>
#include <norvcrypto/BIOMediaImpl.h>
#include <norvcrypto/Certificate.h>
#include <norvcrypto/CertificateRevocationList.h>
#include <norvcrypto/DistinguishedName.h>
#include <norvcrypto/Export.h>
#include <norvcrypto/NorvRefcounted>
#include <norvcrypto/detail/CachedValue.h>

#include <list>
#include <memory>

struct X509_name_st;
struct asn1_object_st;
struct asn1_string_st;
struct pkcs7_st;
struct pkcs7_signed_st;
struct pkcs7_signer_info_st;
struct pkcs7_enveloped_st;
struct pkcs7_recip_info_st;
struct pkcs7_enc_content_st;
struct pkcs7_issuer_and_serial_st;

namespace Norvane::Crypto::openssl {
class LazyPkcs7;
}

namespace Norvane::Crypto::CMS {

struct StructureParts;

/// The outer structure: a content type and the content of that type.
class NORVCRYPTO_EXPORT ContentInfo : public NonCopyable {
public:
    /// The content types; the numbers are fixed. Signed-and-enveloped data (1.2.840.113549.1.7.4) has no entry: it is
    /// `Unknown`.
    enum ContentType : int {
        Unknown = 0,         ///< not recognised, or no structure
        Data = 1,            ///< 1.2.840.113549.1.7.1
        SignedData = 2,      ///< 1.2.840.113549.1.7.2
        EnvelopedData = 3,   ///< 1.2.840.113549.1.7.3
        DigestedData = 4,    ///< 1.2.840.113549.1.7.5
        EncryptedData = 5,   ///< 1.2.840.113549.1.7.6
        SmimeAttributes = 6, ///< 1.2.840.113549.1.9.16.2, the S/MIME attribute arc
    };

    /// Borrows a structure, which may be null.
    explicit ContentInfo(const pkcs7_st* structure);
    virtual ~ContentInfo();

    /// The object identifier of the content type; empty without a structure.
    const ASN1::ObjectIdentifier& type() const;

    /// The number of the content type. A type is recognised when its encoded object identifier equals that of the
    /// table; an identifier that only prints alike, because an arc wrapped at 32 bits, is `Unknown`.
    /// An unrecognised type is logged on each call: event 0x300005D, the dotted text.
    ContentType typeAsEnum() const;

    /// The structure, or null; all of it, which a decoded one is from the first call on (see the rules above).
    /// \throws std::bad_alloc
    [[nodiscard]] pkcs7_st* structure() const;

protected:
    ContentInfo(pkcs7_st* structure, bool owns);
    /// Decodes one structure from `source` and owns it; false when the bytes are none.
    bool decode(MediaIn& source);

private:
    friend struct StructureParts;

    pkcs7_st* m_structure;
    bool m_owns;
    std::unique_ptr<openssl::LazyPkcs7> m_parts; // of a structure that was decoded, which it owns
    mutable detail::CachedValue<ASN1::ObjectIdentifier, asn1_object_st> m_type;
    mutable ContentType m_typeNumber = Unknown;
};

/// The body that `RefContentInfo` shares.
class NORVCRYPTO_EXPORT _ContentInfo : public ContentInfo, public RefImpl {
public:
    /// Borrows a structure, which may be null.
    explicit _ContentInfo(const pkcs7_st* structure);
    /// \param owns true takes the structure over: it is freed with the body
    _ContentInfo(pkcs7_st* structure, bool owns);
    /// Decodes one structure, BER or DER, and owns it. `in` is read up to the end of the structure and not a byte
    /// further when the outermost length is definite and the structure has 8 bytes or more; up to 6 bytes further
    /// otherwise. What follows the structure is not looked at: a caller that allows nothing behind it asks
    /// `in.atEnd()`. `in` may go once this returns. Enveloped data keeps its octets until they are asked for: its own
    /// copy, or, when the bytes of `in` lie in memory (`BytesInMemory`), a handle on the body of `in`, whose bytes must stay
    /// as they are.
    ///
    /// \throws Exception "CMS::_ContentInfo::_ContentInfo", code 4, file CMS, line 389, detail "ASN1 Decode failed:":
    ///         the bytes are no structure, or end before it does, or it is refused (see Acceptance.h); also logged, event
    ///         0x300005E with the OpenSSL errors, which end in "refused: " and the reason for one that is refused
    /// \throws what `in` throws while it is read, unchanged
    explicit _ContentInfo(MediaIn& in);
    ~_ContentInfo() override;
};

} // namespace Norvane::Crypto::CMS

namespace Norvane {
extern template class RefCounted<Crypto::CMS::_ContentInfo>;
extern template class Ref<Crypto::CMS::_ContentInfo>;
} // namespace Norvane

namespace Norvane::Crypto::CMS {

/// The handle on a structure; copies share it.
class NORVCRYPTO_EXPORT RefContentInfo : public Ref<_ContentInfo> {
public:
    /// True makes a new, empty structure that the body owns; false makes a null handle.
    /// \throws Exception "CMS::RefContentInfo::RefContentInfo", code 4, file CMS, line 404, detail "Creation failed":
    ///         OpenSSL has no memory for it
    explicit RefContentInfo(bool create);
    /// Borrows a structure, which may be null: the handle is not null then, its body wraps null.
    explicit RefContentInfo(const pkcs7_st* structure);
    /// Decodes a structure and owns it; reads and throws as `_ContentInfo(MediaIn&)` does.
    explicit RefContentInfo(MediaIn& in);
    RefContentInfo(const RefContentInfo& other);
    RefContentInfo& operator=(const RefContentInfo& other);
    ~RefContentInfo() override;

    /// The body's structure; null for a null handle. It stays the body's. Read its unions only through `signedData`
    /// and `envelopedData`: OpenSSL leaves their members null, or of another type, in what strangers send.
    operator pkcs7_st*();
    operator pkcs7_st*() const;
};

/// Which certificate: its issuer's name and its serial number.
class NORVCRYPTO_EXPORT IssuerAndSerialNumber {
public:
    explicit IssuerAndSerialNumber(const pkcs7_issuer_and_serial_st* value);
    IssuerAndSerialNumber(const IssuerAndSerialNumber& other);
    IssuerAndSerialNumber& operator=(const IssuerAndSerialNumber& other);
    virtual ~IssuerAndSerialNumber();

    const NVX509::DistinguishedName& issuer() const;
    /// \throws Exception for a negative number, see the rules above
    const ASN1::Integer& serialNumber() const;

private:
    const pkcs7_issuer_and_serial_st* m_value;
    mutable detail::CachedValue<NVX509::DistinguishedName, X509_name_st> m_issuer;
    mutable detail::CachedValue<ASN1::Integer, asn1_string_st> m_serialNumber;
};

/// One signer of a `SignedData`.
class NORVCRYPTO_EXPORT SignerInfo {
public:
    explicit SignerInfo(const pkcs7_signer_info_st* value);
    SignerInfo(const SignerInfo& other);
    SignerInfo& operator=(const SignerInfo& other);
    virtual ~SignerInfo();

    /// The signer's certificate, which need not be in the structure.
    const IssuerAndSerialNumber& issuerAndSerialNumber() const;
    const ASN1::ObjectIdentifier& digestAlgorithm() const;
    /// The algorithm of the signature, which some senders name by the key's algorithm alone (rsaEncryption).
    const ASN1::ObjectIdentifier& signatureAlgorithm() const;
    /// The signature's bytes.
    const ASN1::OctetString& signature() const;

    operator pkcs7_signer_info_st*() const;

private:
    const pkcs7_signer_info_st* m_value;
    mutable detail::CachedValue<IssuerAndSerialNumber, pkcs7_issuer_and_serial_st> m_issuerAndSerialNumber;
    mutable detail::CachedValue<ASN1::ObjectIdentifier, asn1_object_st> m_digestAlgorithm;
    mutable detail::CachedValue<ASN1::ObjectIdentifier, asn1_object_st> m_signatureAlgorithm;
    mutable detail::CachedValue<ASN1::OctetString, asn1_string_st> m_signature;
};

/// Signed data: a content, or none when the signature is detached, with its signers.
class NORVCRYPTO_EXPORT SignedData {
public:
    explicit SignedData(const pkcs7_signed_st* value);
    SignedData(const SignedData& other);
    SignedData& operator=(const SignedData& other);
    virtual ~SignedData();

    /// \throws Exception for a negative number, see the rules above
    const ASN1::Integer& version() const;
    /// The content that was signed, as a structure of its own that this one lends; a null handle over null.
    const RefContentInfo& contentInfo() const;
    /// The certificates in the structure's order; they belong to it.
    const std::list<NVX509::RefCertificate>& certificates() const;
    /// The revocation lists in the structure's order; they belong to it.
    const std::list<NVX509::RefCertificateRevocationList>& certificateRevocationLists() const;
    const std::list<SignerInfo>& signerInfo() const;

private:
    friend struct StructureParts;

    const pkcs7_signed_st* m_value;
    openssl::LazyPkcs7* m_parts = nullptr; // what of the structure is decoded when it is asked for
    mutable RefContentInfo m_contentInfo;
    mutable detail::CachedValue<ASN1::Integer, asn1_string_st> m_version;
    mutable std::list<NVX509::RefCertificate> m_certificates;
    mutable std::list<NVX509::RefCertificateRevocationList> m_revocationLists;
    mutable std::list<SignerInfo> m_signerInfo;
};

/// The encrypted body of an `EnvelopedData`.
class NORVCRYPTO_EXPORT EncryptedContentInfo {
public:
    explicit EncryptedContentInfo(const pkcs7_enc_content_st* value);
    EncryptedContentInfo(const EncryptedContentInfo& other);
    EncryptedContentInfo& operator=(const EncryptedContentInfo& other);
    virtual ~EncryptedContentInfo();

    /// The type of what was encrypted.
    const ASN1::ObjectIdentifier& contentType() const;
    /// The cipher.
    const ASN1::ObjectIdentifier& algorithm() const;
    /// The encrypted bytes; empty when they travel elsewhere.
    const ASN1::OctetString& data() const;

private:
    const pkcs7_enc_content_st* m_value;
    mutable detail::CachedValue<ASN1::ObjectIdentifier, asn1_object_st> m_contentType;
    mutable detail::CachedValue<ASN1::ObjectIdentifier, asn1_object_st> m_algorithm;
    mutable detail::CachedValue<ASN1::OctetString, asn1_string_st> m_data;
};

/// A content with its type, over the same OpenSSL structure as `EncryptedContentInfo`.
class NORVCRYPTO_EXPORT EncapsulatedContentInfo {
public:
    explicit EncapsulatedContentInfo(const pkcs7_enc_content_st* value);
    EncapsulatedContentInfo(const EncapsulatedContentInfo& other);
    EncapsulatedContentInfo& operator=(const EncapsulatedContentInfo& other);
    virtual ~EncapsulatedContentInfo();

    const ASN1::ObjectIdentifier& contentType() const;
    const ASN1::OctetString& data() const;

private:
    const pkcs7_enc_content_st* m_value;
    mutable detail::CachedValue<ASN1::ObjectIdentifier, asn1_object_st> m_contentType;
    mutable detail::CachedValue<ASN1::OctetString, asn1_string_st> m_data;
};

/// One recipient of an `EnvelopedData`.
class NORVCRYPTO_EXPORT RecipientInfo {
public:
    explicit RecipientInfo(const pkcs7_recip_info_st* value);
    RecipientInfo(const RecipientInfo& other);
    RecipientInfo& operator=(const RecipientInfo& other);
    virtual ~RecipientInfo();

    /// The certificate that the content key was encrypted for.
    const IssuerAndSerialNumber& issuerAndSerialNumber() const;

    operator pkcs7_recip_info_st*() const;

private:
    const pkcs7_recip_info_st* m_value;
    mutable detail::CachedValue<IssuerAndSerialNumber, pkcs7_issuer_and_serial_st> m_issuerAndSerialNumber;
};

/// Encrypted data with the recipients that can open it.
class NORVCRYPTO_EXPORT EnvelopedData {
public:
    explicit EnvelopedData(const pkcs7_enveloped_st* value);
    EnvelopedData(const EnvelopedData& other);
    EnvelopedData& operator=(const EnvelopedData& other);
    virtual ~EnvelopedData();

    /// \throws Exception for a negative number, see the rules above
    const ASN1::Integer& version() const;
    const std::list<RecipientInfo>& recipientInfo() const;
    const EncryptedContentInfo& contentInfo() const;

private:
    friend struct StructureParts;

    const pkcs7_enveloped_st* m_value;
    openssl::LazyPkcs7* m_parts = nullptr; // what of the structure is decoded when it is asked for
    mutable detail::CachedValue<ASN1::Integer, asn1_string_st> m_version;
    mutable std::list<RecipientInfo> m_recipientInfo;
    mutable detail::CachedValue<EncryptedContentInfo, pkcs7_enc_content_st> m_contentInfo;
};

/// The signed data in `content`: a view over null when `content` is null, holds another type or lacks its content.
NORVCRYPTO_EXPORT SignedData signedData(const RefContentInfo& content);

/// The enveloped data in `content`: a view over null when `content` is null, holds another type or lacks its content.
NORVCRYPTO_EXPORT EnvelopedData envelopedData(const RefContentInfo& content);

/// A source over the bytes that a signed structure carries, the pieces of a streaming sender joined; a null handle when
/// it carries none (the signature is detached), carries a structure instead of bytes, or is no signed data. The source
/// keeps the body of `content` alive and copies nothing.
NORVCRYPTO_EXPORT MediaIn embeddedContent(const RefContentInfo& content);

} // namespace Norvane::Crypto::CMS

#endif
