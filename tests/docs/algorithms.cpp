// Tries what the library supports, and prints it as the tables of docs/algorithms.md: each cell is what was done just now. An
// algorithm that is refused is "no"; one that ends in another way than it should is "WRONG", and the exit code is 1.

#include "support/Cms.h"
#include "support/Keys.h"
#include "support/Pkcs12.h"
#include "support/Streams.h"
#include "support/Tls.h"

#include <norvcrypto-trust/Trust.h>
#include <norvcrypto/CMSEncryptionMedia.h>
#include <norvcrypto/CMSEnvelopeReader.h>
#include <norvcrypto/CMSEnvelopeWriter.h>
#include <norvcrypto/CMSSignedReader.h>
#include <norvcrypto/CMSSignedWriter.h>
#include <norvcrypto/CMSSignerMedia.h>
#include <norvcrypto/Crypto.h>
#include <norvcrypto/PKCS12.h>

#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <functional>
#include <initializer_list>
#include <utility>

using namespace Norvane;
using namespace Norvane::Crypto;
using norvauthority::Identity;

namespace {

using Row = std::initializer_list<std::string>;
bool s_wrong = false;
const std::string s_body = "the body of a mail\r\n";

void row(Row cells) {
    for (const std::string& cell : cells) {
        std::printf("| %s ", cell.c_str());
    }
    std::puts("|");
}

void table(const char* title, Row columns) {
    std::printf("\n### %s\n\n", title);
    row(columns);
    for (std::size_t i = 0; i < columns.size(); ++i) {
        std::fputs("|---", stdout);
    }
    std::puts("|");
}

/// "yes", "no" for what is refused with an exception, "WRONG" for an answer that is none.
std::string tried(const std::function<bool()>& work) {
    try {
        if (work()) {
            return "yes";
        }
    } catch (const Exception&) {
        ERR_clear_error();
        return "no";
    }
    ERR_clear_error();
    s_wrong = true;
    return "WRONG";
}

struct Kind {
    std::string name;
    Identity identity;
};

norvauthority::Key generated(const char* type) {
    EVP_PKEY* made = EVP_PKEY_Q_keygen(nullptr, nullptr, type);
    norvauthority::Key key = norvauthority::Key::of(made);
    EVP_PKEY_free(made);
    return key;
}

const Identity& authority() {
    static const Identity made = norvauthority::issue(
        {.subject = {{"CN", "Root"}}, .key = norvauthority::Key::ec(), .ca = true, .keyUsage = 0x06});
    return made;
}

Kind kind(std::string name, const norvauthority::Key& key) {
    static int serial = 1;
    return {
        std::move(name),
        norvauthority::issue(
            {.subject = {{"CN", "Somebody"}}, .key = key, .issuer = &authority(), .serial = std::to_string(++serial)})};
}

const std::vector<Kind>& kinds() {
    using norvauthority::Key;
    static const std::vector<Kind> all{kind("RSA, 2048 bits", Key::rsa()),
                                       kind("DSA, 1024 bits", Key::dsa()),
                                       kind("EC, P-256", Key::ec()),
                                       kind("EC, P-384", Key::ec("P-384")),
                                       kind("EC, P-521", Key::ec("P-521")),
                                       kind("EC, secp256k1", Key::ec("secp256k1")),
                                       kind("EC, brainpoolP256r1", Key::ec("brainpoolP256r1")),
                                       kind("Ed25519", generated("ED25519")),
                                       kind("Ed448", generated("ED448")),
                                       kind("X25519", generated("X25519")),
                                       kind("X448", generated("X448"))};
    return all;
}

NVX509::RefCertificate certificateOf(const Identity& identity) {
    return NVX509::CertificateFactory()(identity.certificate.x509().release(), true);
}
NVX509::KeyCertificatePair pairOf(const Identity& identity) {
    return {norvtest::privateKeyOf(identity.key), certificateOf(identity)};
}

bool verifies(const Buffer& message) {
    CMS::SignedReader reader{MemoryMediaIn(message)};
    if (reader.isDetached()) {
        MediaOut digest = reader.digest();
        MemoryMediaIn(s_body).write(digest);
    } else {
        MemoryMediaOut content;
        reader.write(content);
    }
    return reader.signers().size() == 1 &&
           reader.verdict(reader.signers().front()).verdict == CMS::SignatureVerdict::good;
}

Buffer signedBy(const CMS::SignedWriter::Signer& signer) {
    CMS::SignedWriter::Options options;
    options.signers.push_back(signer);
    MemoryMediaOut out;
    CMS::SignedWriter writer(options);
    writer.attach(out);
    MemoryMediaIn(s_body).write(writer);
    writer.end();
    return out.content();
}

void signing() {
    constexpr std::pair<const char*, std::optional<Hasher::Type>> digests[] = {
        {"as the writer chooses", {}}, {"SHA-1", Hasher::SHA1},     {"SHA-256", Hasher::SHA256},
        {"SHA-384", Hasher::SHA384},   {"SHA-512", Hasher::SHA512}, {"SHA3-256", Hasher::SHA3_256},
    };
    table("Signing, and verifying what was signed",
          {"key", "digest", "`SignerMediaOut`", "`SignedWriter`", "`SignedWriter`, PSS"});
    for (const Kind& each : kinds()) {
        if (each.name[0] == 'X') {
            continue; // for key agreement alone
        }
        const auto pair = pairOf(each.identity);
        for (const auto& [name, digest] : digests) {
            const auto older = !digest ? std::string() : tried([&, type = *digest] {
                MemoryMediaOut out;
                CMS::SignerMediaOut signer(type, pair);
                signer.attach(out);
                MemoryMediaIn(s_body).write(signer);
                signer.end();
                return verifies(out.content());
            });
            CMS::SignedWriter::Signer signer(pair);
            signer.digest = digest;
            const auto stream = tried([&] { return verifies(signedBy(signer)); });
            signer.rsaScheme = CMS::SignedWriter::RsaScheme::pss;
            const bool isRsa = EVP_PKEY_get_base_id(each.identity.key.get()) == EVP_PKEY_RSA;
            const auto pss = isRsa ? tried([&] { return verifies(signedBy(signer)); }) : std::string();
            row({each.name, name, older, stream, pss});
        }
    }
}

bool opens(const Buffer& message, const Identity& identity) {
    CMS::EnvelopeReader reader{MemoryMediaIn(message)};
    if (!reader.open(CMS::KeyListLookup({pairOf(identity)}))) {
        return false;
    }
    MemoryMediaOut clear;
    reader.write(clear);
    return norvtest::textOf(clear.content()) == s_body;
}

Buffer sealedFor(const CMS::EnvelopeRecipient& recipient, CMS::ContentCipher cipher) {
    CMS::EnvelopeOptions options;
    options.cipher = cipher;
    MemoryMediaOut out;
    CMS::EnvelopeWriter writer({recipient}, options);
    writer.attach(out);
    MemoryMediaIn(s_body).write(writer);
    writer.end();
    return out.content();
}

Buffer sealedByTheOlderClass(Cipher cipher, const Identity& identity) {
    MemoryMediaOut out;
    CMS::EncrypterMediaOut writer(cipher, {certificateOf(identity)});
    writer.attach(out);
    MemoryMediaIn(s_body).write(writer);
    writer.end();
    return out.content();
}

void encrypting() {
    table("Encrypting, and decrypting what was encrypted: recipients",
          {"recipient", "`EncrypterMediaOut`", "`EnvelopeWriter`"});
    for (const Kind& each : kinds()) {
        row({each.name, tried([&] { return opens(sealedByTheOlderClass(AES_256_CBC, each.identity), each.identity); }),
             tried([&] {
                 return opens(
                     sealedFor(CMS::EnvelopeRecipient(certificateOf(each.identity)), CMS::ContentCipher::aes256Gcm),
                     each.identity);
             })});
    }
    const Identity& rsa = kinds().front().identity;
    row({"RSA, OAEP", "", tried([&] {
             return opens(sealedFor(CMS::EnvelopeRecipient::rsaOaep(certificateOf(rsa)), CMS::ContentCipher::aes256Gcm),
                          rsa);
         })});
    const Buffer secret("0123456789abcdef0123456789abcdef", 32, false);
    const auto opened = [](CMS::EnvelopeReader& reader, bool isOpen) {
        MemoryMediaOut clear;
        if (isOpen) {
            reader.write(clear);
        }
        return norvtest::textOf(clear.content()) == s_body;
    };
    row({"password", "", tried([&] {
             CMS::EnvelopeReader reader{
                 MemoryMediaIn(sealedFor(CMS::EnvelopeRecipient::password(secret), CMS::ContentCipher::aes256Gcm))};
             return opened(reader, reader.openWithPassword(reader.recipients().front(), secret));
         })});
    row({"key-encryption key", "", tried([&] {
             CMS::EnvelopeReader reader{MemoryMediaIn(
                 sealedFor(CMS::EnvelopeRecipient::keyEncryptionKey(secret, secret), CMS::ContentCipher::aes256Gcm))};
             return opened(reader, reader.open(reader.recipients().front(), secret));
         })});

    table("Encrypting, and decrypting what was encrypted: ciphers, for an RSA key",
          {"cipher", "`EncrypterMediaOut`", "`EnvelopeWriter`"});
    const std::tuple<const char*, std::optional<Cipher>, std::optional<CMS::ContentCipher>> ciphers[] = {
        {"AES-128, CBC", AES_128_CBC, CMS::ContentCipher::aes128Cbc},
        {"AES-192, CBC", AES_192_CBC, CMS::ContentCipher::aes192Cbc},
        {"AES-256, CBC", AES_256_CBC, CMS::ContentCipher::aes256Cbc},
        {"AES-128, GCM", {}, CMS::ContentCipher::aes128Gcm},
        {"AES-192, GCM", {}, CMS::ContentCipher::aes192Gcm},
        {"AES-256, GCM", {}, CMS::ContentCipher::aes256Gcm},
        {"triple DES, CBC", DES_EDE3_CBC, CMS::ContentCipher::tripleDesCbc},
        {"DES, CBC", DES_CBC, {}},
        {"IDEA, CBC", IDEA_CBC, {}},
        {"Blowfish, CBC", BF_CBC, {}},
        {"CAST5, CBC", CAST5_CBC, {}},
    };
    for (const auto& [name, older, stream] : ciphers) {
        const auto cell = [&](const auto& cipher, auto seal) {
            return cipher ? tried([&] { return opens(seal(*cipher), rsa); }) : std::string("no");
        };
        row({name, cell(older, [&](Cipher cipher) { return sealedByTheOlderClass(cipher, rsa); }),
             cell(stream, [&](CMS::ContentCipher cipher) {
                 return sealedFor(CMS::EnvelopeRecipient(certificateOf(rsa)), cipher);
             })});
    }
}

/// A certificate by the authority "Top", whose key signs as OpenSSL would have it.
NVX509::RefCertificate signedWith(EVP_PKEY* key, const char* name, EVP_PKEY* signing, bool isAuthority) {
    X509* made = X509_new();
    X509_set_version(made, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(made), isAuthority ? 1 : 2);
    const auto* text = reinterpret_cast<const unsigned char*>(name);
    X509_NAME_add_entry_by_txt(X509_get_subject_name(made), "CN", MBSTRING_ASC, text, -1, -1, 0);
    X509_NAME_add_entry_by_txt(X509_get_issuer_name(made), "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("Top"), -1, -1, 0);
    X509_gmtime_adj(X509_getm_notBefore(made), -60);
    X509_gmtime_adj(X509_getm_notAfter(made), 3600);
    X509_set_pubkey(made, key);
    if (isAuthority) {
        X509_EXTENSION* basic = X509V3_EXT_conf_nid(nullptr, nullptr, NID_basic_constraints, "critical,CA:TRUE");
        X509_add_ext(made, basic, -1);
        X509_EXTENSION_free(basic);
    }
    const int type = EVP_PKEY_get_base_id(signing);
    X509_sign(made, signing, type == EVP_PKEY_ED25519 || type == EVP_PKEY_ED448 ? nullptr : EVP_sha256());
    return NVX509::CertificateFactory()(made, true);
}

Buffer bufferOf(const std::string& text) {
    return {text.data(), static_cast<unsigned int>(text.size()), false};
}

void keys() {
    table("Private keys and certificates, read",
          {"key", "PEM", "PEM with a passphrase", "DER", "certificate", "chain of trust below it"});
    for (const Kind& each : kinds()) {
        const auto reads = [&](const std::string& text, const Buffer* passphrase) {
            return tried([&] {
                auto* key = new PrivateKey(nullptr);
                const RefKey owned(key);
                key->readUnattended(bufferOf(text), passphrase);
                return EVP_PKEY_eq(static_cast<EVP_PKEY*>(owned), each.identity.key.get()) == 1;
            });
        };
        const norvauthority::Bytes der = each.identity.key.pkcs8();
        const Buffer passphrase("secret", 6, false);
        row({each.name, reads(each.identity.key.pkcs8Pem(), nullptr),
             reads(each.identity.key.encryptedPem("secret"), &passphrase), reads({der.begin(), der.end()}, nullptr),
             tried([&] {
                 std::list<NVX509::RefCertificate> read;
                 NVX509::CertificateFactory().read(bufferOf(each.identity.certificate.pem()), read);
                 return !read.empty() && static_cast<EVP_PKEY*>(read.front()->key()) != nullptr;
             }),
             tried([&] {
                 // As an authority: what it signed is verified with its key.
                 const int type = EVP_PKEY_get_base_id(each.identity.key.get());
                 if (type == EVP_PKEY_X25519 || type == EVP_PKEY_X448) {
                     throw Exception("", 4, nullptr, 0); // these sign nothing
                 }
                 const auto top = signedWith(each.identity.key.get(), "Top", each.identity.key.get(), true);
                 const auto below = signedWith(authority().key.get(), "Below", each.identity.key.get(), false);
                 const auto material = std::make_shared<Trust::Material>();
                 material->addAnchor(top);
                 if (Trust::Verifier(material).judge(below, {}, {}, Trust::Options()).accepted) {
                     return true;
                 }
                 throw Exception("", 4, nullptr, 0);
             })});
    }
}

void pkcs12() {
    table("PKCS#12, read with its password", {"encrypted under", "key and certificate"});
    const std::pair<const char*, int> ciphers[] = {
        {"AES-256 in CBC mode, PBES2", 0},
        {"triple DES, PKCS#12's own", NID_pbe_WithSHA1And3_Key_TripleDES_CBC},
        {"RC2 with 40 bits, PKCS#12's own", NID_pbe_WithSHA1And40BitRC2_CBC},
        {"nothing", -1}};
    for (const auto& [name, cipher] : ciphers) {
        const Identity& rsa = kinds().front().identity;
        row({name, tried([&, number = cipher] {
                 const auto der = norvtest::pkcs12(
                     {.key = &rsa, .certificate = &rsa, .keyCipher = number, .certificateCipher = number});
                 const auto store = norvtest::storeOf(der);
                 store->read("secret");
                 return sameEncoding(norvtest::owned(*store), certificateOf(rsa));
             })});
    }
}

/// Both ends of a handshake, in memory.
bool shakesHands(const NVSSL::RefContext& client, const NVSSL::RefContext& server, const char* groups,
                 const char* suites) {
    const std::unique_ptr<SSL, void (*)(SSL*)> one(SSL_new(client), SSL_free);
    const std::unique_ptr<SSL, void (*)(SSL*)> other(SSL_new(server), SSL_free);
    if ((groups != nullptr && SSL_set1_groups_list(one.get(), groups) != 1) ||
        (suites != nullptr && SSL_set_ciphersuites(one.get(), suites) != 1)) {
        return false;
    }
    BIO* near = nullptr;
    BIO* far = nullptr;
    BIO_new_bio_pair(&near, 65536, &far, 65536);
    SSL_set_bio(one.get(), near, near);
    SSL_set_bio(other.get(), far, far);
    SSL_set_connect_state(one.get());
    SSL_set_accept_state(other.get());
    for (int i = 0; i < 10 && (SSL_is_init_finished(one.get()) == 0 || SSL_is_init_finished(other.get()) == 0); ++i) {
        SSL_do_handshake(one.get());
        SSL_do_handshake(other.get());
    }
    return SSL_is_init_finished(one.get()) == 1 && SSL_is_init_finished(other.get()) == 1;
}

std::string yesOrNo(bool yes) {
    ERR_clear_error();
    return yes ? "yes" : "no";
}

void tls() {
    using tlstesting::clientSide;
    using tlstesting::context;
    using tlstesting::only;
    using tlstesting::serverSide;
    table("TLS, contexts of `SSL_V23`: versions", {"version", "agreed on"});
    for (const auto& [name, version] : {std::pair<const char*, int>{"TLS 1.0", TLS1_VERSION},
                                        {"TLS 1.1", TLS1_1_VERSION},
                                        {"TLS 1.2", TLS1_2_VERSION},
                                        {"TLS 1.3", TLS1_3_VERSION}}) {
        // The client is one of OpenSSL's own that would take any version.
        SSL_CTX* plain = SSL_CTX_new(TLS_client_method());
        SSL_CTX_set_security_level(plain, 0);
        const NVSSL::RefContext client(new NVSSL::Context(plain));
        const NVSSL::RefContext server = context(serverSide, &tlstesting::server());
        SSL_CTX_set_security_level(server, 0);
        row({name, yesOrNo(shakesHands(only(client, version), server, nullptr, nullptr))});
    }
    table("TLS: keys of servers", {"key", "TLS 1.2", "TLS 1.3"});
    for (const Kind& each : kinds()) {
        const auto cell = [&](int version) {
            try {
                return yesOrNo(shakesHands(only(context(clientSide), version), context(serverSide, &each.identity),
                                           nullptr, nullptr));
            } catch (const Exception&) { // the context does not take it
                return yesOrNo(false);
            }
        };
        row({each.name, cell(TLS1_2_VERSION), cell(TLS1_3_VERSION)});
    }
    table("TLS 1.3: groups and ciphers", {"group or cipher", "agreed on"});
    const NVSSL::RefContext server = context(serverSide, &tlstesting::server());
    for (const char* group : {"X25519", "P-256", "P-384", "P-521", "X448", "ffdhe2048"}) {
        row({group, yesOrNo(shakesHands(only(context(clientSide), TLS1_3_VERSION), server, group, nullptr))});
    }
    for (const char* suite : {"TLS_AES_256_GCM_SHA384", "TLS_CHACHA20_POLY1305_SHA256", "TLS_AES_128_GCM_SHA256",
                              "TLS_AES_128_CCM_SHA256"}) {
        row({suite, yesOrNo(shakesHands(only(context(clientSide), TLS1_3_VERSION), server, nullptr, suite))});
    }
}

} // namespace

int main() {
    initialize();
    signing();
    encrypting();
    keys();
    pkcs12();
    tls();
    return s_wrong ? 1 : 0;
}
