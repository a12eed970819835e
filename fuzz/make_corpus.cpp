// Writes small valid inputs for each fuzz target: make_corpus FOLDER.
#include "EnvelopeKey.h"
#include "Seeds.h"
#include "differential/Messages.h"

#include <authority/Authority.h>

#include <openssl/bio.h>
#include <openssl/cms.h>
#include <openssl/pkcs12.h>
#include <openssl/pkcs7.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>

using namespace norvauthority;

namespace {

using fuzz::put;

std::filesystem::path corpus;

std::string text(const Bytes& bytes) {
    return {bytes.begin(), bytes.end()};
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

void envelope(const std::string& name, const std::string& structure) {
    put("fuzz_decrypt", name, structure);
    put("fuzz_outline", name, structure);
    put("fuzz_show", name, structure);
}

/// \param agreeing has a key on a curve, which structures of PKCS#7 know nothing of
void envelopes(const Identity& agreeing) {
    const X509Ptr certificate = fuzz::envelopeIdentity().certificate.x509();
    STACK_OF(X509)* recipients = sk_X509_new_null();
    envelope("nobody.der", envelopedData(recipients, EVP_aes_128_cbc(), 0));
    sk_X509_push(recipients, certificate.get());
    envelope("aes.der", envelopedData(recipients, EVP_aes_256_cbc(), 0));
    envelope("des3.der", envelopedData(recipients, EVP_des_ede3_cbc(), 0));
    envelope("stream.der", envelopedData(recipients, EVP_aes_128_cbc(), CMS_STREAM));
    envelope("authenticated.der", envelopedData(recipients, EVP_aes_128_gcm(), 0));
    sk_X509_push(recipients, certificate.get());
    envelope("two.der", envelopedData(recipients, EVP_aes_128_cbc(), 0));
    put("fuzz_outline", "identifiers.der", envelopedData(recipients, EVP_aes_128_cbc(), CMS_USE_KEYID));
    const X509Ptr onCurve = agreeing.certificate.x509();
    sk_X509_push(recipients, onCurve.get());
    put("fuzz_outline", "agreement.der", envelopedData(recipients, EVP_aes_128_cbc(), 0));
    put("fuzz_outline", "stream.der", envelopedData(recipients, EVP_aes_128_cbc(), CMS_STREAM));
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
    put("fuzz_show", "list", text(list.der));
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

std::string twoBytes(std::size_t length) {
    return {static_cast<char>(length >> 8U), static_cast<char>(length & 0xFFU)};
}

/// What is read of strangers without a key: files, frames, what is refused, names as they are shown.
void withoutKeys(const Identity& ca, const Identity& alice) {
    const Bytes unknown = der::sequence({der::oid("1.2.840.113549.1.7.3"), der::sequence({der::integer("0")})});
    for (const char* target : {"fuzz_framing", "fuzz_refusal", "fuzz_files", "fuzz_show"}) {
        put(target, "certificate", text(alice.certificate.der));
        put(target, "public", text(alice.key.publicDer()));
        put(target, "pair", text(crossPair(&alice.certificate, &ca.certificate)));
        put(target, "unknown", text(unknown));
    }
    put("fuzz_framing", "indefinite", std::string("\x30\x80\x24\x80\x04\x01\x61\0\0\x1f\x81\x00\x00\0\0", 15));
    put("fuzz_refusal", "pem", alice.certificate.pem() + alice.key.publicPem());
    DistributionPoint relative;
    relative.name.emplace();
    relative.name->relative = Name{{"CN", "list"}};
    put("fuzz_refusal", "relative",
        text(issue({.subject = {{"CN", "CA"}}, .key = alice.key, .crlDistributionPoints = {3, relative}})
                 .certificate.der));
    put("fuzz_files", "pem", "text\n" + alice.certificate.pem() + alice.key.pkcs8Pem() + ca.certificate.pem());
    put("fuzz_files", "private", text(alice.key.pkcs8()));
    put("fuzz_files", "traditional", text(alice.key.traditionalDer()));
    put("fuzz_files", "encrypted", alice.key.encryptedPem("secret"));
    put("fuzz_files", "blanks", text(alice.certificate.der) + " \r\n\t " + text(ca.certificate.der) + "\n");
    put("fuzz_display", "name", text(Name{{"CN", "a,b \\ \"+\""}, {"O", " #x "}, {"C", "US"}}.der()));
    put("fuzz_display", "text", "a\\b\n\xE2\x80\xAE");
    const auto points = [](const std::vector<GeneralName>& names) {
        const Bytes encoded = distributionPoints({{.name = DistributionPointName{.full = names}}});
        return twoBytes(encoded.size()) + text(encoded);
    };
    put("fuzz_points", "alike",
        points({GeneralName::uri("a"), GeneralName::directory({{"CN", "x"}})}) +
            points({GeneralName::dns("a"), GeneralName::directory({{"CN", "X"}})}));
    put("fuzz_points", "apart", points({GeneralName::ip("192.0.2.1")}) + points({GeneralName::email("a@b")}));
    const Bytes shorter = distributionPoints({relative});
    put("fuzz_points", "relative", twoBytes(shorter.size()) + text(shorter) + twoBytes(shorter.size()) + text(shorter));
}

void unattended(const Key& key) {
    put("fuzz_unattended", "private.der", '\0' + text(key.pkcs8()));
    put("fuzz_unattended", "private.pem", '\0' + key.pkcs8Pem());
    put("fuzz_unattended", "rsa.der", '\0' + text(fuzz::envelopeIdentity().key.traditionalDer()));
    put("fuzz_unattended", "dsa.der", '\0' + text(Key::dsa().pkcs8()));
    put("fuzz_unattended", "encrypted.pem", '\1' + key.encryptedPem("secret"));
    PKCS8_PRIV_KEY_INFO* info = EVP_PKEY2PKCS8(key.get());
    X509_SIG* sealed = PKCS8_encrypt(-1, EVP_aes_256_cbc(), "secret", 6, nullptr, 0, 1, info);
    unsigned char* der = nullptr;
    const int length = i2d_X509_SIG(sealed, &der);
    put("fuzz_unattended", "encrypted.der",
        '\1' + std::string(reinterpret_cast<const char*>(der), static_cast<std::size_t>(length)));
    OPENSSL_free(der);
    X509_SIG_free(sealed);
    PKCS8_PRIV_KEY_INFO_free(info);
}

void signatures(const Identity& signer) {
    for (const char* target : {"fuzz_cms", "fuzz_verify", "fuzz_files", "fuzz_show"}) {
        put(target, "detached.der", signedData(signer, PKCS7_BINARY | PKCS7_DETACHED));
        put(target, "attached.der", signedData(signer, PKCS7_BINARY));
        put(target, "plain.der", signedData(signer, PKCS7_BINARY | PKCS7_DETACHED | PKCS7_NOATTR));
        put(target, "data.der",
            text(contentInfo({0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x01, 0x07, 0x01}, Bytes{4, 1, 65})));
    }
    put("fuzz_verify", "attributes", text(der::set({der::sequence({der::oid("1.2.3"), der::set({der::null()})})})));
}

void texts() {
    put("fuzz_name", "plain", "cn = Alice , o=Org,C=US");
    put("fuzz_name", "quoted", "CN=\"Smith, J\",O=X");
    put("fuzz_text", "address", "\"a b\"@[IPv6:::1]");
    put("fuzz_text", "pattern", "*@example.???alice@example.org");
    put("fuzz_text", "uri", "https://user@example.org:8443/a?b#c");
    put("fuzz_text", "base64", "aGVsbG8gd29ybGQ=");
}

/// What an MTA tells the mail filter of a message, see fuzz_milter.cpp: a byte for the connection, one for what it is, and
/// texts that end with 0xFE.
std::string told(const std::string& fields, const std::string& body, bool isOutgoing) {
    const auto step = [](char kind, const std::string& rest) { return std::string(1, '\0') + kind + rest; };
    const std::string end = "\xFE";
    std::string steps = step(0, "\1\1") + step(1, std::string(2, '\0') + "client.example" + end + "\1");
    if (isOutgoing)
        steps += step(3, std::string(1, '\0'));
    steps += step(4, "<bob@b.example>" + end + std::string("\1\0", 2)) + step(4, "<bob@b.example>" + end + "\1\1");
    for (std::size_t begin = 0; begin < fields.size();) {
        const std::size_t colon = fields.find(':', begin);
        const std::size_t next = fields.find("\r\n", begin);
        steps += step(6, fields.substr(begin, colon - begin) + end + fields.substr(colon + 1, next - colon - 1) + end);
        begin = next + 2;
    }
    return steps + step(9, body + end + "\1") + step(11, "\1");
}

/// The seeds of the readers of CMS as messages, and one in parts.
void mails() {
    const auto mail = [](const std::string& name, const fuzz::Bytes& structure) {
        const Norvane::Buffer octets(structure.data(), static_cast<unsigned int>(structure.size()), true);
        const std::string fields = "From: alice@example.org\r\nContent-Type: application/pkcs7-mime; name=smime.p7m\r\n"
                                   "Content-Transfer-Encoding: base64\r\n";
        const std::string body = octets.toBase64String() + "\r\n";
        put("fuzz_smime", name, fields + "\r\n" + body);
        put("fuzz_milter", name, told(fields, body, false));
    };
    for (const fuzz::Seed& seed : fuzz::envelopeSeeds())
        mail(seed.first, seed.second);
    for (const fuzz::Seed& seed : fuzz::signedSeeds())
        mail(seed.first, seed.second);
    put("fuzz_smime", "parts",
        "From: alice@example.org\r\nContent-Type: multipart/signed; protocol=\"application/pkcs7-signature\"; "
        "micalg=sha-256; boundary=b\r\n\r\n--b\r\nContent-Type: message/rfc822; forwarded=no\r\n\r\n"
        "From: alice@example.org\r\nHP-Outer: Subject: [...]\r\nContent-Type: text/plain; hp=\"cipher\"\r\n\r\n"
        "hello\r\n--b\r\nContent-Type: application/pkcs7-signature\r\n\r\n\r\n--b--\r\n");
    const std::string fields =
        "From: bob@b.example\r\nTo: bob@b.example\r\nAuthentication-Results: mx.a.example; smime=pass\r\n";
    put("fuzz_milter", "incoming", told(fields, "hello\r\n", false));
    put("fuzz_milter", "outgoing", told(fields, "hello\r\n", true));
}

/// Mails to be signed and encrypted, behind the byte that chooses what is done.
void unsignedMails() {
    const std::string fields = "From: Alice <alice@example.org>\r\nTo: bob@example.org, \"C, D\" <c@example.org>\r\n"
                               "Cc: friends: e@example.org;\r\nSubject: =?utf-8?q?caf=C3=A9?=\r\n";
    const std::string parts =
        "Content-Type: multipart/mixed; boundary=\"b\"\r\n\r\npreamble\r\n--b\r\n\r\none\r\n--b\r\n"
        "Content-Type: application/pdf; name=\"caf\xC3\xA9.pdf\"\r\nContent-Transfer-Encoding: base64"
        "\r\n\r\nMTIzNDU2Nzg5\r\n--b\r\nContent-Type: message/rfc822\r\n\r\nFrom: x@y.z\r\n\r\n"
        "From the start\r\n.\r\nblanks \r\n--b--\r\nepilogue\r\n";
    const std::string quoted = "Content-Type: text/plain; charset=utf-8\r\nContent-Transfer-Encoding: quoted-printable"
                               "\r\n\r\ncaf=C3=A9 =\r\nsoft\r\n";
    const std::string eightBit = "Content-Type: text/html; charset=utf-8\r\n\r\n<p>caf\xC3\xA9\r\nlone\rreturn\r\n";
    const std::string digest = "Content-Type: multipart/digest; boundary=d\n\n--d\n\nSubject: inner\n\ntext\n--d--\n";
    const std::string noParts = "Content-Type: multipart/mixed; boundary=b\n\npreamble\n--b--\n--b\n\nhidden\n--b--\n";
    const std::string bytes = "Content-Type: image/png\r\nContent-Transfer-Encoding: binary\r\n\r\n" +
                              std::string("\x89PNG\r\n\x1A\n\0\xFF", 10);
    char choice = 0;
    for (const std::string& entity : {parts, quoted, eightBit, digest, bytes, std::string("\r\nplain\r\n"), noParts}) {
        for (int turn = 0; turn < 4; ++turn) {
            put("fuzz_smime_writer", "mail" + std::to_string(choice), choice + fields + entity);
            choice = static_cast<char>(choice + 11);
        }
        for (char change = 0; change != 8; ++change) {
            put("fuzz_explain", "body" + std::to_string(change) + std::to_string(entity.size()), change + entity);
        }
    }
    const std::string longStart = "Content-Type: multipart/mixed; boundary=b\r\n\r\n--b\r\n" + std::string(5000, 'x');
    put("fuzz_explain", "longStart", '\x86' + longStart + "\r\n--b--\r\n");
}

} // namespace

void fuzz::put(const std::string& target, const std::string& name, const std::string& content) {
    std::filesystem::create_directories(corpus / target);
    std::ofstream(corpus / target / name, std::ios::binary) << content;
}

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
    envelopes(alice);
    signatures(alice);
    withoutKeys(ca, alice);
    unattended(key);
    for (const char* target : {"fuzz_envelope_reader", "fuzz_reader"}) {
        for (const fuzz::Seed& seed : fuzz::envelopeSeeds()) {
            put(target, seed.first, text(seed.second));
        }
    }
    for (const char* target : {"fuzz_signed_reader", "fuzz_reader"}) {
        for (const fuzz::Seed& seed : fuzz::signedSeeds()) {
            put(target, seed.first, text(seed.second));
        }
    }
    mails();
    unsignedMails();
    fuzz::chainSeeds();
    fuzz::extensionSeeds();
    fuzz::fileSeeds();
    fuzz::tlsSeeds();
    return EXIT_SUCCESS;
}
