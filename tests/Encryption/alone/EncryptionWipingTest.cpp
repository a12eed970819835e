// What becomes of the memory in which keys were.

#include "support/Ciphers.h"
#include "support/Wiping.h"

#include <openssl/evp.h>

using namespace ciphertest;

namespace {

const Facts& idea = allCiphers()[1];

/// The number of wiped memories in which the key stood.
template <class Work> std::size_t wipesOfKey(Work work) {
    return norvtest::wipesOf(norvtest::textOf(keyFor(idea)), work);
}

TEST(Wiping, IdeasKeyIsWipedWithTheStream) {
    EXPECT_EQ(wipesOfKey([] { const EncrypterMediaOut out(idea.cipher, keyFor(idea), ivFor(idea)); }), 1U);
    EXPECT_EQ(wipesOfKey([] { const DecrypterMediaOut out(idea.cipher, keyFor(idea), ivFor(idea)); }), 1U);
}

TEST(Wiping, IdeasKeyIsWipedAtTheEndAlready) {
    EncrypterMediaOut out(idea.cipher, keyFor(idea), ivFor(idea));
    Norvane::MemoryMediaOut target;
    out.attach(target);
    EXPECT_EQ(wipesOfKey([&] { out.end(); }), 1U);
}

TEST(Wiping, EachCopyOfIdeasKeyIsWiped) {
    EXPECT_EQ(wipesOfKey([] {
                  EVP_CIPHER_CTX* one = EVP_CIPHER_CTX_new();
                  EVP_CIPHER_CTX* other = EVP_CIPHER_CTX_new();
                  EVP_EncryptInit(one, Norvane::Crypto::initializeCipher(idea.cipher), keyFor(idea).data(),
                                  ivFor(idea).data());
                  EVP_CIPHER_CTX_copy(other, one);
                  EVP_CIPHER_CTX_free(one);
                  EVP_CIPHER_CTX_free(other);
              }),
              2U);
}

} // namespace
