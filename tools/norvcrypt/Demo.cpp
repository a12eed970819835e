#include "Command.h"
#include "DemoMessage.h"
#include "Facts.h"
#include "Input.h"
#include "Output.h"

#include <norvcmsg/Escape.h>
#include <norvcrypto/CMSSignerMedia.h>
#include <norvcrypto/Certificate.h>
#include <norvcrypto/Hasher.h>
#include <norvcrypto/KeyFactory.h>
#include <norvcrypto/KeyStore.h>

#include <authority/Authority.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

namespace norvcrypt {

namespace NVX509 = Norvane::Crypto::NVX509;
namespace CMS = Norvane::Crypto::CMS;
using Norvane::Crypto::Hasher;
using norvauthority::Identity;

namespace {

constexpr unsigned int keyExponent = 65537;
constexpr unsigned int keyBits = 3072;

struct DemoOptions {
    std::optional<std::string> in;
    std::string directory = "norvcrypt-demo";
};

/// For a path with bytes that cannot be shown: as a command that writes it, for any shell.
std::string printfOf(const std::string& argument) {
    std::string text = "\"$(printf '";
    for (const char letter : argument) {
        const auto byte = static_cast<unsigned char>(letter);
        if (byte < 0x20 || byte >= 0x7F || letter == '\'' || letter == '\\' || letter == '%')
            text.append({'\\', static_cast<char>('0' + (byte >> 6U)), static_cast<char>('0' + ((byte >> 3U) & 7U)),
                         static_cast<char>('0' + (byte & 7U))});
        else
            text += letter;
    }
    return text + "')\"";
}

/// As a shell takes it for one argument that is no option.
std::string quoted(const std::string& path) {
    std::string argument = path.starts_with('-') ? "./" + path : path;
    static constexpr std::string_view plain = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_./-+,:@%";
    if (argument.find_first_not_of(plain) == std::string::npos)
        return argument;
    if (Norvane::escapeForDisplay(argument) != argument)
        return printfOf(argument);
    std::string text = "'";
    for (const char letter : argument)
        text += letter == '\'' ? std::string("'\\''") : std::string(1, letter);
    return text + "'";
}

/// The demonstration: each step says what it does, does it, and prints how to check it without this program.
class Demo {
public:
    explicit Demo(const DemoOptions& options) : m_options(options) {}
    Exit run();

private:
    [[nodiscard]] std::string path(const std::string& name) const { return m_options.directory + "/" + name; }
    [[nodiscard]] std::string argument(const std::string& name) const { return quoted(path(name)); }
    void tell(const std::string& text);
    void command(const std::string& line) { tell("      $ " + line); }
    void verdict(const std::string& what, bool asExpected);

    void makeDirectory();
    norvauthority::Key makeKey();
    Identity makeIdentity(const std::string& name, norvauthority::CertificateRequest request);
    void makeIdentities();
    void makeMessage();
    void sign();
    [[nodiscard]] bool verifies(const std::string& body, const Identity& identity) const;
    void verify();
    void refuseChangedByte();
    void refuseStranger();

    DemoOptions m_options;
    TextOutput m_out;
    Inputs m_inputs;
    Identity m_root;
    Identity m_authority;
    Identity m_alice;
    Identity m_bob;
    std::uint64_t m_size = 0;
    bool m_asExpected = true;
};

void Demo::tell(const std::string& text) {
    m_out.line(Norvane::escapeForDisplay(text));
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
}

norvauthority::Key Demo::makeKey() {
    const auto pair = Norvane::Crypto::KeyGenerator().rsaGenerateKeyPair(keyExponent, keyBits);
    return norvauthority::Key::of(pair.second);
}

Identity Demo::makeIdentity(const std::string& name, norvauthority::CertificateRequest request) {
    request.key = makeKey();
    Identity identity = norvauthority::issue(request);
    writeFile(path(name + ".key"), identity.key.pkcs8Pem(), OutputFile::Access::owner);
    writeFile(path(name + ".pem"), identity.certificate.pem());
    tell("   " + path(name + ".pem") + "  SHA-256 " + identity.certificate.sha256());
    return identity;
}

void Demo::makeIdentities() {
    tell("1. A root, a certification authority under it and two people, each with an RSA key of 3072 bits");
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
            .keyUsage = 0xC0,
            .extendedKeyUsage = {"emailProtection"},
            .alternativeNames = {norvauthority::GeneralName::email(address)},
            .crlDistributionPoints = {
                {.name = {{.full = {norvauthority::GeneralName::uri("http://example.org/ca.crl")}}}}}};
    };
    m_alice = makeIdentity("alice", person("Alice Example", "alice@example.org", "0a11ce"));
    m_bob = makeIdentity("bob", person("Bob Example", "bob@example.org", "0b0b"));
    const norvauthority::Crl list = norvauthority::issueList(
        {.issuer = &m_authority, .revoked = {{.serial = "0bad", .reason = 1}}, .crlNumber = "01"});
    writeFile(path("ca.crl"), list.pem());
    tell("   " + path("ca.crl") + "  the authority's revocation list");
    command("openssl verify -purpose smimesign -CAfile " + argument("root.pem") + " -untrusted " + argument("ca.pem") +
            " " + argument("alice.pem") + " " + argument("bob.pem"));
    command("openssl crl -in " + argument("ca.crl") + " -CAfile " + argument("ca.pem") + " -noout");
}

void Demo::makeMessage() {
    tell("2. The message to sign");
    Norvane::Crypto::HasherMediaOut hasher(Hasher::SHA256);
    OutputFile file(path("message.eml"));
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
    tell("   " + path("message.eml") + "  " + std::to_string(m_size) + " bytes, SHA-256 " +
         hasher.hasher()->digestAsHexString());
    command("openssl dgst -sha256 " + argument("message.eml"));
}

NVX509::RefCertificate certificateOf(const Identity& identity) {
    const norvauthority::Bytes& der = identity.certificate.der;
    return NVX509::CertificateFactory().readDER(
        Norvane::Buffer(der.data(), static_cast<unsigned int>(der.size()), false));
}

void Demo::sign() {
    tell("3. Alice signs it");
    const Norvane::Crypto::RefKey key(new Norvane::Crypto::PrivateKey(m_alice.key.newReference()));
    const NVX509::KeyCertificatePair pair(key, certificateOf(m_alice), {certificateOf(m_authority)});
    Progress progress("signing");
    Norvane::MediaIn body = m_inputs.open(path("message.eml"), &progress);
    Norvane::MemoryMediaOut signature;
    CMS::SignerMediaOut signer(Hasher::SHA256, pair);
    signer.attach(signature);
    body.write(signer);
    signer.end();
    const Norvane::Buffer& der = signature.content();
    writeFile(path("message.p7s"), {reinterpret_cast<const char*>(der.data()), der.length()});
    tell("   " + path("message.p7s") + "  " + std::to_string(der.length()) + " bytes: a detached signature, with the " +
         "certificates of Alice and of the authority");
    command("openssl cms -cmsout -print -noout -inform DER -in " + argument("message.p7s"));
}

bool Demo::verifies(const std::string& body, const Identity& identity) const {
    Inputs inputs;
    Norvane::MediaIn signature = inputs.open(path("message.p7s"));
    const CMS::CMSVerifier verifier(signature);
    const CMS::SignedData data = CMS::signedData(verifier.contentInfo());
    Progress progress("verifying");
    Norvane::MediaIn in = inputs.open(path(body), &progress);
    return data.signerInfo().size() == 1 && verifier.isValid(in, data.signerInfo().front(), certificateOf(identity));
}

void Demo::verify() {
    tell("4. Anyone verifies it");
    const bool good = verifies("message.eml", m_alice);
    verdict(good ? "the signature is good; trust in the certificate is another matter, which OpenSSL checks here too"
                 : "the signature is refused",
            good);
    command("openssl cms -verify -binary -inform DER -in " + argument("message.p7s") + " -content " +
            argument("message.eml") + " -CAfile " + argument("root.pem") + " -purpose smimesign -out /dev/null");
}

void Demo::refuseChangedByte() {
    tell("5. One changed byte");
    const std::uint64_t position = m_size / 2;
    {
        OutputFile file(path("message-changed.eml"));
        Norvane::MediaIn in = m_inputs.open(path("message.eml"));
        std::array<unsigned char, 65536> chunk{};
        std::uint64_t at = 0;
        for (int count = in.read(chunk.data(), chunk.size()); count > 0; count = in.read(chunk.data(), chunk.size())) {
            const auto length = static_cast<std::uint64_t>(count);
            if (position >= at && position < at + length)
                chunk[position - at] ^= 1U;
            file.write(chunk.data(), length);
            at += length;
        }
        if (m_size == 0)
            file.write("!", 1); // an empty message can only grow
        file.commit();
    }
    const bool refused = !verifies("message-changed.eml", m_alice);
    verdict(path("message-changed.eml") + "  byte " + std::to_string(position) +
                (refused ? " differs: the signature is refused" : " differs, and the signature is good"),
            refused);
    tell("      OpenSSL refuses it too; this command fails:");
    command("openssl cms -verify -binary -inform DER -in " + argument("message.p7s") + " -content " +
            argument("message-changed.eml") + " -CAfile " + argument("root.pem") +
            " -purpose smimesign -out /dev/null");
}

void Demo::refuseStranger() {
    tell("6. Bob's certificate instead of Alice's");
    const bool refused = !verifies("message.eml", m_bob);
    verdict(refused ? "the signature is refused" : "the signature is good", refused);
    tell("      OpenSSL refuses it too; this command fails:");
    command("openssl cms -verify -binary -inform DER -in " + argument("message.p7s") + " -content " +
            argument("message.eml") + " -nointern -certfile " + argument("bob.pem") + " -CAfile " +
            argument("root.pem") + " -purpose smimesign -out /dev/null");
}

Exit Demo::run() {
    makeDirectory();
    makeIdentities();
    makeMessage();
    sign();
    verify();
    refuseChangedByte();
    refuseStranger();
    tell(m_asExpected ? "Everything as it should be. All files are in " + m_options.directory +
                            "; the keys are not encrypted and serve for this demonstration only."
                      : "Something went wrong, see above.");
    return m_asExpected ? Exit::good : Exit::refused;
}

} // namespace

void addDemo(CLI::App& app, Action& action) {
    auto options = std::make_shared<DemoOptions>();
    CLI::App* command = app.add_subcommand(
        "demo", "Makes a small CA, signs a message, verifies it, and tells how to check each step with OpenSSL");
    command->add_option("--in", options->in, "The message to sign, instead of a generated one; \"-\" is standard input")
        ->type_name("FILE");
    command->add_option("--dir", options->directory, "Where everything is left")
        ->type_name("DIR")
        ->capture_default_str();
    command->callback([options, &action] { action = [options] { return Demo(*options).run(); }; });
}

} // namespace norvcrypt
