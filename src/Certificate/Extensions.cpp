#include "Certificate/ExtensionWarming.h"

#include "openssl/CertificateFields.h"
#include "openssl/ErrorQueue.h"

#include <norvcrypto/Certificate.h>

namespace Norvane::Crypto::NVX509 {

const std::list<RefExtension>& Certificate::extensions() const {
    return detail::fillWhenEmpty(m_extensions, [this](auto& list) {
        const int count = m_x509 == nullptr ? 0 : X509_get_ext_count(m_x509);
        for (int i = 0; i < count; ++i) {
            list.emplace_back(X509_get_ext(m_x509, i));
        }
    });
}

RefExtension Certificate::find(const ASN1::RefObjectIdentifier& identifier) const {
    for (const auto& extension : extensions()) {
        if (extension->identifier() == identifier) {
            return extension;
        }
    }
    return {};
}

/// Whoever made the certificate chose how many extensions are searched, and `issuedBy` asks for each candidate: one that
/// is not there is looked for once. Later calls write nothing: a warmed certificate is only read.
RefExtension Certificate::findOnce(const char* identifier, Absent bit) const {
    if ((m_absent & bit) != 0) {
        return {};
    }
    RefExtension extension = find(ASN1::RefObjectIdentifier(std::string(identifier)));
    if (extension.isNull()) {
        m_absent |= bit;
    }
    return extension;
}

template <class Handle>
const Handle& Certificate::typedExtension(Handle& cache, const char* identifier, Absent bit) const {
    return detail::fillWhenEmpty(cache, [&](auto& handle) {
        if (const auto extension = findOnce(identifier, bit); !extension.isNull()) {
            handle = extension;
        }
    });
}

const RefSubjectAlternativeName& Certificate::subjectAlternativeName() const {
    return typedExtension(m_subjectAltName, "2.5.29.17", noAlternativeName);
}

const RefBasicConstraints& Certificate::basicConstraints() const {
    return typedExtension(m_basicConstraints, "2.5.29.19", noConstraints);
}

const RefAuthorityKeyIdentifier& Certificate::authorityKeyIdentifier() const {
    return typedExtension(m_authorityKeyId, "2.5.29.35", noAuthorityKey);
}

RefCRLDistributionPoints Certificate::crlDistributionPoints() const {
    return detail::fillWhenEmpty(m_crlDistributionPoints, [this](auto& points) {
        if (const auto extension = findOnce("2.5.29.31", noPoints); !extension.isNull()) {
            const auto& value = extension->derEncodedValue();
            points = RefCRLDistributionPoints(value->data(), value->length());
        }
    });
}

const ASN1::RefOctetString& Certificate::subjectKeyIdentifier() const {
    return detail::fillWhenEmpty(m_subjectKeyId, [this](auto& identifier) {
        if (m_x509 == nullptr) {
            return;
        }
        if (const auto* decoded = openssl::decodedSubjectKeyIdentifier(m_x509); decoded != nullptr) {
            identifier = ASN1::RefOctetString(decoded);
        } else if (const auto extension = findOnce("2.5.29.14", noOwnKey); !extension.isNull()) {
            // The value of the extension is itself the DER of an OCTET STRING.
            const auto& value = extension->derEncodedValue();
            identifier = ASN1::RefOctetString(value->data(), value->length());
        }
    });
}

void Certificate::warmExtensions() const {
    warmExtensionList(extensions());
    warmExtension(authorityKeyIdentifier());
    warmExtension(subjectAlternativeName());
    warmExtension(crlDistributionPoints());
    static_cast<void>(basicConstraints());
    static_cast<void>(subjectKeyIdentifier());
}

void Certificate::warm() const {
    const Synchronized lock(m_Mutex);
    const openssl::ErrorMark mark;
    warmName(issuer());
    warmName(subject());
    static_cast<void>(name());
    static_cast<void>(key());
    static_cast<void>(isSelfSigned());
    static_cast<void>(isCACert());
    warmTime(validityPeriod().notBefore());
    warmTime(validityPeriod().notAfter());
    warmExtensions();
    try {
        warmInteger(serialNumber());
    } catch (const Exception&) {
        // A negative one: asking for it throws without changing anything, in any number of threads.
    }
}

} // namespace Norvane::Crypto::NVX509
