#include "Support.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>

#include <stdexcept>

namespace norvauthority {

void fail(const std::string& what) {
    const unsigned long code = ERR_get_error();
    ERR_clear_error();
    char text[256] = "";
    ERR_error_string_n(code, text, sizeof text);
    throw std::runtime_error("authority: " + what + ": " + text);
}

namespace {

using BioPtr = std::unique_ptr<BIO, decltype(&BIO_free)>;
using ContextPtr = std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)>;

BioPtr memory() {
    return {require(BIO_new(BIO_s_mem()), "memory"), BIO_free};
}

std::string textOf(const BioPtr& bio) {
    char* start = nullptr;
    const long length = BIO_get_mem_data(bio.get(), &start);
    return {start, static_cast<std::size_t>(length)};
}

template <class Encode> Bytes encoded(Encode encode, EVP_PKEY* key) {
    unsigned char* start = nullptr;
    const int length = encode(key, &start);
    if (length < 0)
        fail("encoding a key");
    Bytes der(start, start + length);
    OPENSSL_free(start);
    return der;
}

EVP_PKEY* dsaParameters() {
    static const std::unique_ptr<EVP_PKEY, Freeing> parameters = [] {
        const ContextPtr context(require(EVP_PKEY_CTX_new_from_name(nullptr, "DSA", nullptr), "DSA"),
                                 EVP_PKEY_CTX_free);
        EVP_PKEY* made = nullptr;
        if (EVP_PKEY_paramgen_init(context.get()) <= 0 ||
            EVP_PKEY_CTX_set_dsa_paramgen_bits(context.get(), 1024) <= 0 ||
            EVP_PKEY_paramgen(context.get(), &made) <= 0)
            fail("DSA parameters");
        return std::unique_ptr<EVP_PKEY, Freeing>(made);
    }();
    return parameters.get();
}

} // namespace

std::string pem(const std::string& label, const Bytes& der) {
    const BioPtr bio = memory();
    if (PEM_write_bio(bio.get(), label.c_str(), "", der.data(), static_cast<long>(der.size())) <= 0)
        fail("PEM");
    return textOf(bio);
}

Key Key::rsa(unsigned int bits) {
    return Key(require(EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", static_cast<std::size_t>(bits)), "RSA key"));
}

Key Key::dsa() {
    const ContextPtr context(require(EVP_PKEY_CTX_new(dsaParameters(), nullptr), "DSA"), EVP_PKEY_CTX_free);
    EVP_PKEY* made = nullptr;
    if (EVP_PKEY_keygen_init(context.get()) <= 0 || EVP_PKEY_keygen(context.get(), &made) <= 0)
        fail("DSA key");
    return Key(made);
}

Key Key::ec(const std::string& curve) {
    return Key(require(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", curve.c_str()), "EC key"));
}

Key Key::ed25519() {
    return Key(require(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"), "Ed25519 key"));
}

Key Key::of(EVP_PKEY* key) {
    if (EVP_PKEY_up_ref(require(key, "no key")) != 1)
        fail("sharing a key");
    return Key(key);
}

Key Key::fromPem(const std::string& text) {
    const BioPtr bio(require(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())), "memory"), BIO_free);
    pem_password_cb* refuse = [](char*, int, int, void*) { return -1; };
    return Key(require(PEM_read_bio_PrivateKey(bio.get(), nullptr, refuse, nullptr), "reading a key"));
}

Key Key::fromDer(const Bytes& der) {
    const unsigned char* at = der.data();
    return Key(require(d2i_AutoPrivateKey(nullptr, &at, static_cast<long>(der.size())), "reading a key"));
}

EVP_PKEY* Key::newReference() const {
    if (EVP_PKEY_up_ref(require(get(), "no key")) != 1)
        fail("sharing a key");
    return get();
}

Bytes Key::publicDer() const {
    return encoded([](EVP_PKEY* key, unsigned char** out) { return i2d_PUBKEY(key, out); }, get());
}

Bytes Key::pkcs8() const {
    const std::unique_ptr<PKCS8_PRIV_KEY_INFO, decltype(&PKCS8_PRIV_KEY_INFO_free)> info(
        require(EVP_PKEY2PKCS8(get()), "PKCS#8"), PKCS8_PRIV_KEY_INFO_free);
    unsigned char* start = nullptr;
    const int length = i2d_PKCS8_PRIV_KEY_INFO(info.get(), &start);
    if (length < 0)
        fail("PKCS#8");
    Bytes der(start, start + length);
    OPENSSL_clear_free(start, static_cast<std::size_t>(length));
    return der;
}

Bytes Key::traditionalDer() const {
    return encoded([](EVP_PKEY* key, unsigned char** out) { return i2d_PrivateKey(key, out); }, get());
}

std::string Key::publicPem() const {
    return pem("PUBLIC KEY", publicDer());
}

std::string Key::pkcs8Pem() const {
    return pem("PRIVATE KEY", pkcs8());
}

std::string Key::encryptedPem(const std::string& passphrase) const {
    const BioPtr bio = memory();
    if (PEM_write_bio_PKCS8PrivateKey(bio.get(), get(), EVP_aes_256_cbc(), passphrase.data(),
                                      static_cast<int>(passphrase.size()), nullptr, nullptr) != 1)
        fail("writing a key");
    return textOf(bio);
}

Bytes Key::identifier() const {
    X509_PUBKEY* info = nullptr;
    if (X509_PUBKEY_set(&info, get()) != 1)
        fail("public key");
    const std::unique_ptr<X509_PUBKEY, decltype(&X509_PUBKEY_free)> owned(info, X509_PUBKEY_free);
    const unsigned char* bits = nullptr;
    int length = 0;
    if (X509_PUBKEY_get0_param(nullptr, &bits, &length, nullptr, info) != 1)
        fail("public key");
    return digest("SHA1", Bytes(bits, bits + length));
}

Bytes digest(const std::string& name, const Bytes& content) {
    Bytes value(EVP_MAX_MD_SIZE);
    std::size_t length = 0;
    if (EVP_Q_digest(nullptr, name.c_str(), nullptr, content.data(), content.size(), value.data(), &length) != 1)
        fail("digest " + name);
    value.resize(length);
    return value;
}

Bytes signatureAlgorithm(const Key& key, const std::string& digestName) {
    if (EVP_PKEY_is_a(key.get(), "ED25519") == 1)
        return der::sequence({der::oid("1.3.101.112")});
    const EVP_MD* digest = require(EVP_get_digestbyname(digestName.c_str()), "digest");
    int algorithm = 0;
    if (OBJ_find_sigid_by_algs(&algorithm, EVP_MD_get_type(digest), EVP_PKEY_get_base_id(key.get())) != 1)
        fail("no signature algorithm for " + digestName);
    const Bytes oid = der::oid(OBJ_nid2sn(algorithm));
    // RFC 3279 and 4055: RSA algorithms carry NULL parameters, DSA and EC ones none.
    return EVP_PKEY_is_a(key.get(), "RSA") == 1 ? der::sequence({oid, der::null()}) : der::sequence({oid});
}

Bytes signedStructure(const Bytes& toBeSigned, const Key& key, const std::string& digestName) {
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    const char* name = EVP_PKEY_is_a(key.get(), "ED25519") == 1 ? nullptr : digestName.c_str();
    if (EVP_DigestSignInit_ex(context.get(), nullptr, name, nullptr, nullptr, key.get(), nullptr) != 1)
        fail("signing");
    std::size_t length = 0;
    if (EVP_DigestSign(context.get(), nullptr, &length, toBeSigned.data(), toBeSigned.size()) != 1)
        fail("signing");
    Bytes signature(length);
    if (EVP_DigestSign(context.get(), signature.data(), &length, toBeSigned.data(), toBeSigned.size()) != 1)
        fail("signing");
    signature.resize(length);
    return der::sequence({toBeSigned, signatureAlgorithm(key, digestName), der::bitString(signature)});
}

} // namespace norvauthority
