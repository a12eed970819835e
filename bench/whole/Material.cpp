#include "Material.h"

#include "Contest.h"

#include <authority/Authority.h>
#include <norvcmsg/Buffer.h>
#include <norvcmsg/Logger.h>

#include <openssl/bio.h>
#include <openssl/pem.h>

#include <climits>

namespace bench {

using namespace Norvane;
using namespace Norvane::Crypto;

namespace {

using BioPtr = std::unique_ptr<BIO, With<BIO_free_all>>;
using CmsPtr = std::unique_ptr<CMS_ContentInfo, With<CMS_ContentInfo_free>>;

/// One pair, for whoever is named as it is.
class OnePair : public NVX509::KeyStorePlugin {
public:
    explicit OnePair(NVX509::KeyCertificatePair pair) : m_pair(std::move(pair)) {}
    NVX509::KeyCertificatePair find(const NVX509::DistinguishedName& /*issuer*/, const ASN1::Integer& serial) override {
        return serial == m_pair->certificate->serialNumber() ? m_pair : m_none;
    }
    NVX509::RefCertificate findEncryptionCertificate(const EmailAddress& /*address*/) override { return {}; }
    NVX509::KeyCertificatePair findSigningKey(const EmailAddress& /*address*/) override { return m_none; }
    NVX509::KeyCertificatePair findDecryptionKey(const EmailAddress& /*address*/) override { return m_none; }

private:
    NVX509::KeyCertificatePair m_pair;
    NVX509::KeyCertificatePair m_none{true};
};

/// Drops records: each recipient without a key makes one.
class Silence : public LogSink {
public:
    void record(const LogRecord& /*record*/) override {}
};

template <class Object, class Encode> Bytes derOf(Object* object, Encode encode) {
    unsigned char* der = nullptr;
    const int length = encode(object, &der);
    require(length > 0, "encoding failed");
    Bytes bytes(der, der + length);
    OPENSSL_free(der);
    return bytes;
}

/// The structure with its content, as OpenSSL streams it.
Bytes encoded(CMS_ContentInfo* structure, std::size_t size, unsigned int flags) {
    const BioPtr content(BIO_new_mem_buf(body(size).data(), static_cast<int>(size)));
    const BioPtr out(BIO_new(BIO_s_mem()));
    if ((flags & CMS_STREAM) != 0) {
        require(i2d_CMS_bio_stream(out.get(), structure, content.get(), static_cast<int>(flags)) == 1, "no stream");
    } else {
        require(CMS_final(structure, content.get(), nullptr, flags) == 1 && i2d_CMS_bio(out.get(), structure) == 1,
                "no structure");
    }
    char* bytes = nullptr;
    const long length = BIO_get_mem_data(out.get(), &bytes);
    return {bytes, bytes + length};
}

} // namespace

Material::Material(const std::string& in) : folder(in) {
    const BioPtr certificateFile(BIO_new_file((folder + "/certificate.pem").c_str(), "r"));
    certificate.reset(PEM_read_bio_X509(certificateFile.get(), nullptr, nullptr, nullptr));
    const BioPtr keyFile(BIO_new_file((folder + "/key.pem").c_str(), "r"));
    key.reset(PEM_read_bio_PrivateKey(keyFile.get(), nullptr, nullptr, nullptr));
    require(certificate != nullptr && key != nullptr, "no certificate.pem and key.pem in the folder");
    certificateDer = derOf(certificate.get(), i2d_X509);
    const std::unique_ptr<PKCS8_PRIV_KEY_INFO, With<PKCS8_PRIV_KEY_INFO_free>> pkcs8(EVP_PKEY2PKCS8(key.get()));
    keyDer = derOf(pkcs8.get(), i2d_PKCS8_PRIV_KEY_INFO);

    EVP_PKEY_up_ref(key.get());
    const auto held = NVX509::CertificateFactory().readDER(
        Buffer(certificateDer.data(), static_cast<unsigned int>(certificateDer.size()), true));
    m_pair = std::make_unique<NVX509::KeyCertificatePair>(RefKey(new PrivateKey(key.get())), held);
    m_store = std::make_unique<NVX509::RefKeyStore>(true);
    (*m_store)->add(NVX509::RefKeyStorePlugin(new OnePair(*m_pair)));

    Logger::instance(false).sink(std::make_shared<Silence>());
}

Bytes Material::signedMessage(std::size_t size, bool detached, bool streamed, std::size_t signers,
                              std::size_t certificates) const {
    const unsigned int flags = CMS_BINARY | CMS_PARTIAL | (detached ? CMS_DETACHED : 0U) | (streamed ? CMS_STREAM : 0U);
    const CmsPtr structure(CMS_sign(nullptr, nullptr, nullptr, nullptr, flags));
    for (std::size_t i = 0; i != signers; ++i) {
        require(CMS_add1_signer(structure.get(), certificate.get(), key.get(), EVP_sha256(), flags | CMS_NOCERTS) !=
                    nullptr,
                "no signer");
    }
    // As many as a chain has, or a careless program adds; OpenSSL refuses one twice.
    require(certificates == 0 || CMS_add1_cert(structure.get(), certificate.get()) == 1, "no certificate");
    for (std::size_t i = 1; i < certificates; ++i) {
        const auto link = norvauthority::issue({.subject = {{"CN", "Link " + std::to_string(i)}},
                                                .key = norvauthority::Key::of(key.get()),
                                                .serial = std::to_string(1000 + i)});
        require(CMS_add1_cert(structure.get(), link.certificate.x509().get()) == 1, "no certificate");
    }
    return encoded(structure.get(), size, flags & ~CMS_PARTIAL);
}

Bytes Material::envelopedMessage(std::size_t size, bool streamed, std::size_t recipients, bool authenticated) const {
    const unsigned int flags = CMS_BINARY | CMS_PARTIAL | (streamed ? CMS_STREAM : 0U);
    const EVP_CIPHER* cipher = authenticated ? EVP_aes_256_gcm() : EVP_aes_256_cbc();
    const CmsPtr structure(CMS_encrypt(nullptr, nullptr, cipher, flags));
    static const X509Ptr other(
        norvauthority::issue({.subject = {{"CN", "Other"}}, .key = norvauthority::Key::rsa(3072)})
            .certificate.x509()
            .release());
    for (std::size_t i = 1; i < recipients; ++i) { // whose key nobody has
        require(CMS_add1_recipient_cert(structure.get(), other.get(), 0) != nullptr, "no recipient");
    }
    require(CMS_add1_recipient_cert(structure.get(), certificate.get(), 0) != nullptr, "no recipient");
    return encoded(structure.get(), size, flags & ~CMS_PARTIAL);
}

Bytes Material::revocationList(std::size_t entries) {
    const auto authority = norvauthority::issue({.subject = {{"CN", "Lists"}}, .ca = true});
    return norvauthority::issueList({.issuer = &authority, .numbered = entries, .crlNumber = "1"}).der;
}

} // namespace bench
