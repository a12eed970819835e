// Bouncy Castle reads what this library writes, and the reverse: every kind of signature and recipient that both know. The
// program on its side is bouncycastle/Peer.java.
#include "support/Cms.h"
#include "support/JudgedTest.h"
#include "support/SignedMessages.h"

#include <norvcrypto/CMSEnvelopeReader.h>
#include <norvcrypto/CMSEnvelopeWriter.h>
#include <norvcrypto/CMSSignedReader.h>
#include <norvcrypto/CMSSignedWriter.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

using namespace interop;
using namespace Norvane::Crypto;
using Norvane::Buffer;
using norvauthority::Identity;

namespace {

constexpr const char* s_jars = "/usr/share/java/bcpkix.jar:/usr/share/java/bcprov.jar:/usr/share/java/bcutil.jar";

norvauthority::Key ed448Key() {
    const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> made(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED448"),
                                                                   EVP_PKEY_free);
    return norvauthority::Key::of(made.get());
}

const Identity& person(const std::string& name) {
    static const std::map<std::string, Identity> people = [] {
        const auto made = [](const std::string& who, const norvauthority::Key& key, const std::string& serial) {
            return norvauthority::issue(
                {.subject = {{"CN", who}}, .key = key, .issuer = &root(), .serial = serial, .keyUsage = 0xA8});
        };
        return std::map<std::string, Identity>{{"alice", made("alice", alice().key, "bc01")},
                                               {"bob", made("bob", bob().key, "bc02")},
                                               {"p256", made("p256", norvauthority::Key::ec("P-256"), "bc03")},
                                               {"p384", made("p384", norvauthority::Key::ec("P-384"), "bc04")},
                                               {"p521", made("p521", norvauthority::Key::ec("P-521"), "bc05")},
                                               {"ed25519", made("ed25519", norvauthority::Key::ed25519(), "bc06")},
                                               {"ed448", made("ed448", ed448Key(), "bc07")}};
    }();
    return people.at(name);
}

class BouncyCastleTest : public JudgedTest {
protected:
    void SetUp() override {
        if (!installed("java") || !installed("javac") || !std::filesystem::exists("/usr/share/java/bcpkix.jar"))
            GTEST_SKIP() << "no JDK, or no Bouncy Castle (libbcpkix-java)";
        initialize();
        JudgedTest::SetUp();
        for (const char* name : {"alice", "bob", "p256", "p384", "p521", "ed25519", "ed448"})
            put(name, person(name));
        work.write("body", m_body);
        work.write("kek", std::string(32, '\x42'));
    }

    void task(const std::string& name, const std::string& words) { m_tasks += name + " " + words + "\n"; }
    /// Has all tasks done; what became of each.
    std::map<std::string, std::string> answers() {
        work.write("tasks", m_tasks);
        const Answer answer =
            in({"java", "-Xshare:auto", "-XX:TieredStopAtLevel=1", "-cp", s_jars,
                std::string(norvtest::sourceDirectory) + "/tests/interop/bouncycastle/Peer.java", work.directory()});
        EXPECT_EQ(0, answer.status) << answer.out << answer.err;
        std::istringstream lines(work.read("answers"));
        std::map<std::string, std::string> all;
        for (std::string line; std::getline(lines, line);)
            all[line.substr(0, line.find(' '))] = line.substr(line.find(' ') + 1);
        return all;
    }
    void allAreDone(std::size_t count) {
        const auto all = answers();
        EXPECT_EQ(all.size(), count);
        for (const auto& [name, answer] : all)
            EXPECT_EQ(answer, "done") << name;
    }

    [[nodiscard]] Norvane::MemoryMediaIn file(const std::string& name) const {
        return Norvane::MemoryMediaIn(work.read(name));
    }
    void keep(const std::string& name, const Norvane::MemoryMediaOut& content) const {
        const Buffer& bytes = content.content();
        work.write(name, std::string(reinterpret_cast<const char*>(bytes.data()), bytes.length()));
    }
    void body(Norvane::MediaOut& out) const {
        out.write(reinterpret_cast<const unsigned char*>(m_body.data()), static_cast<unsigned int>(m_body.size()));
    }
    static std::string textOf(const Norvane::MemoryMediaOut& out) {
        return {reinterpret_cast<const char*>(out.content().data()), out.content().length()};
    }

    const std::string m_body = sampleBody() + std::string(70000, 'x');

private:
    std::string m_tasks;
};

Buffer bufferOf(const std::string& text) {
    return {text.data(), static_cast<unsigned int>(text.size()), false};
}

struct Signing {
    const char* who;
    const char* algorithm;              ///< as Bouncy Castle calls it
    std::optional<Hasher::Type> digest; ///< unset: the one that the key demands
    bool pss;
    bool attributesAlone; ///< it signs attributes alone
};
const std::vector<Signing> signings{
    {"alice", "SHA256WITHRSA", Hasher::SHA256, false, false},
    {"alice", "SHA512WITHRSA", Hasher::SHA512, false, false},
    {"alice", "SHA1WITHRSA", Hasher::SHA1, false, false},
    {"bob", "SHA256WITHRSAANDMGF1", Hasher::SHA256, true, false},
    {"bob", "SHA384WITHRSAANDMGF1", Hasher::SHA384, true, false},
    {"p256", "SHA256WITHECDSA", Hasher::SHA256, false, false},
    {"p384", "SHA384WITHECDSA", Hasher::SHA384, false, false},
    {"p521", "SHA512WITHECDSA", Hasher::SHA512, false, false},
    {"ed25519", "ED25519", Hasher::SHA512, false, true},
    {"ed448", "ED448", std::nullopt, false, true},
};

} // namespace

TEST_F(BouncyCastleTest, VerifiesWhatIsSignedHere) {
    std::size_t count = 0;
    for (const Signing& how : signings) {
        for (const bool attached : {true, false}) {
            for (const bool der : {true, false}) {
                for (const bool attributes : {true, false}) {
                    if (!attributes && how.attributesAlone)
                        continue;
                    CMS::SignedWriter::Signer signer(cmstest::pairOf(person(how.who)));
                    signer.digest = how.digest;
                    signer.rsaScheme =
                        how.pss ? CMS::SignedWriter::RsaScheme::pss : CMS::SignedWriter::RsaScheme::pkcs1;
                    signer.signedAttributes = attributes;
                    signer.namedBy = der ? CMS::NamedBy::issuerAndSerialNumber : CMS::NamedBy::subjectKeyIdentifier;
                    CMS::SignedWriter::Options options;
                    options.signers = {signer};
                    options.content =
                        attached ? CMS::SignedWriter::Content::attached : CMS::SignedWriter::Content::detached;
                    options.encoding = der ? CMS::SignedWriter::Encoding::der : CMS::SignedWriter::Encoding::ber;
                    CMS::SignedWriter writer(options);
                    Norvane::MemoryMediaOut made;
                    writer.attach(made);
                    body(writer);
                    writer.end();
                    const std::string name = std::string("signed") + std::to_string(++count);
                    keep(name, made);
                    task(name + "-" + how.algorithm, "verify " + name + " body " + how.who);
                }
            }
        }
    }
    CMS::SignedWriter::Options three;
    for (const char* who : {"alice", "p256", "ed25519"})
        three.signers.emplace_back(cmstest::pairOf(person(who)));
    CMS::SignedWriter writer(three);
    Norvane::MemoryMediaOut made;
    writer.attach(made);
    body(writer);
    writer.end();
    keep("three", made);
    task("three", "verify three body alice p256 ed25519");
    allAreDone(count + 1);
}

TEST_F(BouncyCastleTest, SignsWhatIsVerifiedHere) {
    struct Made {
        std::string file;
        const Signing* how;
        bool attached;
        bool byKey;
    };
    std::vector<Made> all;
    for (const Signing& how : signings) {
        for (const bool attached : {true, false}) {
            for (const bool der : {true, false}) {
                for (const bool attributes : {true, false}) {
                    if (!attributes && how.attributesAlone)
                        continue;
                    all.push_back({"theirs" + std::to_string(all.size()), &how, attached, !der});
                    task(all.back().file, std::string("sign ") + how.who + " " + how.algorithm + " " +
                                              (attached ? "attached " : "detached ") + (der ? "der " : "ber ") +
                                              (attributes ? "attributes " : "direct ") + (der ? "issuer" : "key") +
                                              " body " + all.back().file);
                }
            }
        }
    }
    allAreDone(all.size());
    for (const Made& one : all) {
        SCOPED_TRACE(one.file + " " + one.how->algorithm);
        CMS::SignedReader reader(file(one.file));
        ASSERT_EQ(reader.isDetached(), !one.attached);
        if (one.attached) {
            Norvane::MemoryMediaOut content;
            reader.write(content);
            EXPECT_EQ(textOf(content), m_body);
        } else {
            Norvane::MediaOut digest = reader.digest();
            body(digest);
        }
        ASSERT_EQ(reader.signers().size(), 1U);
        const CMS::SignatureResult result = reader.verdict(reader.signers().front());
        EXPECT_EQ(result.verdict, CMS::SignatureVerdict::good) << CMS::textOf(result.reason) << " " << result.algorithm;
        EXPECT_EQ(reader.signers().front().identifier().namedBy(),
                  one.byKey ? CMS::NamedBy::subjectKeyIdentifier : CMS::NamedBy::issuerAndSerialNumber);

        // And over another body it is not.
        if (!one.attached) {
            CMS::SignedReader other(file(one.file));
            Norvane::MediaOut digest = other.digest();
            body(digest);
            digest.write(reinterpret_cast<const unsigned char*>("x"), 1);
            EXPECT_EQ(other.verdict(other.signers().front()).verdict, CMS::SignatureVerdict::refused);
        }
    }
}

// RFC 8419, 3.1, demands SHA-512 beside Ed25519 and SHAKE256 beside Ed448.
TEST_F(BouncyCastleTest, EdwardsCurvesBesideOtherDigestsAreVerifiedOnBothSides) {
    const std::vector<std::tuple<const char*, const char*, const char*>> cases{
        {"ed25519", "ED25519", "SHA256"}, {"ed25519", "ED25519", "SHA384"}, {"ed448", "ED448", "SHA512"}};
    const norvauthority::Bytes content(m_body.begin(), m_body.end());
    for (const auto& [who, scheme, digest] : cases) {
        const Identity& identity = person(who);
        const EVP_MD* const type = EVP_get_digestbyname(digest);
        cmstest::HandMadeSigner signer{.identity = &identity,
                                       .digestAlgorithm = cmstest::algorithm(digest),
                                       .signatureAlgorithm = cmstest::algorithm(scheme),
                                       .digest = nullptr,
                                       .attributes = cmstest::usualAttributes(content, type)};
        signer.name = cmstest::der::sequence({root().name.der(), cmstest::der::integer(identity.serial)});
        const auto message = cmstest::attachedBy(signer, content);
        const std::string name = std::string(who) + digest;
        work.write(name, std::string(message.begin(), message.end()));
        task(name, "verify " + name + " body " + who);

        CMS::SignedReader reader(file(name));
        Norvane::MemoryMediaOut out;
        reader.write(out);
        const CMS::SignatureResult result = reader.verdict(reader.signers().front());
        EXPECT_EQ(result.verdict, CMS::SignatureVerdict::good) << name << CMS::textOf(result.reason);
    }
    allAreDone(cases.size());
}

TEST_F(BouncyCastleTest, OpensWhatIsEncryptedHere) {
    using Maker = CMS::EnvelopeRecipient;
    const auto certificate = [](const char* who) { return cmstest::certificateOf(person(who)); };
    const std::vector<std::pair<std::string, Maker>> recipients{
        {"rsa:alice", Maker::rsaPkcs1(certificate("alice"))},
        {"rsa:bob", Maker::rsaOaep(certificate("bob"))},
        {"rsa:bob", Maker::rsaOaep(certificate("bob"), {Hasher::SHA512, Hasher::SHA1, bufferOf("label")})},
        {"agree:p256", Maker(certificate("p256"))},
        {"agree:p384", Maker(certificate("p384"))},
        {"agree:p521", Maker(certificate("p521"))},
        {"agree:p256", Maker::keyAgreement(certificate("p256"), {Hasher::SHA1, true})},
        {"kek:kek", Maker::keyEncryptionKey(bufferOf(std::string(32, '\x42')), bufferOf("kek"))},
        {"password:secret", Maker::password(bufferOf("secret"), {1000, Hasher::SHA256})},
    };
    std::size_t count = 0;
    const auto encrypt = [&](const std::string& who, const std::vector<Maker>& to, CMS::ContentCipher cipher,
                             bool der) {
        CMS::EnvelopeOptions options;
        options.cipher = cipher;
        options.encoding = der ? CMS::EnvelopeEncoding::der : CMS::EnvelopeEncoding::ber;
        options.bodyLength = m_body.size();
        CMS::EnvelopeWriter writer(to, options);
        Norvane::MemoryMediaOut made;
        writer.attach(made);
        body(writer);
        writer.end();
        const std::string name = "ours" + std::to_string(++count);
        keep(name, made);
        task(name + "-" + who, "decrypt " + name + " body " + who);
    };
    std::vector<Maker> everybody;
    for (const auto& [who, to] : recipients) {
        everybody.push_back(to);
        for (const auto cipher : {CMS::ContentCipher::aes128Cbc, CMS::ContentCipher::aes256Cbc})
            for (const bool der : {true, false})
                encrypt(who, {to}, cipher, der);
        // This version of it opens authenticated messages with RSA keys alone.
        if (who.rfind("rsa", 0) == 0)
            for (const auto cipher : {CMS::ContentCipher::aes128Gcm, CMS::ContentCipher::aes256Gcm})
                for (const bool der : {true, false})
                    encrypt(who, {to}, cipher, der);
    }
    for (const auto& [who, to] : recipients)
        encrypt(who, everybody, CMS::ContentCipher::aes192Cbc, false);
    allAreDone(count);
}

TEST_F(BouncyCastleTest, EncryptsWhatIsOpenedHere) {
    struct Made {
        std::string file;
        std::string to;
        bool authenticated;
    };
    std::vector<Made> all;
    const std::vector<std::string> recipients{"rsa:alice",
                                              "rsa-key:alice",
                                              "oaep:bob:SHA-1",
                                              "oaep:bob:SHA-256",
                                              "oaep:bob:SHA-512:label",
                                              "agree:p256:ecdh-sha1:P-256:128",
                                              "agree:p256:ecdh-sha256:P-256:256",
                                              "agree:p384:ecdh-sha384:P-384:256",
                                              "agree:p521:ecdh-sha512:P-521:256",
                                              "agree:p256:cofactor-sha1:P-256:192",
                                              "agree:p256:cofactor-sha256:P-256:256",
                                              "kek:kek",
                                              "password:secret:1024"};
    const auto encrypt = [&](const std::string& to, const std::string& cipher, const std::string& how) {
        all.push_back({"theirs" + std::to_string(all.size()), to, cipher.find("gcm") != std::string::npos});
        task(all.back().file, "encrypt " + cipher + " " + how + " body " + all.back().file + " " + to);
    };
    for (const std::string& to : recipients) {
        for (const char* cipher : {"aes128cbc", "aes256cbc"})
            for (const char* how : {"der plain", "ber plain"})
                encrypt(to, cipher, how);
        for (const char* cipher : {"aes128gcm", "aes256gcm"})
            for (const char* how : {"der plain", "ber plain", "der attributes"})
                encrypt(to, cipher, how);
    }
    encrypt("rsa:alice", "des3cbc", "der plain");
    allAreDone(all.size());

    using Reader = CMS::EnvelopeReader;
    std::list<NVX509::KeyCertificatePair> pairs;
    for (const char* who : {"alice", "bob", "p256", "p384", "p521"})
        pairs.push_back(cmstest::pairOf(person(who)));
    const CMS::KeyListLookup keys(pairs);
    for (const Made& one : all) {
        SCOPED_TRACE(one.file + " " + one.to + (one.authenticated ? " authenticated" : ""));
        Reader reader(file(one.file));
        ASSERT_EQ(reader.recipients().size(), 1U);
        const Reader::Recipient& recipient = reader.recipients().front();
        EXPECT_EQ(reader.isAuthenticated(), one.authenticated);
        if (one.to.rfind("kek", 0) == 0) {
            ASSERT_EQ(recipient.kind(), Reader::Recipient::keyEncryptionKey);
            ASSERT_TRUE(reader.open(recipient, bufferOf(std::string(32, '\x42')))) << reader.unsupported();
        } else if (one.to.rfind("password", 0) == 0) {
            ASSERT_TRUE(reader.openWithPassword(recipient, bufferOf("secret"))) << reader.unsupported();
        } else {
            ASSERT_TRUE(reader.open(keys)) << reader.unsupported();
        }
        Norvane::MemoryMediaOut clear;
        try {
            reader.write(clear);
        } catch (const Norvane::Exception& failure) {
            ADD_FAILURE() << failure.asString();
        }
        EXPECT_TRUE(textOf(clear) == m_body);
        EXPECT_EQ(reader.verdict(), Reader::Complete);
    }
}
