#include "demo/Demo.h"
#include "demo/Message.h"

#include <norvcmsg/Escape.h>
#include <norvcrypto/Hasher.h>
#include <norvcrypto/KeyFactory.h>

#include <array>
#include <filesystem>
#include <initializer_list>
#include <memory>
#include <string_view>
#include <system_error>

namespace norvcrypt {

namespace NVX509 = Norvane::Crypto::NVX509;
using Norvane::Crypto::Hasher;

namespace {

constexpr unsigned int keyExponent = 65537;
constexpr unsigned int keyBits = 3072;

} // namespace

void Demo::tell(const std::string& text) {
    m_out.line(Norvane::escapeForDisplay(text));
    m_out.flush();
}

void Demo::command(const std::string& line) {
    m_out.line("      $ " + line);
    m_out.flush();
}

void Demo::verdict(const std::string& what, bool asExpected) {
    tell("   " + what + (asExpected ? "" : ": THIS IS WRONG"));
    m_asExpected = m_asExpected && asExpected;
}

void Demo::makeDirectory() {
    std::error_code error;
    std::filesystem::create_directories(m_options.directory, error);
    if (error)
        throw Failure("cannot make the directory " + m_options.directory, error.value());
    // Asked for now: the keys would be made in vain.
    const auto ask = [&](OutputFile::Access access, std::initializer_list<const char*> names) {
        for (const char* const name : names)
            if (std::filesystem::exists(path(name), error))
                static_cast<void>(OutputFile(path(name), m_inputs, access, existing()));
    };
    ask(OutputFile::Access::owner,
        {"root.key", "ca.key", "alice.key", "bob.key", "carol.key", "mallory.key", "alice.p12", "carol.p12", "secret",
         "server.key", "identities/alice/key.pem", "identities/bob/key.pem", "identities/carol/key.pem"});
    ask(OutputFile::Access::everyone, {"root.pem", "ca.pem", "alice.pem", "bob.pem", "carol.pem", "mallory.pem",
                                       "server.pem", "ca.crl", "message.eml", "message.p7s", "message-changed.eml",
                                       "message.p7m", "letter.eml", "letter-signed.eml", "letter-secret.eml"});
}

norvauthority::Key Demo::makeKey() {
    const auto pair = Norvane::Crypto::KeyGenerator().rsaGenerateKeyPair(keyExponent, keyBits);
    return norvauthority::Key::of(pair.second);
}

Demo::Identity Demo::makeIdentity(const std::string& name, norvauthority::CertificateRequest request) {
    request.key = makeKey();
    Identity identity = norvauthority::issue(request);
    put(name + ".key", identity.key.pkcs8Pem(), OutputFile::Access::owner);
    put(name + ".pem", identity.certificate.pem());
    tell("   " + path(name + ".pem") + "  SHA-256 " + identity.certificate.sha256());
    return identity;
}

NVX509::RefCertificate Demo::certificateOf(const Identity& identity) {
    const norvauthority::Bytes& der = identity.certificate.der;
    return NVX509::CertificateFactory().readDER(
        Norvane::Buffer(der.data(), static_cast<unsigned int>(der.size()), false));
}

Norvane::Crypto::RefKey Demo::keyOf(const Identity& identity) {
    return Norvane::Crypto::RefKey(new Norvane::Crypto::PrivateKey(identity.key.newReference()));
}

void Demo::makeIdentities() {
    tell("1. A root, a certification authority under it and four people, each with an RSA key of 3072 bits");
    m_root = makeIdentity(
        "root",
        {.subject = {{"C", "DE"}, {"O", "Demo"}, {"CN", "Demo Root"}}, .serial = "01", .ca = true, .keyUsage = 0x06});
    m_authority = makeIdentity("ca", {.subject = {{"C", "DE"}, {"O", "Demo"}, {"CN", "Demo Mail CA"}},
                                      .issuer = &m_root,
                                      .serial = "02",
                                      .ca = true,
                                      .pathLength = 0,
                                      .keyUsage = 0x06});
    const auto person = [this](const std::string& name, const std::string& address, const std::string& serial) {
        return norvauthority::CertificateRequest{
            .subject = {{"C", "DE"}, {"O", "Demo"}, {"CN", name}},
            .issuer = &m_authority,
            .serial = serial,
            .keyUsage = 0xE0,
            .extendedKeyUsage = {"emailProtection"},
            .alternativeNames = {norvauthority::GeneralName::email(address)},
            .crlDistributionPoints = {
                {.name = {{.full = {norvauthority::GeneralName::uri("http://example.org/ca.crl")}}}}}};
    };
    m_alice = makeIdentity("alice", person("Alice Example", "alice@example.org", "0a11ce"));
    m_bob = makeIdentity("bob", person("Bob Example", "bob@example.org", "0b0b"));
    m_carol = makeIdentity("carol", person("Carol Example", "carol@example.org", "0ca201"));
    m_mallory = makeIdentity("mallory", person("Mallory Example", "mallory@example.org", "0bad0bad"));
    const norvauthority::Crl list = norvauthority::issueList(
        {.issuer = &m_authority, .revoked = {{.serial = "0bad", .reason = 1}}, .crlNumber = "01"});
    m_list = list.pem();
    put("ca.crl", m_list);
    tell("   " + path("ca.crl") + "  the authority's revocation list");
    command("openssl verify -purpose smimesign -CAfile " + argument("root.pem") + " -untrusted " + argument("ca.pem") +
            " " + argument("alice.pem") + " " + argument("bob.pem") + " " + argument("carol.pem") + " " +
            argument("mallory.pem"));
    command("openssl crl -in " + argument("ca.crl") + " -CAfile " + argument("ca.pem") + " -noout");
}

void Demo::makeMessage() {
    tell("2. The message");
    Norvane::Crypto::HasherMediaOut hasher(Hasher::SHA256);
    OutputFile file(path("message.eml"), m_inputs, OutputFile::Access::everyone, existing());
    const auto write = [&](std::string_view bytes) {
        file.write(bytes.data(), bytes.size());
        hasher.write(reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<unsigned int>(bytes.size()));
        m_size += bytes.size();
    };
    if (!m_options.in) {
        generateMessage(write);
    } else {
        Progress progress("copying");
        Norvane::MediaIn in = m_inputs.open(*m_options.in, &progress);
        std::array<char, 65536> chunk{};
        for (int count = 1; count > 0;) {
            count = in.read(reinterpret_cast<unsigned char*>(chunk.data()), chunk.size());
            write({chunk.data(), static_cast<std::size_t>(count)});
        }
    }
    file.commit();
    hasher.end();
    m_digest = hasher.hasher()->digestAsHexString();
    tell("   " + path("message.eml") + "  " + std::to_string(m_size) + " bytes, SHA-256 " + m_digest);
    command("openssl dgst -sha256 " + argument("message.eml"));
}

Exit Demo::run() {
    // Asked for now: the keys would be made in vain.
    if (m_options.in && *m_options.in != "-")
        static_cast<void>(m_inputs.open(*m_options.in));
    makeDirectory();
    makeIdentities();
    makeMessage();
    sign();
    verify();
    refuseChangedByte();
    refuseStranger();
    encrypt();
    decrypt();
    refuseOutsider();
    keepIdentities();
    tell(m_asExpected ? "Everything as it should be. All files are in " + m_options.directory +
                            "; the keys are not encrypted and serve for this demonstration only."
                      : "Something went wrong, see above.");
    return m_asExpected ? Exit::good : Exit::refused;
}

} // namespace norvcrypt
