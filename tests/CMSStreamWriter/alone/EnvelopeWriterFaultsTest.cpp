// Failures that nobody outside can provoke: OpenSSL's functions are defined here, fail on demand, and otherwise
// forward.
#include "support/EnvelopeWriting.h"
#include "support/Faults.h"
#include "support/Thrown.h"

#include <openssl/kdf.h>
#include <openssl/rand.h>

using namespace cmstest;
using namespace norvtest;
using CMS::ContentCipher;
using CMS::EnvelopeEncoding;
using CMS::EnvelopeOptions;
using CMS::EnvelopeRecipient;

namespace {

/// How many calls of the failing function succeed before.
int s_passing = 0;

bool failsHere(const char* function) {
    if (s_depth != 0 || std::strcmp(s_failing, function) != 0 || s_passing-- > 0) {
        return false;
    }
    return fails(function);
}

} // namespace

REPLACEMENT int RAND_bytes(unsigned char* out, int count) {
    return failsHere("RAND_bytes") ? 0 : FORWARD(RAND_bytes, out, count);
}
REPLACEMENT int EVP_CIPHER_CTX_rand_key(EVP_CIPHER_CTX* context, unsigned char* key) {
    return failsHere("EVP_CIPHER_CTX_rand_key") ? 0 : FORWARD(EVP_CIPHER_CTX_rand_key, context, key);
}
REPLACEMENT int EVP_EncryptInit_ex(EVP_CIPHER_CTX* context, const EVP_CIPHER* cipher, ENGINE* engine,
                                   const unsigned char* key, const unsigned char* vector) {
    return failsHere("EVP_EncryptInit_ex") ? 0 : FORWARD(EVP_EncryptInit_ex, context, cipher, engine, key, vector);
}
REPLACEMENT int EVP_EncryptUpdate(EVP_CIPHER_CTX* context, unsigned char* out, int* outLength, const unsigned char* in,
                                  int inLength) {
    return failsHere("EVP_EncryptUpdate") ? 0 : FORWARD(EVP_EncryptUpdate, context, out, outLength, in, inLength);
}
REPLACEMENT int EVP_EncryptFinal_ex(EVP_CIPHER_CTX* context, unsigned char* out, int* outLength) {
    return failsHere("EVP_EncryptFinal_ex") ? 0 : FORWARD(EVP_EncryptFinal_ex, context, out, outLength);
}
REPLACEMENT int EVP_CIPHER_CTX_ctrl(EVP_CIPHER_CTX* context, int command, int number, void* argument) {
    return command == EVP_CTRL_AEAD_GET_TAG && failsHere("EVP_CIPHER_CTX_ctrl")
               ? 0
               : FORWARD(EVP_CIPHER_CTX_ctrl, context, command, number, argument);
}
REPLACEMENT int EVP_PKEY_get_group_name(const EVP_PKEY* key, char* name, std::size_t size, std::size_t* length) {
    return failsHere("EVP_PKEY_get_group_name") ? 0 : FORWARD(EVP_PKEY_get_group_name, key, name, size, length);
}
REPLACEMENT int EVP_PKEY_get_bn_param(const EVP_PKEY* key, const char* name, BIGNUM** number) {
    return failsHere("EVP_PKEY_get_bn_param") ? 0 : FORWARD(EVP_PKEY_get_bn_param, key, name, number);
}
REPLACEMENT EVP_PKEY_CTX* EVP_PKEY_CTX_dup(const EVP_PKEY_CTX* context) {
    return failsHere("EVP_PKEY_CTX_dup") ? nullptr : FORWARD(EVP_PKEY_CTX_dup, context);
}
REPLACEMENT int EVP_PKEY_encrypt_init(EVP_PKEY_CTX* context) {
    return failsHere("EVP_PKEY_encrypt_init") ? 0 : FORWARD(EVP_PKEY_encrypt_init, context);
}
REPLACEMENT int EVP_PKEY_encrypt(EVP_PKEY_CTX* context, unsigned char* out, std::size_t* outLength,
                                 const unsigned char* in, std::size_t inLength) {
    return failsHere("EVP_PKEY_encrypt") ? 0 : FORWARD(EVP_PKEY_encrypt, context, out, outLength, in, inLength);
}
REPLACEMENT int EVP_PKEY_keygen(EVP_PKEY_CTX* context, EVP_PKEY** key) {
    return failsHere("EVP_PKEY_keygen") ? 0 : FORWARD(EVP_PKEY_keygen, context, key);
}
REPLACEMENT int EVP_PKEY_derive(EVP_PKEY_CTX* context, unsigned char* key, std::size_t* length) {
    return failsHere("EVP_PKEY_derive") ? 0 : FORWARD(EVP_PKEY_derive, context, key, length);
}
REPLACEMENT int EVP_DigestInit_ex(EVP_MD_CTX* context, const EVP_MD* digest, ENGINE* engine) {
    return failsHere("EVP_DigestInit_ex") ? 0 : FORWARD(EVP_DigestInit_ex, context, digest, engine);
}
REPLACEMENT int EVP_DigestUpdate(EVP_MD_CTX* context, const void* octets, std::size_t length) {
    return failsHere("EVP_DigestUpdate") ? 0 : FORWARD(EVP_DigestUpdate, context, octets, length);
}
REPLACEMENT int EVP_DigestFinal_ex(EVP_MD_CTX* context, unsigned char* out, unsigned int* outLength) {
    return failsHere("EVP_DigestFinal_ex") ? 0 : FORWARD(EVP_DigestFinal_ex, context, out, outLength);
}
REPLACEMENT int EVP_KDF_derive(EVP_KDF_CTX* context, unsigned char* key, std::size_t length,
                               const OSSL_PARAM parameters[]) {
    return failsHere("EVP_KDF_derive") ? 0 : FORWARD(EVP_KDF_derive, context, key, length, parameters);
}
REPLACEMENT int PKCS5_PBKDF2_HMAC(const char* secret, int secretLength, const unsigned char* salt, int saltLength,
                                  int iterations, const EVP_MD* digest, int keyLength, unsigned char* key) {
    return failsHere("PKCS5_PBKDF2_HMAC")
               ? 0
               : FORWARD(PKCS5_PBKDF2_HMAC, secret, secretLength, salt, saltLength, iterations, digest, keyLength, key);
}

namespace {

const Addressee& one(const char* name) {
    static const std::vector<Addressee> all = addressees();
    for (const Addressee& addressee : all) {
        if (addressee.name == name) {
            return addressee;
        }
    }
    throw std::runtime_error(name);
}

/// The detail of the failure of a new writer, when the call of `function` after so many fails.
std::string madeWithout(const char* function, const EnvelopeRecipient& to, int passing = 0,
                        ContentCipher cipher = ContentCipher::aes256Cbc) {
    EnvelopeOptions options;
    options.cipher = cipher;
    ERR_clear_error();
    s_failing = function;
    s_passing = passing;
    const auto thrown = thrownBy([&] { const CMS::EnvelopeWriter writer({to}, options); });
    EXPECT_STREQ(s_failing, "") << function << " was not called";
    expectFailure(thrown, "CMS::EnvelopeWriter", 4, "CMSEnvelopeWriter");
    EXPECT_TRUE(errorQueueIsEmpty());
    return detailOf(thrown);
}
std::string madeWithout(const char* function, const char* recipient, int passing = 0,
                        ContentCipher cipher = ContentCipher::aes256Cbc) {
    return madeWithout(function, one(recipient).recipient, passing, cipher);
}
bool tellsOfRecipient(const std::string& detail) {
    return detail.starts_with("recipient 1 (") && detail.find("): 0x") != std::string::npos;
}

} // namespace

TEST(EnvelopeFaults, AContentKeyThatCannotBeMade) {
    EXPECT_TRUE(madeWithout("EVP_EncryptInit_ex", "rsa").starts_with("0x"));
    EXPECT_TRUE(madeWithout("EVP_EncryptInit_ex", "rsa", 1).starts_with("0x"));
    EXPECT_TRUE(madeWithout("EVP_CIPHER_CTX_rand_key", "rsa").starts_with("0x"));
    EXPECT_TRUE(madeWithout("RAND_bytes", "rsa").starts_with("0x"));
}

TEST(EnvelopeFaults, AContentKeyThatCannotBeEncrypted) {
    EXPECT_TRUE(tellsOfRecipient(madeWithout("EVP_PKEY_CTX_dup", "rsa")));
    EXPECT_TRUE(tellsOfRecipient(madeWithout("EVP_PKEY_encrypt", "oaep")));
    EXPECT_TRUE(tellsOfRecipient(madeWithout("EVP_PKEY_keygen", "P-256")));
    EXPECT_TRUE(tellsOfRecipient(madeWithout("EVP_PKEY_derive", "P-256")));
    EXPECT_TRUE(tellsOfRecipient(madeWithout("EVP_DigestInit_ex", "P-256")));
    for (int passing = 0; passing < 3; ++passing) { // the secret, a number, what the key is for
        EXPECT_TRUE(tellsOfRecipient(madeWithout("EVP_DigestUpdate", "P-256", passing)));
    }
    EXPECT_TRUE(tellsOfRecipient(madeWithout("EVP_DigestFinal_ex", "P-256")));
    EXPECT_TRUE(tellsOfRecipient(madeWithout("EVP_KDF_derive", EnvelopeRecipient(certificateOf(onCurve("X25519"))))));
    EXPECT_TRUE(tellsOfRecipient(madeWithout("EVP_EncryptInit_ex", "P-256", 2)));
    EXPECT_TRUE(tellsOfRecipient(madeWithout("EVP_EncryptUpdate", "P-256")));
    EXPECT_TRUE(tellsOfRecipient(madeWithout("EVP_EncryptUpdate", "kek16")));
    EXPECT_TRUE(tellsOfRecipient(madeWithout("RAND_bytes", "password", 1)));
    EXPECT_TRUE(tellsOfRecipient(madeWithout("RAND_bytes", "password", 2)));
    EXPECT_TRUE(tellsOfRecipient(madeWithout("RAND_bytes", "password", 3)));
    EXPECT_TRUE(tellsOfRecipient(madeWithout("PKCS5_PBKDF2_HMAC", "password")));
    EXPECT_TRUE(tellsOfRecipient(madeWithout("EVP_EncryptUpdate", "password", 1)));
}

TEST(EnvelopeFaults, AKeyThatCannotBePrepared) {
    const auto certificate = certificateOf(identities().rsa);
    s_failing = "EVP_PKEY_encrypt_init";
    s_passing = 0;
    const auto thrown = thrownBy([&] { EnvelopeRecipient recipient(certificate); });
    expectFailure(thrown, "CMS::EnvelopeRecipient", 4, "CMSEnvelopeWriter");
    EXPECT_TRUE(detailOf(thrown).starts_with("0x"));
    EXPECT_TRUE(errorQueueIsEmpty());
}

// OpenSSL does not always say that it had no memory: a key that can encrypt is not refused for it.
TEST(EnvelopeFaults, AKeyOfWhichOnceNothingIsTold) {
    const auto onP256 = certificateOf(onCurve("P-256"));
    const auto ofRsa = certificateOf(identities().rsa);
    s_passing = 0;
    s_failing = "EVP_PKEY_get_group_name";
    EXPECT_NO_THROW(EnvelopeRecipient recipient(onP256));
    s_failing = "EVP_PKEY_get_bn_param";
    EXPECT_NO_THROW(EnvelopeRecipient recipient(ofRsa));
    const During<int> says(s_error, ERR_R_MALLOC_FAILURE);
    s_failing = "EVP_PKEY_get_bn_param";
    EXPECT_THROW(EnvelopeRecipient recipient(ofRsa), std::bad_alloc);
    EXPECT_STREQ(s_failing, "");
    EXPECT_TRUE(errorQueueIsEmpty());
}

TEST(EnvelopeFaults, EncryptionThatFailsBreaksTheMessage) {
    const Bytes body = bodyOf(50000);
    using Way = std::tuple<ContentCipher, EnvelopeEncoding>;
    for (const auto& [cipher, encoding] :
         {Way{ContentCipher::aes128Gcm, EnvelopeEncoding::ber}, Way{ContentCipher::aes128Gcm, EnvelopeEncoding::der},
          Way{ContentCipher::aes128Cbc, EnvelopeEncoding::ber}, Way{ContentCipher::aes128Cbc, EnvelopeEncoding::der}}) {
        for (const char* function : {"EVP_EncryptUpdate", "EVP_EncryptFinal_ex", "EVP_CIPHER_CTX_ctrl"}) {
            if (cipher == ContentCipher::aes128Cbc && std::strcmp(function, "EVP_CIPHER_CTX_ctrl") == 0) {
                continue; // it has no tag
            }
            EnvelopeOptions options;
            options.cipher = cipher;
            options.encoding = encoding;
            Norvane::MemoryMediaOut target;
            CMS::EnvelopeWriter writer({one("rsa").recipient}, options);
            writer.attach(target);
            ERR_clear_error();
            s_failing = function;
            s_passing = 0;
            const bool writing = std::strcmp(function, "EVP_EncryptUpdate") == 0;
            const auto thrown = thrownBy([&] {
                writer.write(body.data(), static_cast<unsigned int>(body.size()));
                EXPECT_FALSE(writing);
                writer.end();
            });
            expectFailure(thrown, writing ? "CMS::EnvelopeWriter::write" : "CMS::EnvelopeWriter::end", 4,
                          "CMSEnvelopeWriter");
            EXPECT_TRUE(detailOf(thrown).starts_with("0x"));
            EXPECT_TRUE(errorQueueIsEmpty());
            const auto sent = target.content().length();
            EXPECT_TRUE(detailOf(thrownBy([&] { writer.end(); })).starts_with("the message is broken"));
            EXPECT_EQ(target.content().length(), sent);
            EXPECT_FALSE(target.ended());
        }
    }
}
