// What the tool encrypts, other programs decrypt; what they encrypt, the tool decrypts. Every size of body goes through
// every program in both directions; ciphers and counts of recipients are dealt out so that each meets each size, each
// program and the other.

#include "support/JudgedTest.h"

#include <array>
#include <cstdint>
#include <functional>

using namespace interop;

namespace {

constexpr std::array<std::size_t, 9> sizes{0, 1, 15, 16, 17, 4095, 4096, 4097, 10'000'000};

struct Cipher {
    const char* name;
    const char* openssl;
    const char* gpgsm;
};
constexpr std::array<Cipher, 4> ciphers{{{"aes-128-cbc", "-aes128", "AES128"},
                                         {"aes-192-cbc", "-aes192", "AES192"},
                                         {"aes-256-cbc", "-aes256", "AES256"},
                                         {"des-ede3-cbc", "-des3", "3DES"}}};

/// One exchange: who reads it is always Bob.
struct Exchange {
    std::size_t size;
    Cipher cipher;
    bool several;
    bool streamed;

    [[nodiscard]] std::string text() const {
        return std::to_string(size) + " bytes, " + cipher.name + (several ? ", three recipients" : "") +
               (streamed ? ", streamed" : "");
    }
};

/// The exchanges of one program.
std::vector<Exchange> exchangesOf(std::size_t program) {
    std::vector<Exchange> all;
    for (std::size_t at = 0; at < sizes.size(); ++at)
        all.push_back({sizes[at], ciphers[(at + program) % ciphers.size()], (at / 2 + program) % 2 == 1, at % 2 == 0});
    return all;
}

std::string bodyOf(std::size_t size) {
    std::string body(size, '\0');
    std::uint32_t state = 0x9E3779B9U;
    for (char& octet : body) {
        state = state * 1664525U + 1013904223U;
        octet = static_cast<char>(state >> 24U);
    }
    return body;
}

class EncryptionInteropTest : public JudgedTest {
protected:
    void SetUp() override {
        JudgedTest::SetUp();
        put("alice", alice());
        put("bob", bob());
        put("carol", carol());
    }
    static std::vector<std::string> recipientsOf(const Exchange& exchange) {
        return exchange.several ? std::vector<std::string>{"carol", "bob", "alice"} : std::vector<std::string>{"bob"};
    }
    void toolEncrypts(const Exchange& exchange) {
        std::vector<std::string> arguments{norvtest::norvcryptProgram,
                                           "encrypt",
                                           "--cipher",
                                           exchange.cipher.name,
                                           "--in",
                                           "body",
                                           "--out",
                                           "msg",
                                           "--to"};
        for (const std::string& who : recipientsOf(exchange))
            arguments.push_back(who + ".pem");
        succeeds(arguments);
    }
    void toolDecrypts() {
        const Answer answer = in({norvtest::norvcryptProgram, "decrypt", "--cert", "bob.pem", "--key", "bob.key",
                                  "--in", "msg", "--out", "out"});
        EXPECT_EQ(0, answer.status);
        EXPECT_NE(std::string::npos, answer.err.find(": decrypted with the key in bob.key")) << answer.err;
    }
    /// The body is what came out, and nothing stays for the next exchange.
    void expectBody(const std::string& body) {
        ASSERT_TRUE(work.exists("out"));
        EXPECT_TRUE(body == work.read("out"));
        std::filesystem::remove(work.path("out"));
        std::filesystem::remove(work.path("msg"));
    }
    void exchangeAll(std::size_t program, const std::function<void(const Exchange&)>& encrypts,
                     const std::function<void()>& decrypts) {
        for (const Exchange& exchange : exchangesOf(program)) {
            SCOPED_TRACE(exchange.text());
            const std::string body = bodyOf(exchange.size);
            work.write("body", body);
            toolEncrypts(exchange);
            decrypts();
            expectBody(body);
            encrypts(exchange);
            toolDecrypts();
            expectBody(body);
        }
    }
    void exchangeWithOpenSsl(std::size_t program, const std::string& command) {
        exchangeAll(
            program,
            [&](const Exchange& exchange) {
                std::vector<std::string> arguments{"openssl", command, "-encrypt", "-binary", "-outform", "DER"};
                if (exchange.streamed)
                    arguments.emplace_back("-stream");
                arguments.insert(arguments.end(), {exchange.cipher.openssl, "-in", "body", "-out", "msg"});
                for (const std::string& who : recipientsOf(exchange))
                    arguments.push_back(who + ".pem");
                succeeds(arguments);
                // Indefinite lengths, as a sender writes them who does not know yet how much comes.
                EXPECT_EQ(exchange.streamed, work.read("msg").starts_with("\x30\x80"));
            },
            [&] {
                succeeds({"openssl", command, "-decrypt", "-binary", "-inform", "DER", "-in", "msg", "-recip",
                          "bob.pem", "-inkey", "bob.key", "-out", "out"});
            });
    }
};

TEST_F(EncryptionInteropTest, EachSizeMeetsEachCipherAndBothCountsOfRecipients) {
    for (const std::size_t size : sizes)
        for (const Cipher& cipher : ciphers) {
            bool met = false;
            for (std::size_t program = 0; program < 4; ++program)
                for (const Exchange& exchange : exchangesOf(program))
                    met = met || (exchange.size == size && exchange.cipher.name == std::string(cipher.name));
            EXPECT_TRUE(met) << size << cipher.name;
        }
    for (std::size_t program = 0; program < 4; ++program)
        for (const bool several : {false, true})
            for (const Cipher& cipher : ciphers) {
                bool met = false;
                for (std::size_t other = 0; other < 4; ++other)
                    for (const Exchange& exchange : exchangesOf(other))
                        met = met || (exchange.several == several && exchange.cipher.name == std::string(cipher.name));
                EXPECT_TRUE(met) << several << cipher.name;
            }
}

TEST_F(EncryptionInteropTest, OpenSslCms) {
    exchangeWithOpenSsl(0, "cms");
}

TEST_F(EncryptionInteropTest, OpenSslSmime) {
    exchangeWithOpenSsl(1, "smime");
}

TEST_F(EncryptionInteropTest, Cmsutil) {
    if (!hasNss())
        GTEST_SKIP() << "the tools of NSS are not installed";
    makeNssDatabase();
    for (const char* who : {"alice", "bob", "carol"})
        importIntoNss(who);
    exchangeAll(
        2,
        [&](const Exchange& exchange) {
            // It chooses the cipher itself: AES-128.
            std::string addresses;
            for (const std::string& who : recipientsOf(exchange))
                addresses += (addresses.empty() ? "" : ",") + who + "@example.org";
            succeeds({"cmsutil", "-E", "-d", "nss", "-r", addresses, "-i", "body", "-o", "msg"});
        },
        [&] {
            succeeds({"cmsutil", "-D", "-d", "nss", "-i", "msg", "-o", "out"});
        });
}

TEST_F(EncryptionInteropTest, Gpgsm) {
    if (!hasGpgsm())
        GTEST_SKIP() << "gpgsm is not installed";
    makeGpgsmHome();
    // It answers 2 when it lacks the key of a recipient that comes before the one whose key it has.
    for (const char* who : {"alice", "bob"})
        importIntoGpgsm(who);
    succeeds({"gpgsm", "--batch", "--import", "carol.pem"});
    exchangeAll(
        3,
        [&](const Exchange& exchange) {
            std::vector<std::string> arguments{"gpgsm",    "--batch", "--cipher-algo", exchange.cipher.gpgsm,
                                               "--output", "msg"};
            for (const std::string& who : recipientsOf(exchange))
                arguments.insert(arguments.end(), {"--recipient", who + "@example.org"});
            arguments.insert(arguments.end(), {"--encrypt", "body"});
            succeeds(arguments);
        },
        [&] {
            succeeds({"gpgsm", "--batch", "--pinentry-mode", "loopback", "--passphrase-fd", "0", "--output", "out",
                      "--decrypt", "msg"},
                     "x\n");
        });
}

TEST_F(EncryptionInteropTest, PemInBothDirections) {
    const std::string body = bodyOf(5000);
    work.write("body", body);
    for (const char* command : {"cms", "smime"}) {
        succeeds({norvtest::norvcryptProgram, "encrypt", "--pem", "--to", "bob.pem", "--in", "body", "--out", "msg"});
        succeeds({"openssl", command, "-decrypt", "-binary", "-inform", "PEM", "-in", "msg", "-recip", "bob.pem",
                  "-inkey", "bob.key", "-out", "out"});
        expectBody(body);
        succeeds({"openssl", command, "-encrypt", "-binary", "-outform", "PEM", "-aes256", "-in", "body", "-out", "msg",
                  "bob.pem"});
        toolDecrypts();
        expectBody(body);
    }
}

/// DES, Blowfish and CAST5, which OpenSSL has in its legacy provider.
TEST_F(EncryptionInteropTest, CiphersOfLongAgo) {
    const std::vector<std::string> legacy{"-provider", "legacy", "-provider", "default"};
    const std::vector<std::pair<const char*, const char*>> old{
        {"des-cbc", "-des"}, {"bf-cbc", "-bf"}, {"cast5-cbc", "-cast"}};
    for (const auto& [name, option] : old)
        for (const std::size_t size : {std::size_t{0}, std::size_t{7}, std::size_t{8}, std::size_t{4097}}) {
            SCOPED_TRACE(std::string(name) + " " + std::to_string(size));
            const std::string body = bodyOf(size);
            work.write("body", body);
            toolEncrypts({size, {name, option, ""}, false, false});
            std::vector<std::string> arguments{"openssl", "cms",    "-decrypt", "-binary", "-inform", "DER",  "-in",
                                               "msg",     "-recip", "bob.pem",  "-inkey",  "bob.key", "-out", "out"};
            arguments.insert(arguments.end(), legacy.begin(), legacy.end());
            succeeds(arguments);
            expectBody(body);
            arguments = {"openssl", "cms",  "-encrypt", "-binary", "-outform", "DER",
                         "-in",     "body", "-out",     "msg",     option};
            arguments.insert(arguments.end(), legacy.begin(), legacy.end());
            arguments.emplace_back("bob.pem");
            succeeds(arguments);
            toolDecrypts();
            expectBody(body);
        }
}

/// None of the judges has IDEA: only the structure is theirs to read.
TEST_F(EncryptionInteropTest, IdeaOnlyWithOurselves) {
    const std::string body = bodyOf(4097);
    work.write("body", body);
    toolEncrypts({body.size(), {"idea-cbc", "", ""}, true, false});
    const Answer printed = in({"openssl", "cms", "-cmsout", "-print", "-noout", "-inform", "DER", "-in", "msg"});
    EXPECT_NE(std::string::npos, printed.out.find("algorithm: idea-cbc (1.3.6.1.4.1.188.7.1.1.2)"));
    toolDecrypts();
    expectBody(body);
}

} // namespace
