// Failures that nobody outside can provoke: OpenSSL's functions are defined here, fail once on demand, and otherwise
// forward.

#include "support/AddressSpace.h"
#include "support/Ciphers.h"
#include "support/Faults.h"
#include "support/Thrown.h"

#include <gcrypt.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <new>

using namespace ciphertest;
using namespace norvtest;
using namespace Norvane::Crypto;

namespace {

/// What the function that fails next answers then.
int s_answer = 0;
/// While it is set, updates only note what they are asked for.
std::vector<int>* s_updates = nullptr;
/// Contexts that exist; only counted, never limited.
int s_contexts = 0;

void fail(const char* function, int answer = 0) {
    s_failing = function;
    s_answer = answer;
}

} // namespace

REPLACEMENT int RAND_bytes(unsigned char* bytes, int length) {
    return fails("RAND_bytes") ? s_answer : FORWARD(RAND_bytes, bytes, length);
}
REPLACEMENT const EVP_CIPHER* EVP_aes_128_cbc() {
    return fails("EVP_aes_128_cbc") ? nullptr : FORWARD(EVP_aes_128_cbc);
}
REPLACEMENT EVP_CIPHER_CTX* EVP_CIPHER_CTX_new() {
    if (fails("EVP_CIPHER_CTX_new")) {
        return nullptr;
    }
    ++s_contexts;
    return FORWARD(EVP_CIPHER_CTX_new);
}
REPLACEMENT void EVP_CIPHER_CTX_free(EVP_CIPHER_CTX* context) {
    s_contexts -= context == nullptr ? 0 : 1;
    FORWARD(EVP_CIPHER_CTX_free, context);
}
REPLACEMENT gcry_error_t gcry_cipher_open(gcry_cipher_hd_t* handle, int algorithm, int mode, unsigned int flags) {
    return fails("gcry_cipher_open") ? gcry_error(GPG_ERR_CIPHER_ALGO)
                                     : FORWARD(gcry_cipher_open, handle, algorithm, mode, flags);
}
REPLACEMENT gcry_error_t gcry_cipher_setkey(gcry_cipher_hd_t handle, const void* key, std::size_t length) {
    return fails("gcry_cipher_setkey") ? gcry_error(GPG_ERR_SELFTEST_FAILED)
                                       : FORWARD(gcry_cipher_setkey, handle, key, length);
}
REPLACEMENT gcry_error_t gcry_cipher_setiv(gcry_cipher_hd_t handle, const void* iv, std::size_t length) {
    return fails("gcry_cipher_setiv") ? gcry_error(GPG_ERR_INTERNAL) : FORWARD(gcry_cipher_setiv, handle, iv, length);
}
REPLACEMENT int EVP_EncryptInit(EVP_CIPHER_CTX* context, const EVP_CIPHER* cipher, const unsigned char* key,
                                const unsigned char* iv) {
    return fails("EVP_EncryptInit") ? 0 : FORWARD(EVP_EncryptInit, context, cipher, key, iv);
}
REPLACEMENT int EVP_DecryptInit(EVP_CIPHER_CTX* context, const EVP_CIPHER* cipher, const unsigned char* key,
                                const unsigned char* iv) {
    return fails("EVP_DecryptInit") ? 0 : FORWARD(EVP_DecryptInit, context, cipher, key, iv);
}
REPLACEMENT int EVP_EncryptUpdate(EVP_CIPHER_CTX* context, unsigned char* out, int* outLength, const unsigned char* in,
                                  int length) {
    if (s_updates != nullptr) {
        s_updates->push_back(length);
        *outLength = 16;
        return 1;
    }
    return fails("EVP_EncryptUpdate") ? 0 : FORWARD(EVP_EncryptUpdate, context, out, outLength, in, length);
}
REPLACEMENT int EVP_DecryptUpdate(EVP_CIPHER_CTX* context, unsigned char* out, int* outLength, const unsigned char* in,
                                  int length) {
    return fails("EVP_DecryptUpdate") ? 0 : FORWARD(EVP_DecryptUpdate, context, out, outLength, in, length);
}
REPLACEMENT int EVP_EncryptFinal_ex(EVP_CIPHER_CTX* context, unsigned char* out, int* outLength) {
    return fails("EVP_EncryptFinal_ex") ? 0 : FORWARD(EVP_EncryptFinal_ex, context, out, outLength);
}
REPLACEMENT int EVP_DecryptFinal_ex(EVP_CIPHER_CTX* context, unsigned char* out, int* outLength) {
    return fails("EVP_DecryptFinal_ex") ? 0 : FORWARD(EVP_DecryptFinal_ex, context, out, outLength);
}

namespace {

const Facts& aes128 = allCiphers()[5];

/// What ERR_raise(ERR_LIB_USER, 42) above reads as begins with this.
const char* const queued = "0x4000002a";

class Faults : public testing::Test {
protected:
    void SetUp() override {
        IntializationVectorGenerator::generateIV(1); // the generator keeps contexts of its own
        encrypted(allCiphers()[1], ""); // the first key for IDEA starts libgcrypt, whose functions are not to fail then
        ERR_clear_error();
        s_contexts = 0;
    }
    void TearDown() override {
        EXPECT_STREQ(s_failing, "") << "was not called";
        s_failing = "";
        EXPECT_EQ(s_contexts, 0) << "contexts were leaked";
    }
};

TEST_F(Faults, AGeneratorThatFailsThrowsWithItsErrors) {
    fail("RAND_bytes");
    const auto thrown = thrownBy([] { IntializationVectorGenerator::generateIV(16); });
    expectFailure(thrown, "Crypto::IntializationVectorGenerator::generateIV", 4, "Encryption", 26);
    EXPECT_EQ(detailOf(thrown).substr(0, 10), queued);
    EXPECT_TRUE(errorQueueIsEmpty());
    EXPECT_EQ(IntializationVectorGenerator::generateIV(16).length(), 16U) << "no retry, but no memory either";
}

TEST_F(Faults, AGeneratorThatCannotDoItIsNoGenerator) {
    fail("RAND_bytes", -1);
    expectFailure(thrownBy([] { IntializationVectorGenerator::generateIV(16); }),
                  "Crypto::IntializationVectorGenerator::generateIV", 4, "Encryption", 26);
}

TEST_F(Faults, AFailedEncryptionContextIsToldWithoutADetail) {
    fail("EVP_EncryptInit");
    const auto thrown = thrownBy([] { const EncrypterMediaOut out(aes128.cipher, keyFor(aes128), ivFor(aes128)); });
    expectFailure(thrown, "s_initializeEncryptionContext", 4, "Encryption", 114);
    EXPECT_TRUE(thrown.parameters().empty());
    EXPECT_FALSE(errorQueueIsEmpty()) << "the reason stays for getErrString()";
}

TEST_F(Faults, AFailedDecryptionContextIsNamedAfterTheOtherSideAndThatIsDeliberate) {
    fail("EVP_DecryptInit");
    const auto thrown = thrownBy([] { const DecrypterMediaOut out(aes128.cipher, keyFor(aes128), ivFor(aes128)); });
    expectFailure(thrown, "s_initializeEncryptionContext", 4, "Encryption", 210);
    EXPECT_TRUE(thrown.parameters().empty());
    EXPECT_FALSE(errorQueueIsEmpty());
}

TEST_F(Faults, ACipherThatOpenSslDoesNotHaveIsUnrecognized) {
    fail("EVP_aes_128_cbc");
    const auto encrypting = thrownBy([] { const EncrypterMediaOut out(aes128.cipher, keyFor(aes128), ivFor(aes128)); });
    expectFailure(encrypting, "Crypto::s_initializeEncryptionContext", 4, "Encryption", 106);
    EXPECT_EQ(detailOf(encrypting), "Unrecognized Cipher 0x1a3");
    fail("EVP_aes_128_cbc");
    const auto decrypting = thrownBy([] { const DecrypterMediaOut out(aes128.cipher, keyFor(aes128), ivFor(aes128)); });
    expectFailure(decrypting, "Crypto::s_initializeDecryptionContext", 4, "Encryption", 199);
    EXPECT_EQ(detailOf(decrypting), "Unrecognized Cipher 0x1a3");
    ERR_clear_error();
}

TEST_F(Faults, NoMemoryForAContextIsBadAlloc) {
    fail("EVP_CIPHER_CTX_new");
    EXPECT_THROW(EncrypterMediaOut(aes128.cipher, keyFor(aes128), ivFor(aes128)), std::bad_alloc);
    ERR_clear_error();
}

/// A stream on a target, and what it is to be given.
template <class Stream> struct Running {
    Stream stream{aes128.cipher, keyFor(aes128), ivFor(aes128)};
    Norvane::MemoryMediaOut target;
    Running() { stream.attach(target); }
};

TEST_F(Faults, AFailedEncryptionThrowsAndPassesNothingOn) {
    Running<EncrypterMediaOut> running;
    fail("EVP_EncryptUpdate");
    const auto thrown = thrownBy([&] { running.stream.write(bufferOf(sampleBytes(64))); });
    expectFailure(thrown, "Crypto::EncrypterMediaOut::write", 4, "Encryption", 150);
    EXPECT_EQ(detailOf(thrown).substr(0, 10), queued);
    EXPECT_TRUE(errorQueueIsEmpty());
    EXPECT_TRUE(running.target.content().empty());
    running.stream.write(bufferOf("body"));
    running.stream.end();
    EXPECT_EQ(textOf(running.target.content()), encrypted(aes128, "body")) << "the stream is intact";
}

TEST_F(Faults, AFailedEndOfEncryptionIsNamedWriteAndThatIsDeliberate) {
    Running<EncrypterMediaOut> running;
    running.stream.write(bufferOf("body"));
    fail("EVP_EncryptFinal_ex");
    const auto thrown = thrownBy([&] { running.stream.end(); });
    expectFailure(thrown, "Crypto::EncrypterMediaOut::write", 4, "Encryption", 168);
    EXPECT_EQ(detailOf(thrown).substr(0, 10), queued);
    EXPECT_TRUE(errorQueueIsEmpty());
    EXPECT_TRUE(running.target.content().empty());
    EXPECT_FALSE(running.target.ended());
    running.stream.end();
    EXPECT_EQ(textOf(running.target.content()), encrypted(aes128, "body")) << "it had not ended";
}

TEST_F(Faults, AFailedDecryptionThrowsAndPassesNothingOn) {
    Running<DecrypterMediaOut> running;
    fail("EVP_DecryptUpdate");
    const auto thrown = thrownBy([&] { running.stream.write(bufferOf(sampleBytes(64))); });
    expectFailure(thrown, "Crypto::Decrypter::write", 4, "Encryption", 246);
    EXPECT_EQ(detailOf(thrown).substr(0, 10), queued);
    EXPECT_TRUE(errorQueueIsEmpty());
    EXPECT_TRUE(running.target.content().empty());
}

TEST_F(Faults, AFailedEndOfDecryptionIsNamedUpdateAndThatIsDeliberate) {
    Running<DecrypterMediaOut> running;
    running.stream.write(bufferOf(encrypted(aes128, "body")));
    fail("EVP_DecryptFinal_ex");
    const auto thrown = thrownBy([&] { running.stream.end(); });
    expectFailure(thrown, "Crypto::Decrypter::update", 4, "Encryption", 264);
    EXPECT_EQ(detailOf(thrown).substr(0, 10), queued);
    EXPECT_TRUE(errorQueueIsEmpty());
    EXPECT_FALSE(running.target.ended());
    running.stream.end();
    EXPECT_EQ(textOf(running.target.content()), "body");
}

TEST_F(Faults, TheContextGoesWithTheEnd) {
    Running<EncrypterMediaOut> running;
    EXPECT_EQ(s_contexts, 1);
    running.stream.end();
    EXPECT_EQ(s_contexts, 0) << "the key is not kept longer than it is needed";
}

const Facts& idea = allCiphers()[1];

/// Whether a reason of IDEA's own is queued: OpenSSL's say nothing but that a cipher failed.
bool isQueuedByIdea(int reason) {
    bool found = false;
    const char* function = "";
    while (const unsigned long code = ERR_get_error_all(nullptr, nullptr, &function, nullptr, nullptr)) {
        found = found || (ERR_GET_REASON(code) == reason && function == std::string("idea_cbc"));
    }
    return found;
}

TEST_F(Faults, IdeaThatLibgcryptRefusesIsAFailedContext) {
    for (const char* function : {"gcry_cipher_open", "gcry_cipher_setkey"}) {
        fail(function);
        const auto encrypting = thrownBy([] { const EncrypterMediaOut out(idea.cipher, keyFor(idea), ivFor(idea)); });
        expectFailure(encrypting, "s_initializeEncryptionContext", 4, "Encryption", 114);
        EXPECT_TRUE(isQueuedByIdea(EVP_R_INITIALIZATION_ERROR));
        fail(function);
        const auto decrypting = thrownBy([] { const DecrypterMediaOut out(idea.cipher, keyFor(idea), ivFor(idea)); });
        expectFailure(decrypting, "s_initializeEncryptionContext", 4, "Encryption", 210);
        ERR_clear_error();
    }
    EXPECT_EQ(decrypted(idea, encrypted(idea, "body")), "body");
}

TEST_F(Faults, IdeaThatFailsInTheMiddleIsAFailedWrite) {
    Norvane::MemoryMediaOut target;
    EncrypterMediaOut out(idea.cipher, keyFor(idea), ivFor(idea));
    out.attach(target);
    fail("gcry_cipher_setiv");
    expectFailure(thrownBy([&] { out.write(bufferOf(sampleBytes(64))); }), "Crypto::EncrypterMediaOut::write", 4,
                  "Encryption", 150);
    EXPECT_TRUE(target.content().empty());
    fail("gcry_cipher_setiv");
    expectFailure(thrownBy([&] { out.end(); }), "Crypto::EncrypterMediaOut::write", 4, "Encryption", 168);
    EXPECT_FALSE(target.ended());
    out.end();
}

TEST_F(Faults, IdeaThatFailsInTheMiddleSaysSoItself) {
    EVP_CIPHER_CTX* context = EVP_CIPHER_CTX_new();
    ASSERT_EQ(EVP_EncryptInit(context, initializeCipher(idea.cipher), keyFor(idea).data(), ivFor(idea).data()), 1);
    fail("gcry_cipher_setiv");
    unsigned char out[16]{};
    int length = 0;
    EXPECT_EQ(EVP_EncryptUpdate(context, out, &length, ivFor(idea).data(), 8), 0);
    EXPECT_TRUE(isQueuedByIdea(ERR_R_INTERNAL_ERROR));
    EVP_CIPHER_CTX_free(context);
}

TEST_F(Faults, ACopyOfIdeaThatLibgcryptRefusesFailsAndHoldsNothing) {
    for (const char* function : {"gcry_cipher_open", "gcry_cipher_setkey"}) {
        EVP_CIPHER_CTX* original = EVP_CIPHER_CTX_new();
        EVP_CIPHER_CTX* copy = EVP_CIPHER_CTX_new();
        ASSERT_EQ(EVP_EncryptInit(original, initializeCipher(idea.cipher), keyFor(idea).data(), ivFor(idea).data()), 1);
        fail(function);
        EXPECT_EQ(EVP_CIPHER_CTX_copy(copy, original), 0);
        EXPECT_EQ(EVP_CIPHER_CTX_copy(copy, original), 1) << "the original is intact";
        EVP_CIPHER_CTX_free(original);
        EVP_CIPHER_CTX_free(copy);
        ERR_clear_error();
    }
}

TEST_F(Faults, IdeaThatRefusesANewKeyDoesNotGoOnUnderTheOldOne) {
    EVP_CIPHER_CTX* context = EVP_CIPHER_CTX_new();
    ASSERT_EQ(EVP_EncryptInit(context, initializeCipher(idea.cipher), keyFor(idea).data(), ivFor(idea).data()), 1);
    fail("gcry_cipher_setkey");
    EXPECT_EQ(EVP_EncryptInit(context, nullptr, ivFor(aes128).data(), nullptr), 0);
    unsigned char out[16]{};
    int length = 0;
    EXPECT_EQ(EVP_EncryptUpdate(context, out, &length, ivFor(idea).data(), 8), 0);
    EVP_CIPHER_CTX_free(context);
    ERR_clear_error();
}

TEST_F(Faults, AWriteOfMoreThanAGibibyteGoesInPieces) {
    constexpr std::size_t length = (std::size_t{1} << 30U) + 5;
    const norvtest::AddressSpace bytes(length, PROT_NONE);
    std::vector<int> updates;
    {
        Running<EncrypterMediaOut> running;
        const During<std::vector<int>*> noting(s_updates, &updates);
        running.stream.write(bytes.data(), static_cast<unsigned int>(length));
        EXPECT_EQ(running.target.content().length(), 32U);
    }
    EXPECT_EQ(updates, (std::vector<int>{1 << 30, 5}));
}

} // namespace
