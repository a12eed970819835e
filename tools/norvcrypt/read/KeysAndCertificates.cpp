#include "read/KeysAndCertificates.h"
#include "base/Failure.h"
#include "openssl/OpenSsl.h"
#include "recognise/DerAndPem.h"

#include <norvcrypto/Crypto.h>

#include <algorithm>
#include <cstring>
#include <openssl/crypto.h>
#include <openssl/pem.h>
#include <string_view>
#include <vector>

namespace norvcrypt {

namespace NVX509 = Norvane::Crypto::NVX509;
using Norvane::Crypto::Key;
using Norvane::Crypto::RefKey;

namespace {

constexpr unsigned int longestPassphrase = 1023; // OpenSSL would cut a longer one without a word

/// Answers OpenSSL's question for the passphrase, so that none ever reaches a terminal. An empty one counts too.
int answerPassphrase(char* buffer, int size, int, void* data) {
    const auto& passphrase = *static_cast<const Passphrase*>(data);
    const auto length = static_cast<int>(passphrase.text().size());
    if (!passphrase.given() || length > size)
        return -1;
    std::memcpy(buffer, passphrase.text().data(), passphrase.text().size());
    return length;
}

/// Encrypted PEM says in its text how it is encrypted, encrypted DER in itself.
bool isText(const Norvane::Buffer& content) {
    const std::string_view text(reinterpret_cast<const char*>(content.data()), content.length());
    return text.find("-----BEGIN ") != std::string_view::npos;
}

RefKey decryptedKey(const Norvane::Buffer& content, const Passphrase& passphrase, const std::string& name) {
    const BioPtr bio(BIO_new_mem_buf(content.data(), static_cast<int>(content.length())));
    void* data = const_cast<Passphrase*>(&passphrase);
    KeyPtr key(!isText(content) ? d2i_PKCS8PrivateKey_bio(bio.get(), nullptr, answerPassphrase, data)
                                : PEM_read_bio_PrivateKey(bio.get(), nullptr, answerPassphrase, data));
    if (!key)
        throw Failure("cannot read the private key in " + name +
                      ", the passphrase may be wrong: " + Norvane::Crypto::getErrString());
    return RefKey(new Norvane::Crypto::PrivateKey(key.release()));
}

} // namespace

Passphrase::Passphrase(Inputs& inputs, const std::string& path) : m_given(true) {
    const Norvane::Buffer content = inputs.readAll(path, true);
    const unsigned char* const start = content.data();
    const unsigned char* end = std::find(start, start + content.length(), '\n');
    if (end != start && end != start + content.length() && end[-1] == '\r')
        --end;
    if (end - start > longestPassphrase)
        throw Failure("the passphrase in " + inputName(path) + " is longer than " + std::to_string(longestPassphrase) +
                      " bytes");
    if (std::find(start, end, '\0') != end)
        throw Failure("the passphrase in " + inputName(path) + " holds a NUL byte");
    // One allocation, so that no copy stays behind.
    m_text.reserve(longestPassphrase);
    m_text.assign(start, end);
}

Passphrase::~Passphrase() {
    OPENSSL_cleanse(m_text.data(), m_text.capacity());
}

std::list<NVX509::RefCertificate> readCertificates(Inputs& inputs, const std::string& path) {
    const NVX509::CertificateFactory factory;
    std::list<NVX509::RefCertificate> certificates;
    for (const FoundObject& object : objectsIn(inputs.readAll(path, true))) {
        if (!object.problem.empty())
            throw Failure(inputName(path) + ": " + object.problem);
        if (object.kind != ObjectKind::certificate)
            continue;
        const NVX509::RefCertificate certificate = factory.readDER(object.der);
        if (certificate.isNull())
            throw Failure(inputName(path) + ": malformed certificate");
        certificates.push_back(certificate);
    }
    if (certificates.empty())
        throw Failure("no certificate in " + inputName(path));
    return certificates;
}

RefKey readPrivateKey(Inputs& inputs, const std::string& path, const Passphrase& passphrase) {
    const Norvane::Buffer content = inputs.readAll(path, true);
    const std::string name = inputName(path);
    const std::vector<FoundObject> objects = objectsIn(content);
    const auto object = std::find_if(objects.begin(), objects.end(), [](const FoundObject& candidate) {
        return candidate.kind == ObjectKind::privateKey || candidate.kind == ObjectKind::encryptedKey;
    });
    if (object == objects.end())
        throw Failure("no private key in " + name +
                      (objects.front().problem.empty() ? "" : ": " + objects.front().problem));
    if (object->kind == ObjectKind::encryptedKey && !passphrase.given())
        throw Failure("the private key in " + name + " is encrypted: give its passphrase with --passphrase-file");
    if (object->kind == ObjectKind::encryptedKey)
        return decryptedKey(content, passphrase, name);
    try {
        RefKey key(Key::PRIVATE_KEY);
        key->read(object->der, false);
        return key;
    } catch (const Norvane::Exception& failure) {
        throw Failure("cannot read the private key in " + name, failure);
    }
}

void writePrivateKey(const RefKey& key, const Passphrase& passphrase, OutputFile& out) {
    const BioPtr pem(BIO_new(BIO_s_mem()));
    const EVP_CIPHER* const cipher = passphrase.given() ? EVP_aes_256_cbc() : nullptr;
    if (!pem || PEM_write_bio_PKCS8PrivateKey(pem.get(), key, cipher, passphrase.text().data(),
                                              static_cast<int>(passphrase.text().size()), nullptr, nullptr) != 1)
        throw Failure("cannot encode the private key: " + Norvane::Crypto::getErrString());
    // OpenSSL wipes its buffer when it goes.
    char* text = nullptr;
    const long length = BIO_get_mem_data(pem.get(), &text);
    out.write(text, static_cast<std::size_t>(length));
}

} // namespace norvcrypt
