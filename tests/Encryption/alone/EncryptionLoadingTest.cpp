// When libgcrypt is loaded: by the first key for IDEA. A program of its own, since that happens once in a process.

#include "support/Ciphers.h"

#include <norvcrypto/Crypto.h>

#include <dlfcn.h>

namespace {

using namespace ciphertest;
using namespace Norvane::Crypto;

bool isLoaded() {
    void* const library = dlopen("libgcrypt.so.20", RTLD_NOW | RTLD_NOLOAD);
    if (library != nullptr) {
        dlclose(library);
    }
    return library != nullptr;
}

TEST(Loading, LibgcryptComesWithTheFirstKeyForIdea) {
    initialize();
    for (const Facts& facts : allCiphers()) {
        if (facts.cipher != IDEA_CBC) {
            EXPECT_EQ(decrypted(facts, encrypted(facts, "body")), "body");
        }
    }
    EXPECT_NE(initializeCipher(IDEA_CBC), nullptr);
    EXPECT_FALSE(isLoaded());
    const Facts& idea = allCiphers()[1];
    ASSERT_EQ(idea.cipher, IDEA_CBC);
    EXPECT_EQ(decrypted(idea, encrypted(idea, "body")), "body");
    EXPECT_TRUE(isLoaded());
}

} // namespace
