#pragma once

/// \file
/// What the tests of encryption against other programs share. Every size of body goes through every program in both
/// directions; ciphers and counts of recipients are dealt out so that each meets each size, each program and the other.

#include "support/Cms.h"
#include "support/JudgedTest.h"

#include <array>
#include <functional>

namespace interop {

inline constexpr std::array<std::size_t, 9> sizes{0, 1, 15, 16, 17, 4095, 4096, 4097, 10'000'000};

struct Cipher {
    const char* name;
    const char* openssl;
    const char* gpgsm;
};
inline constexpr std::array<Cipher, 4> ciphers{{{"aes-128-cbc", "-aes128", "AES128"},
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

enum class Program : std::size_t { opensslCms, opensslSmime, cmsutil, gpgsm };
inline constexpr std::array<Program, 4> programs{Program::opensslCms, Program::opensslSmime, Program::cmsutil,
                                                 Program::gpgsm};

/// The exchanges of one program.
inline std::vector<Exchange> exchangesOf(Program program) {
    const auto turn = static_cast<std::size_t>(program);
    std::vector<Exchange> all;
    for (std::size_t at = 0; at < sizes.size(); ++at)
        all.push_back({sizes[at], ciphers[(at + turn) % ciphers.size()], (at / 2 + turn) % 2 == 1, at % 2 == 0});
    return all;
}

/// A body in which no piece repeats.
inline std::string bodyOf(std::size_t size) {
    const norvauthority::Bytes body = cmstest::bodyOf(size);
    return {body.begin(), body.end()};
}

class JudgedEncryption : public JudgedTest {
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
    void exchangeAll(Program program, const std::function<void(const Exchange&)>& encrypts,
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
};

} // namespace interop
