#include <norvcrypto/Validity.h>

#include "failures/Events.h"
#include "openssl/TimeComparison.h"

#include <norvcrypto/detail/Lazy.h>

#include <openssl/x509.h>

#include <ctime>

namespace Norvane::Crypto::NVX509 {

using failures::X509Message;

ValidityPeriod::ValidityPeriod(const X509_val_st* period) : m_period(period) {}
ValidityPeriod::~ValidityPeriod() = default;

const ASN1::RefGeneralizedTime& ValidityPeriod::notBefore() const {
    return detail::fillWhenEmpty(m_notBefore, [this](auto& time) {
        if (m_period != nullptr) {
            time = ASN1::RefGeneralizedTime(m_period->notBefore, false);
        }
    });
}

const ASN1::RefGeneralizedTime& ValidityPeriod::notAfter() const {
    return detail::fillWhenEmpty(m_notAfter, [this](auto& time) {
        if (m_period != nullptr) {
            time = ASN1::RefGeneralizedTime(m_period->notAfter, false);
        }
    });
}

bool ValidityPeriod::valid(long when) const {
    if (m_period == nullptr || m_period->notBefore == nullptr || m_period->notAfter == nullptr) {
        return false;
    }
    const std::time_t moment = when == 0 ? std::time(nullptr) : when;
    if (openssl::compareTime(m_period->notBefore, moment) > 0) {
        failures::logX509(X509Message::beforeValidity,
                          "Certificate Validity period check. Time is before validity period.");
        return false;
    }
    if (openssl::compareTime(m_period->notAfter, moment) < 0) {
        failures::logX509(X509Message::afterValidity,
                          "Certificate Validity period check. Time is after validity period.");
        return false;
    }
    return true;
}

} // namespace Norvane::Crypto::NVX509
