// The inner views. What their accessors share is in the two helpers; the rest names a field each.
#include "openssl/LazyPkcs7.h"

#include <norvcrypto/CMS.h>
#include <norvcrypto/detail/Lazy.h>

namespace Norvane::Crypto::CMS {

namespace {

/// A field of a structure that may be null.
template <class Structure, class Field> Field fieldOf(const Structure* structure, Field Structure::*field) noexcept {
    return structure == nullptr ? nullptr : structure->*field;
}

/// Fills an empty list from an OpenSSL stack in stack order; `take` appends what it makes of an element.
template <class List, class Stack, class Take> const List& fillFrom(List& list, const Stack* stack, Take take) {
    return Crypto::detail::fillWhenEmpty(list, [&](List& into) {
        const auto* elements = reinterpret_cast<const OPENSSL_STACK*>(stack);
        const int count = OPENSSL_sk_num(elements); // -1 for null
        for (int index = 0; index < count; ++index) {
            take(into, OPENSSL_sk_value(elements, index));
        }
    });
}

} // namespace

// IssuerAndSerialNumber

IssuerAndSerialNumber::IssuerAndSerialNumber(const pkcs7_issuer_and_serial_st* value) : m_value(value) {}
IssuerAndSerialNumber::IssuerAndSerialNumber(const IssuerAndSerialNumber& other) = default;
IssuerAndSerialNumber& IssuerAndSerialNumber::operator=(const IssuerAndSerialNumber& other) = default;
IssuerAndSerialNumber::~IssuerAndSerialNumber() = default;

const NVX509::DistinguishedName& IssuerAndSerialNumber::issuer() const {
    return m_issuer.around(fieldOf(m_value, &pkcs7_issuer_and_serial_st::issuer));
}

const ASN1::Integer& IssuerAndSerialNumber::serialNumber() const {
    return m_serialNumber.around(fieldOf(m_value, &pkcs7_issuer_and_serial_st::serial));
}

// SignerInfo

SignerInfo::SignerInfo(const pkcs7_signer_info_st* value) : m_value(value) {}
SignerInfo::SignerInfo(const SignerInfo& other) = default;
SignerInfo& SignerInfo::operator=(const SignerInfo& other) = default;
SignerInfo::~SignerInfo() = default;

const IssuerAndSerialNumber& SignerInfo::issuerAndSerialNumber() const {
    return m_issuerAndSerialNumber.around(fieldOf(m_value, &pkcs7_signer_info_st::issuer_and_serial));
}

const ASN1::ObjectIdentifier& SignerInfo::digestAlgorithm() const {
    return m_digestAlgorithm.around(openssl::algorithmIdentifier(fieldOf(m_value, &pkcs7_signer_info_st::digest_alg)));
}

const ASN1::ObjectIdentifier& SignerInfo::signatureAlgorithm() const {
    return m_signatureAlgorithm.around(
        openssl::algorithmIdentifier(fieldOf(m_value, &pkcs7_signer_info_st::digest_enc_alg)));
}

const ASN1::OctetString& SignerInfo::signature() const {
    return m_signature.around(fieldOf(m_value, &pkcs7_signer_info_st::enc_digest));
}

SignerInfo::operator pkcs7_signer_info_st*() const {
    return const_cast<pkcs7_signer_info_st*>(m_value);
}

// SignedData

SignedData::SignedData(const pkcs7_signed_st* value) : m_value(value), m_contentInfo(false) {}
SignedData::SignedData(const SignedData& other) = default;
SignedData& SignedData::operator=(const SignedData& other) = default;
SignedData::~SignedData() = default;

const ASN1::Integer& SignedData::version() const {
    return m_version.around(fieldOf(m_value, &pkcs7_signed_st::version));
}

const RefContentInfo& SignedData::contentInfo() const {
    if (const pkcs7_st* contents = fieldOf(m_value, &pkcs7_signed_st::contents);
        contents != nullptr && m_contentInfo.isNull()) {
        m_contentInfo = RefContentInfo(contents);
    }
    return m_contentInfo;
}

const std::list<NVX509::RefCertificate>& SignedData::certificates() const {
    if (m_parts != nullptr) {
        m_parts->decodeCertificates();
    }
    return fillFrom(m_certificates, fieldOf(m_value, &pkcs7_signed_st::cert), [](auto& list, void* element) {
        NVX509::CertificateFactory factory;
        const NVX509::RefCertificate certificate = factory(static_cast<X509*>(element), false);
        if (static_cast<x509_st*>(certificate) != nullptr) {
            list.push_back(certificate);
        }
    });
}

const std::list<NVX509::RefCertificateRevocationList>& SignedData::certificateRevocationLists() const {
    if (m_parts != nullptr) {
        m_parts->decodeLists();
    }
    return fillFrom(m_revocationLists, fieldOf(m_value, &pkcs7_signed_st::crl), [](auto& list, void* element) {
        NVX509::CertificateRevocationListFactory factory;
        const NVX509::RefCertificateRevocationList revocationList = factory(static_cast<X509_CRL*>(element), false);
        if (static_cast<X509_crl_st*>(revocationList) != nullptr) {
            list.push_back(revocationList);
        }
    });
}

const std::list<SignerInfo>& SignedData::signerInfo() const {
    return fillFrom(m_signerInfo, fieldOf(m_value, &pkcs7_signed_st::signer_info), [](auto& list, void* element) {
        if (element != nullptr) {
            list.emplace_back(static_cast<const pkcs7_signer_info_st*>(element));
        }
    });
}

// EncryptedContentInfo and EncapsulatedContentInfo

EncryptedContentInfo::EncryptedContentInfo(const pkcs7_enc_content_st* value) : m_value(value) {}
EncryptedContentInfo::EncryptedContentInfo(const EncryptedContentInfo& other) = default;
EncryptedContentInfo& EncryptedContentInfo::operator=(const EncryptedContentInfo& other) = default;
EncryptedContentInfo::~EncryptedContentInfo() = default;

const ASN1::ObjectIdentifier& EncryptedContentInfo::contentType() const {
    return m_contentType.around(fieldOf(m_value, &pkcs7_enc_content_st::content_type));
}

const ASN1::ObjectIdentifier& EncryptedContentInfo::algorithm() const {
    return m_algorithm.around(openssl::algorithmIdentifier(fieldOf(m_value, &pkcs7_enc_content_st::algorithm)));
}

const ASN1::OctetString& EncryptedContentInfo::data() const {
    return m_data.around(fieldOf(m_value, &pkcs7_enc_content_st::enc_data));
}

EncapsulatedContentInfo::EncapsulatedContentInfo(const pkcs7_enc_content_st* value) : m_value(value) {}
EncapsulatedContentInfo::EncapsulatedContentInfo(const EncapsulatedContentInfo& other) = default;
EncapsulatedContentInfo& EncapsulatedContentInfo::operator=(const EncapsulatedContentInfo& other) = default;
EncapsulatedContentInfo::~EncapsulatedContentInfo() = default;

const ASN1::ObjectIdentifier& EncapsulatedContentInfo::contentType() const {
    return m_contentType.around(fieldOf(m_value, &pkcs7_enc_content_st::content_type));
}

const ASN1::OctetString& EncapsulatedContentInfo::data() const {
    return m_data.around(fieldOf(m_value, &pkcs7_enc_content_st::enc_data));
}

// RecipientInfo and EnvelopedData

RecipientInfo::RecipientInfo(const pkcs7_recip_info_st* value) : m_value(value) {}
RecipientInfo::RecipientInfo(const RecipientInfo& other) = default;
RecipientInfo& RecipientInfo::operator=(const RecipientInfo& other) = default;
RecipientInfo::~RecipientInfo() = default;

const IssuerAndSerialNumber& RecipientInfo::issuerAndSerialNumber() const {
    return m_issuerAndSerialNumber.around(fieldOf(m_value, &pkcs7_recip_info_st::issuer_and_serial));
}

RecipientInfo::operator pkcs7_recip_info_st*() const {
    return const_cast<pkcs7_recip_info_st*>(m_value);
}

EnvelopedData::EnvelopedData(const pkcs7_enveloped_st* value) : m_value(value) {}
EnvelopedData::EnvelopedData(const EnvelopedData& other) = default;
EnvelopedData& EnvelopedData::operator=(const EnvelopedData& other) = default;
EnvelopedData::~EnvelopedData() = default;

const ASN1::Integer& EnvelopedData::version() const {
    return m_version.around(fieldOf(m_value, &pkcs7_enveloped_st::version));
}

const std::list<RecipientInfo>& EnvelopedData::recipientInfo() const {
    if (m_parts != nullptr) {
        m_parts->decodeRecipients();
    }
    return fillFrom(m_recipientInfo, fieldOf(m_value, &pkcs7_enveloped_st::recipientinfo),
                    [](auto& list, void* element) {
                        if (element != nullptr) {
                            list.emplace_back(static_cast<const pkcs7_recip_info_st*>(element));
                        }
                    });
}

const EncryptedContentInfo& EnvelopedData::contentInfo() const {
    if (m_parts != nullptr) {
        m_parts->decodeContent();
    }
    return m_contentInfo.around(fieldOf(m_value, &pkcs7_enveloped_st::enc_data));
}

} // namespace Norvane::Crypto::CMS
