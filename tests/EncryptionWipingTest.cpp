// What becomes of the memory in which keys were. This program stands in for the function with which OpenSSL wipes, and
// looks at what is wiped.

#include "support/Ciphers.h"
#include "support/Interpose.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>

using namespace ciphertest;

namespace {

/// What is looked for; empty while nothing is watched.
std::string s_secret;
int s_wipes = 0;

} // namespace

extern "C" void OPENSSL_cleanse(void* memory, std::size_t length) {
    if (!s_secret.empty() && std::string(static_cast<char*>(memory), length).find(s_secret) != std::string::npos) {
        ++s_wipes;
    }
    norvtest::next<&OPENSSL_cleanse>("OPENSSL_cleanse")(memory, length);
}

namespace {

/// The number of wiped memories in which the key stood.
template <class Work> int wipesOfKey(const Facts& facts, Work work) {
    s_wipes = 0;
    s_secret = norvtest::textOf(keyFor(facts));
    work();
    s_secret.clear();
    return s_wipes;
}

const Facts& idea = allCiphers()[1];

TEST(Wiping, IdeasKeyIsWipedWithTheStream) {
    EXPECT_EQ(wipesOfKey(idea, [] { const EncrypterMediaOut out(idea.cipher, keyFor(idea), ivFor(idea)); }), 1);
    EXPECT_EQ(wipesOfKey(idea, [] { const DecrypterMediaOut out(idea.cipher, keyFor(idea), ivFor(idea)); }), 1);
}

TEST(Wiping, IdeasKeyIsWipedAtTheEndAlready) {
    EncrypterMediaOut out(idea.cipher, keyFor(idea), ivFor(idea));
    Norvane::MemoryMediaOut target;
    out.attach(target);
    EXPECT_EQ(wipesOfKey(idea, [&] { out.end(); }), 1);
}

TEST(Wiping, EachCopyOfIdeasKeyIsWiped) {
    EXPECT_EQ(wipesOfKey(idea,
                         [] {
                             EVP_CIPHER_CTX* one = EVP_CIPHER_CTX_new();
                             EVP_CIPHER_CTX* other = EVP_CIPHER_CTX_new();
                             EVP_EncryptInit(one, Norvane::Crypto::initializeCipher(idea.cipher), keyFor(idea).data(),
                                             ivFor(idea).data());
                             EVP_CIPHER_CTX_copy(other, one);
                             EVP_CIPHER_CTX_free(one);
                             EVP_CIPHER_CTX_free(other);
                         }),
              2);
}

} // namespace
