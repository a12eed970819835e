#include <norvcrypto/Certificate.h>

#include "Certificate/Writing.h"
#include "openssl/Acceptance.h"
#include "openssl/CertificateFields.h"
#include "openssl/ErrorQueue.h"
#include "openssl/Pointers.h"

#include <openssl/pem.h>

#include <memory>
#include <utility>

namespace Norvane {
template class RefCounted<Crypto::NVX509::Certificate>;
template class Ref<Crypto::NVX509::Certificate>;
} // namespace Norvane

namespace Norvane::Crypto::NVX509 {

Mutex Certificate::m_Mutex;

Certificate::Certificate(x509_st* x509) : m_x509(openssl::hasTooManyRelativePoints(x509) ? nullptr : x509) {
    openssl::cacheExtensions(m_x509);
}

Certificate::~Certificate() {
    if (m_owned) {
        X509_free(m_x509);
    }
}

bool Certificate::operator==(const Certificate& other) const {
    if (m_x509 == other.m_x509) {
        return true;
    }
    if (m_x509 == nullptr || other.m_x509 == nullptr) {
        return false;
    }
    const ASN1_BIT_STRING* signature = nullptr;
    const ASN1_BIT_STRING* otherSignature = nullptr;
    X509_get0_signature(&signature, nullptr, m_x509);
    X509_get0_signature(&otherSignature, nullptr, other.m_x509);
    // The signatures first: two certificates that differ there are told apart even when a serial number is refused.
    return ASN1::BitString(signature) == ASN1::BitString(otherSignature) && serialNumber() == other.serialNumber();
}

const DistinguishedName& Certificate::issuer() const {
    return detail::fillWhenEmpty(m_issuerName, [this](auto& name) {
        if (m_x509 != nullptr) {
            name = DistinguishedName(X509_get_issuer_name(m_x509));
        }
    });
}

const DistinguishedName& Certificate::subject() const {
    return detail::fillWhenEmpty(m_subjectName, [this](auto& name) {
        if (m_x509 != nullptr) {
            name = DistinguishedName(X509_get_subject_name(m_x509));
        }
    });
}

const std::string& Certificate::name() const {
    return detail::fillWhenEmpty(m_oneLineName, [this](auto& line) {
        if (auto subjectLine = openssl::oneLineSubject(m_x509); !subjectLine.empty()) {
            line = std::move(subjectLine); // an empty subject writes nothing: a warmed certificate is only read
        }
    });
}

long Certificate::version() const {
    return m_x509 == nullptr ? -1 : X509_get_version(m_x509);
}

const ASN1::Integer& Certificate::serialNumber() const {
    if (m_serial.object() == nullptr && m_x509 != nullptr) {
        m_serial = ASN1::Integer(X509_get0_serialNumber(m_x509));
    }
    return m_serial;
}

const ValidityPeriod& Certificate::validityPeriod() const {
    if (!m_times && m_x509 != nullptr) {
        m_times = std::make_unique<X509_val_st>(openssl::validityTimes(m_x509));
        m_validity = ValidityPeriod(m_times.get());
    }
    return m_validity;
}

RefKey Certificate::key() const {
    return detail::fillWhenEmpty(m_publicKey, [this](auto& key) {
        const openssl::ErrorMark mark;
        openssl::KeyPtr decoded(m_x509 == nullptr ? nullptr : X509_get_pubkey(m_x509));
        auto body = std::make_unique<PublicKey>(decoded.get());
        static_cast<void>(decoded.release());
        key = RefKey(body.release());
    });
}

unsigned long Certificate::keyUsage() const {
    return openssl::keyUsageBits(m_x509);
}

unsigned long Certificate::extendedKeyUsage() const {
    return openssl::extendedKeyUsageBits(m_x509);
}

bool Certificate::isSelfSigned() const {
    return detail::answerOnce(m_selfSigned, [this] { return subject() == issuer(); });
}

bool Certificate::isCACert() const {
    if (m_x509 == nullptr) {
        return false;
    }
    if (m_caCert == detail::TriState::unknown) {
        const auto facts = openssl::authorityFacts(m_x509);
        if (!facts.hasBasicConstraints && facts.hasKeyUsage) {
            return false; // the one answer that is not kept
        }
        m_caCert = detail::triState(facts.hasBasicConstraints ? facts.basicConstraintsCa : isSelfSigned());
    }
    return m_caCert == detail::TriState::yes;
}

bool Certificate::issuedBy(const RefCertificate& issuingCertificate, bool checkKeyUsage) const {
    if (m_x509 == nullptr || issuingCertificate.isNull() || issuer() != issuingCertificate->subject()) {
        return false;
    }
    const auto& authorityKey = authorityKeyIdentifier();
    if (!authorityKey.isNull() && authorityKey->keyId() != issuingCertificate->subjectKeyIdentifier()) {
        return false;
    }
    return !checkKeyUsage || (issuingCertificate->keyUsage() & KU_KEY_CERT_SIGN) != 0;
}

void Certificate::writeDER(MediaOut& out) {
    writeTo<X509>(out, m_x509, i2d_X509_bio);
}

void Certificate::writePEM(MediaOut& out) {
    writeTo<X509>(out, m_x509, PEM_write_bio_X509);
}

void Certificate::relinquishOwnerShip() {
    m_owned = false;
}

RefCertificate::RefCertificate() = default;
RefCertificate::RefCertificate(Certificate* certificate) : Ref(adoptBody(certificate)) {}
RefCertificate::RefCertificate(const RefCertificate& other) = default;
RefCertificate& RefCertificate::operator=(const RefCertificate& other) = default;
RefCertificate::~RefCertificate() = default;

RefCertificate::operator x509_st*() const {
    const auto* certificate = bodyOrNull();
    return certificate == nullptr ? nullptr : certificate->m_x509;
}

bool RefCertificate::operator==(const RefCertificate& other) const {
    const auto* left = bodyOrNull();
    const auto* right = other.bodyOrNull();
    if (left == nullptr || right == nullptr) {
        return left == right;
    }
    return *left == *right;
}

} // namespace Norvane::Crypto::NVX509
