#include <norvcrypto/PKCS12.h>

#include "failures/Raise.h"
#include "openssl/Pkcs12.h"
#include "openssl/TrueCountBio.h"

#include <memory>
#include <string>
#include <utility>

namespace Norvane::Crypto::PKCS12 {

namespace {

RefKey handleOn(openssl::KeyPtr key) {
    if (!key) {
        return {};
    }
    auto body = std::make_unique<PrivateKey>(key.get());
    static_cast<void>(key.release());
    return RefKey(body.release());
}

/// \param password null: none; \param key, certificate: left alone unless all went well
void open(PKCS12_st* structure, const std::string* password, RefKey& key, NVX509::RefCertificate& certificate) {
    if (structure == nullptr) {
        failures::raise(failures::pkcs12Read, "The store holds no PKCS#12 structure");
    }
    // One sum for the whole file: each part of it is paid for before it is opened.
    openssl::DerivationWork work;
    openssl::addMac(structure, work);
    if (!work.isAffordable()) {
        failures::raise<TooCostlyException>(failures::pkcs12Read, openssl::tooManyHashes("The PKCS#12 structure"));
    }
    if (!openssl::verifyPassword(structure, password)) {
        failures::raiseWithErrors(failures::pkcs12Password);
    }
    openssl::Pkcs12Opening opening = openssl::openPkcs12(structure, password, work);
    if (!opening.refusal.empty()) {
        failures::raise<TooCostlyException>(failures::pkcs12Read, opening.refusal);
    }
    if (!opening.succeeded) {
        failures::raiseWithErrors(failures::pkcs12Parse);
    }
    openssl::Identity& found = opening.found;
    const RefKey newKey = handleOn(std::move(found.key));
    const NVX509::RefCertificate newCertificate =
        found.certificate ? NVX509::CertificateFactory()(found.certificate.get(), false) : NVX509::RefCertificate();
    certificate = {}; // copying a handle takes memory: the earlier one must not be left beside the new key
    key = newKey;
    certificate = newCertificate;
    static_cast<void>(found.certificate.release()); // nobody owns it: callers rely on it outliving every handle
}

} // namespace

Store::Store() = default;

Store::Store(bio_st* in) {
    // A stream adapter reports bytes that were never sent; whatever else the caller gave is read as it is.
    const openssl::BioPtr counting = openssl::trueCountBio(in);
    m_p12.reset(openssl::decodePkcs12(counting ? counting.get() : in).release());
    if (!m_p12) {
        failures::raiseWithErrors(failures::pkcs12Decode);
    }
}

Store::~Store() = default;

void Store::read(const std::string& password) {
    open(m_p12.get(), &password, m_key, m_certificate);
}

void Store::readWithoutPassword() {
    open(m_p12.get(), nullptr, m_key, m_certificate);
}

const RefKey& Store::privateKey() const {
    return m_key;
}

const NVX509::RefCertificate& Store::certificate() const {
    return m_certificate;
}

} // namespace Norvane::Crypto::PKCS12
