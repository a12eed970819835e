// Writes small valid inputs for each fuzz target: make_corpus FOLDER.
#include "EnvelopeKey.h"

#include <authority/Authority.h>

#include <openssl/bio.h>
#include <openssl/cms.h>
#include <openssl/pkcs12.h>
#include <openssl/pkcs7.h>
#include <openssl/ssl.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>

using namespace norvauthority;

namespace {

std::filesystem::path corpus;

std::string text(const Bytes& bytes) {
    return {bytes.begin(), bytes.end()};
}

void put(const std::string& target, const std::string& name, const std::string& content) {
    std::filesystem::create_directories(corpus / target);
    std::ofstream(corpus / target / name, std::ios::binary) << content;
}

std::string signedData(const Identity& signer, int flags) {
    const std::string body = "body";
    BIO* source = BIO_new_mem_buf(body.data(), static_cast<int>(body.size()));
    const X509Ptr certificate = signer.certificate.x509();
    const Pkcs7Ptr structure(PKCS7_sign(certificate.get(), signer.key.get(), nullptr, source, flags));
    BIO_free(source);
    unsigned char* der = nullptr;
    const int length = i2d_PKCS7(structure.get(), &der);
    std::string result(reinterpret_cast<const char*>(der), static_cast<std::size_t>(length));
    OPENSSL_free(der);
    return result;
}

/// A body of 40 bytes encrypted for some recipients; with CMS_STREAM in pieces of indefinite length.
std::string envelopedData(STACK_OF(X509) * recipients, const EVP_CIPHER* cipher, unsigned int flags) {
    const std::string body(40, 'b');
    BIO* source = BIO_new_mem_buf(body.data(), static_cast<int>(body.size()));
    BIO* out = BIO_new(BIO_s_mem());
    CMS_ContentInfo* structure = CMS_encrypt(recipients, source, cipher, flags | CMS_BINARY);
    if ((flags & CMS_STREAM) != 0) {
        i2d_CMS_bio_stream(out, structure, source, static_cast<int>(flags | CMS_BINARY));
    } else {
        i2d_CMS_bio(out, structure);
    }
    char* data = nullptr;
    const long length = BIO_get_mem_data(out, &data);
    std::string result(data, static_cast<std::size_t>(length));
    CMS_ContentInfo_free(structure);
    BIO_free(out);
    BIO_free(source);
    return result;
}

void envelopes() {
    const X509Ptr certificate = fuzz::envelopeIdentity().certificate.x509();
    STACK_OF(X509)* recipients = sk_X509_new_null();
    put("fuzz_decrypt", "nobody.der", envelopedData(recipients, EVP_aes_128_cbc(), 0));
    sk_X509_push(recipients, certificate.get());
    put("fuzz_decrypt", "aes.der", envelopedData(recipients, EVP_aes_256_cbc(), 0));
    put("fuzz_decrypt", "des3.der", envelopedData(recipients, EVP_des_ede3_cbc(), 0));
    put("fuzz_decrypt", "stream.der", envelopedData(recipients, EVP_aes_128_cbc(), CMS_STREAM));
    put("fuzz_decrypt", "authenticated.der", envelopedData(recipients, EVP_aes_128_gcm(), 0));
    sk_X509_push(recipients, certificate.get());
    put("fuzz_decrypt", "two.der", envelopedData(recipients, EVP_aes_128_cbc(), 0));
    sk_X509_free(recipients);
}

void certificatesAndLists(const Identity& ca, const Identity& alice) {
    put("fuzz_certificate", "ca.der", text(ca.certificate.der));
    put("fuzz_certificate", "alice.der", text(alice.certificate.der));
    put("fuzz_certificate", "alice.pem", alice.certificate.pem() + ca.certificate.pem());
    const Crl list =
        issueList({.issuer = &ca,
                   .revoked = {{.serial = "7"}},
                   .crlNumber = "1",
                   .deltaBase = "1",
                   .scope = IssuingDistributionPoint{
                       .name = DistributionPointName{.full = {GeneralName::uri("http://example.org/a.crl")}},
                       .onlyUser = true,
                       .reasons = Bytes{0x60},
                   }});
    put("fuzz_crl", "list.der", text(list.der));
    put("fuzz_crl", "list.pem", list.pem());
}

void keys(const Key& key) {
    put("fuzz_key", "private.der", '\0' + text(key.pkcs8()));
    put("fuzz_key", "traditional.der", '\0' + text(key.traditionalDer()));
    put("fuzz_key", "public.der", '\1' + text(key.publicDer()));
    put("fuzz_key", "private.pem", '\2' + key.encryptedPem("passphrase"));
    put("fuzz_key", "public.pem", '\3' + key.publicPem());
}

/// Behind a byte that chooses whether the target makes a MAC that fits. Few iterations, so that tries are quick.
void pkcs12(const Identity& holder) {
    const X509Ptr certificate = holder.certificate.x509();
    for (const int cipher : {-1, NID_pbe_WithSHA1And3_Key_TripleDES_CBC, NID_aes_256_cbc}) {
        PKCS12* structure =
            PKCS12_create("secret", "name", holder.key.get(), certificate.get(), nullptr, cipher, cipher, 1, 1, 0);
        unsigned char* der = nullptr;
        const int length = i2d_PKCS12(structure, &der);
        const std::string content(reinterpret_cast<const char*>(der), static_cast<std::size_t>(length));
        OPENSSL_free(der);
        PKCS12_free(structure);
        put("fuzz_pkcs12", "as-it-is-" + std::to_string(cipher), '\0' + content);
        put("fuzz_pkcs12", "mac-made-" + std::to_string(cipher), '\1' + content);
    }
}

void texts() {
    put("fuzz_name", "plain", "cn = Alice , o=Org,C=US");
    put("fuzz_name", "quoted", "CN=\"Smith, J\",O=X");
    put("fuzz_text", "address", "\"a b\"@[IPv6:::1]");
    put("fuzz_text", "pattern", "*@example.???alice@example.org");
    put("fuzz_text", "uri", "https://user@example.org:8443/a?b#c");
    put("fuzz_text", "base64", "aGVsbG8gd29ybGQ=");
}

/// What a TLS client says first.
std::string clientHello(int version) {
    SSL_CTX* context = SSL_CTX_new(TLS_client_method());
    SSL_CTX_set_max_proto_version(context, version);
    SSL* ssl = SSL_new(context);
    BIO* said = BIO_new(BIO_s_mem());
    SSL_set_bio(ssl, BIO_new(BIO_s_mem()), said);
    SSL_connect(ssl); // wants to read the answer
    char* bytes = nullptr;
    const long length = BIO_get_mem_data(said, &bytes);
    const std::string result(bytes, static_cast<std::size_t>(length));
    SSL_free(ssl);
    SSL_CTX_free(context);
    return result;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "make_corpus FOLDER\n";
        return 2;
    }
    corpus = argv[1];
    const Key key = Key::ec();
    const Identity ca = issue({.subject = {{"C", "US"}, {"CN", "Root"}}, .key = key, .ca = true, .keyUsage = 0x06U});
    const Identity alice =
        issue({.subject = {{"C", "US"}, {"O", "Org"}, {"CN", "Alice"}},
               .key = key,
               .issuer = &ca,
               .serial = "1234",
               .alternativeNames = {GeneralName::email("alice@example.org"), GeneralName::dns("example.org"),
                                    GeneralName::ip("192.0.2.1"), GeneralName::uri("http://example.org/"),
                                    GeneralName::directory(Name{{"CN", "Alice"}})},
               .ocsp = {"http://ocsp.example.org/"},
               .caIssuers = {"http://example.org/ca.cer"}});
    certificatesAndLists(ca, alice);
    keys(key);
    pkcs12(alice);
    put("fuzz_crosspair", "both.der", text(crossPair(&alice.certificate, &ca.certificate)));
    put("fuzz_crosspair", "forward.der", text(crossPair(&alice.certificate, nullptr)));
    texts();
    envelopes();
    put("fuzz_cms", "detached.der", signedData(alice, PKCS7_BINARY | PKCS7_DETACHED));
    put("fuzz_cms", "attached.der", signedData(alice, PKCS7_BINARY));
    put("fuzz_cms", "plain.der", signedData(alice, PKCS7_BINARY | PKCS7_DETACHED | PKCS7_NOATTR));
    put("fuzz_cms", "data.der",
        text(contentInfo({0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x01, 0x07, 0x01}, Bytes{4, 1, 65})));
    put("fuzz_tls", "tls13", clientHello(TLS1_3_VERSION));
    put("fuzz_tls", "tls12", clientHello(TLS1_2_VERSION));
    put("fuzz_tls", "http", "GET / HTTP/1.1\r\n\r\n");
    return EXIT_SUCCESS;
}
