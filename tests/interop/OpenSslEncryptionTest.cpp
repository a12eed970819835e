// What the tool encrypts, OpenSSL decrypts; what OpenSSL encrypts, the tool decrypts.

#include "support/JudgedEncryption.h"

using namespace interop;

namespace {

class OpenSslEncryptionTest : public JudgedEncryption {
protected:
    void exchangeWithOpenSsl(Program program, const std::string& command) {
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

TEST_F(OpenSslEncryptionTest, OpenSslCms) {
    exchangeWithOpenSsl(Program::opensslCms, "cms");
}

TEST_F(OpenSslEncryptionTest, OpenSslSmime) {
    exchangeWithOpenSsl(Program::opensslSmime, "smime");
}

TEST_F(OpenSslEncryptionTest, PemInBothDirections) {
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
TEST_F(OpenSslEncryptionTest, CiphersOfLongAgo) {
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
TEST_F(OpenSslEncryptionTest, IdeaOnlyWithOurselves) {
    const std::string body = bodyOf(4097);
    work.write("body", body);
    toolEncrypts({body.size(), {"idea-cbc", "", ""}, true, false});
    const Answer printed = in({"openssl", "cms", "-cmsout", "-print", "-noout", "-inform", "DER", "-in", "msg"});
    EXPECT_NE(std::string::npos, printed.out.find("algorithm: idea-cbc (1.3.6.1.4.1.188.7.1.1.2)"));
    toolDecrypts();
    expectBody(body);
}

} // namespace
