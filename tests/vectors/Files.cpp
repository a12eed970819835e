#include "Tasks.h"

#include <norvcmsg/Exception.h>
#include <norvcmsg/Media.h>
#include <norvcrypto/Acceptance.h>
#include <norvcrypto/BIO.h>
#include <norvcrypto/Certificate.h>
#include <norvcrypto/CertificateRevocationList.h>
#include <norvcrypto/Key.h>
#include <norvcrypto/PKCS12.h>

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>

namespace vectors {

namespace {

using namespace Norvane;
using namespace Norvane::Crypto;

/// The SHA-256 of the SubjectPublicKeyInfo; null without a key.
Json keyFact(EVP_PKEY* key) {
    if (key == nullptr) {
        return nullptr;
    }
    unsigned char* der = nullptr;
    const int length = i2d_PUBKEY(key, &der);
    if (length <= 0) {
        return "has no public key";
    }
    const std::unique_ptr<unsigned char, void (*)(unsigned char*)> owner(
        der, [](unsigned char* octets) { OPENSSL_free(octets); });
    return sha256Of(Bytes(der, der + length));
}

template <class Object> std::string encodingFact(Object& object) {
    MemoryMediaOut out;
    object.writeDER(out);
    return sha256Of(bytesOf(out.content()));
}

Json timeFact(const ASN1::RefGeneralizedTime& time) {
    return time.isNull() ? Json() : Json(time->asTime().calendarSeconds());
}

Json extensionsFact(const std::list<NVX509::RefExtension>& extensions) {
    Json facts = Json::array();
    for (const NVX509::RefExtension& extension : extensions) {
        facts.push_back({extension->identifier()->asString(), extension->critical()});
    }
    return facts;
}

Json serialFact(const NVX509::Certificate& certificate) {
    try {
        return certificate.serialNumber().hex();
    } catch (const Exception&) {
        return "negative";
    }
}

Json alternativeNames(const NVX509::Certificate& certificate) {
    Json facts = Json::array();
    const NVX509::RefSubjectAlternativeName& names = certificate.subjectAlternativeName();
    if (!names.isNull()) {
        for (const NVX509::GeneralName& name : names->names()) {
            facts.push_back(name.type());
        }
    }
    return facts;
}

Json factsOf(NVX509::Certificate& certificate) {
    certificate.warm();
    const NVX509::ValidityPeriod& period = certificate.validityPeriod();
    return {{"encoding", encodingFact(certificate)},
            {"serial", serialFact(certificate)},
            {"version", certificate.version()},
            {"subject", certificate.name()},
            {"issuer", certificate.issuer().asString()},
            {"subjectHash", certificate.subject().hash()},
            {"issuerHash", certificate.issuer().hash()},
            {"notBefore", timeFact(period.notBefore())},
            {"notAfter", timeFact(period.notAfter())},
            {"key", keyFact(certificate.key())},
            {"authority", certificate.isCACert()},
            {"keyUsage", certificate.keyUsage()},
            {"extendedKeyUsage", certificate.extendedKeyUsage()},
            {"subjectKeyIdentifier", certificate.subjectKeyIdentifier().isNull()
                                         ? Json()
                                         : Json(hexOf(Bytes(certificate.subjectKeyIdentifier()->data(),
                                                            certificate.subjectKeyIdentifier()->data() +
                                                                certificate.subjectKeyIdentifier()->length())))},
            {"alternativeNames", alternativeNames(certificate)},
            {"extensions", extensionsFact(certificate.extensions())}};
}

Json keyRead(RefKey& key, const Bytes& content, const Buffer& passphrase) {
    dynamic_cast<PrivateKey&>(*key).readUnattended(bufferOf(content), &passphrase);
    return keyFact(key);
}

/// The same by the reader that is prescribed for PEM, and by that for DER.
Json keyReadPlainly(const Bytes& content, const std::string& passphrase, bool isPem) {
    const RefKey key(Key::PRIVATE_KEY);
    try {
        if (isPem) {
            key->readPEM(bufferOf(content), passphrase);
        } else {
            key->read(bufferOf(content), false);
        }
        return keyFact(key);
    } catch (const Exception& failure) {
        return "failed: " + failure.asString();
    }
}

} // namespace

Json certificates(const Json& task) {
    const Bytes content = contentOf(task.at("path"));
    std::list<NVX509::RefCertificate> found;
    NVX509::CertificateFactory().read(bufferOf(content), found);
    Json facts = Json::array();
    for (const NVX509::RefCertificate& certificate : found) {
        if (!certificate.isNull()) {
            facts.push_back(factsOf(*certificate));
        }
    }
    return {{"found", facts}, {"refusal", refusal(bufferOf(content))}};
}

Json revocationList(const Json& task) {
    const Bytes content = contentOf(task.at("path"));
    const NVX509::RefCertificateRevocationList list =
        NVX509::CertificateRevocationListFactory().read(bufferOf(content));
    if (list.isNull()) {
        return {{"failed", "no list"}, {"refusal", refusal(bufferOf(content))}};
    }
    list->warm();
    return {{"encoding", encodingFact(*list)},
            {"issuer", list->crlInfo().issuer().asString()},
            {"issuerHash", list->crlInfo().issuer().hash()},
            {"lastUpdate", timeFact(list->lastUpdate())},
            {"nextUpdate", timeFact(list->nextUpdate())},
            {"number", list->crlNumber().hex()},
            {"delta", list->isDeltaCRL()},
            {"extensions", extensionsFact(list->crlInfo().extensions())}};
}

Json privateKey(const Json& task) {
    const Bytes content = contentOf(task.at("path"));
    const std::string passphrase = task.value("passphrase", "");
    const bool isPem = task.at("pem");
    RefKey key(Key::PRIVATE_KEY);
    Json facts{
        {"key", keyRead(key, content, Buffer(passphrase.data(), static_cast<unsigned int>(passphrase.size()), true))}};
    // The empty passphrase would have OpenSSL ask.
    if (!isPem || !passphrase.empty()) {
        facts["plainly"] = keyReadPlainly(content, passphrase, isPem);
    }
    return facts;
}

Json publicKey(const Json& task) {
    const Bytes content = contentOf(task.at("path"));
    const RefKey key(Key::PUBLIC_KEY);
    if (task.at("pem")) {
        key->readPEM(bufferOf(content));
    } else {
        key->read(bufferOf(content), false);
    }
    return {{"key", keyFact(key)}};
}

Json pkcs12(const Json& task) {
    const Bytes content = contentOf(task.at("path"));
    const std::unique_ptr<BIO, void (*)(BIO*)> in(BIO_new_mem_buf(content.data(), static_cast<int>(content.size())),
                                                  [](BIO* bio) { BIO_free_all(bio); });
    Norvane::Crypto::PKCS12::Store store(in.get());
    if (task.contains("passphrase")) {
        store.read(task.at("passphrase"));
    } else {
        store.readWithoutPassword();
    }
    Json facts{{"key", store.privateKey().isNull() ? Json() : keyFact(store.privateKey())}, {"certificate", nullptr}};
    if (!store.certificate().isNull()) {
        const NVX509::RefCertificate owning = NVX509::CertificateFactory()(store.certificate(), true);
        facts["certificate"] = encodingFact(*owning);
    }
    return facts;
}

} // namespace vectors
