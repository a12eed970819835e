// The order in which the library starts and stops OpenSSL. This program defines the functions that are called, which
// also shows that a program's own `openssl_init_with_rng` replaces the library's.

#include "support/Interpose.h"

#include <norvcrypto/Crypto.h>

#include <openssl/crypto.h>
#include <openssl/ssl.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

namespace {

std::vector<std::string>* s_calls = nullptr;

void note(const std::string& call) {
    if (s_calls != nullptr) {
        s_calls->push_back(call);
    }
}

std::string numbered(const char* name, std::uint64_t options) {
    std::ostringstream text;
    text << name << " 0x" << std::hex << options;
    return text.str();
}

} // namespace

extern "C" {

int openssl_init_with_rng() {
    note("openssl_init_with_rng");
    return 0; // what it answers is ignored
}

int OPENSSL_init_crypto(std::uint64_t options, const OPENSSL_INIT_SETTINGS* settings) {
    note(numbered("OPENSSL_init_crypto", options));
    return norvtest::next<&OPENSSL_init_crypto>("OPENSSL_init_crypto")(options, settings);
}

int OPENSSL_init_ssl(std::uint64_t options, const OPENSSL_INIT_SETTINGS* settings) {
    note(numbered("OPENSSL_init_ssl", options));
    return norvtest::next<&OPENSSL_init_ssl>("OPENSSL_init_ssl")(options, settings);
}
}

namespace {

TEST(StartSequence, RandomGeneratorCiphersDigestsTlsErrorTexts) {
    std::vector<std::string> calls;
    const norvtest::During<std::vector<std::string>*> recording(s_calls, &calls);
    Norvane::Crypto::initialize();
    // OPENSSL_init_ssl starts the crypto library itself: of those inner calls only the order of the outer ones counts.
    std::vector<std::string> outer;
    for (const std::string& call : calls) {
        if (call == "openssl_init_with_rng" || call == "OPENSSL_init_crypto 0x4" || call == "OPENSSL_init_crypto 0x8" ||
            call.starts_with("OPENSSL_init_ssl")) {
            outer.push_back(call);
        }
    }
    // 0x4: all ciphers; 0x8: all digests; 0: the TLS library; 0x200002: error texts of TLS and of the crypto library.
    const std::vector<std::string> expected{"openssl_init_with_rng", "OPENSSL_init_crypto 0x4",
                                            "OPENSSL_init_crypto 0x8", "OPENSSL_init_ssl 0x0",
                                            "OPENSSL_init_ssl 0x200002"};
    EXPECT_EQ(outer, expected);
}

TEST(StartSequence, ASecondCallRepeatsAllOfIt) {
    Norvane::Crypto::initialize();
    std::vector<std::string> calls;
    const norvtest::During<std::vector<std::string>*> recording(s_calls, &calls);
    Norvane::Crypto::initialize();
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "openssl_init_with_rng"), 1);
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "OPENSSL_init_crypto 0x4"), 1);
}

TEST(StopSequence, DoesNotEndOpenSslForGood) {
    Norvane::Crypto::initialize();
    std::vector<std::string> calls;
    {
        const norvtest::During<std::vector<std::string>*> recording(s_calls, &calls);
        Norvane::Crypto::cleanup();
    }
    Norvane::Crypto::initialize();
    EXPECT_NE(EVP_get_digestbyname("SHA256"), nullptr);
    EXPECT_NE(EVP_get_cipherbyname("AES-128-CBC"), nullptr);
}

} // namespace
