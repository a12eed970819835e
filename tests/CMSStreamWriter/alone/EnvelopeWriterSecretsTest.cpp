// Content keys, key-encryption keys and passwords are wiped before their memory is given back; so is clear text, in the other
// streams of CMS, too.
#include "support/EnvelopeWriting.h"
#include "support/FreedMemory.h"
#include "support/Interpose.h"
#include "support/Wiping.h"

#include <norvcrypto/CMSEncryptionMedia.h>
#include <norvcrypto/CMSEnvelopeReader.h>
#include <norvcrypto/CMSSignerMedia.h>

#include <openssl/kdf.h>

using namespace cmstest;
using CMS::ContentCipher;
using CMS::EnvelopeOptions;
using CMS::EnvelopeRecipient;
using norvtest::freedWith;
using norvtest::wipesOf;

namespace {

const std::string s_contentKey = "the content key, 32 octets long.";
const std::string s_keyEncryptionKey = "sixteen octets!!";
const std::string s_password = "a password that is no other text";
std::string s_derived; ///< what was derived last

void* allocate(std::size_t size, const char* /*file*/, int /*line*/) {
    return std::malloc(size == 0 ? 1 : size);
}
void give(void* memory, const char* /*file*/, int /*line*/) {
    norvtest::noteFreed(memory, memory == nullptr ? 0 : malloc_usable_size(memory));
    std::free(memory);
}
void* move(void* memory, std::size_t size, const char* file, int line) {
    if (size == 0) {
        give(memory, file, line);
        return nullptr;
    }
    return std::realloc(memory, size);
}
const bool s_watching = CRYPTO_set_mem_functions(allocate, move, give) == 1;

Buffer bufferOfText(const std::string& text) {
    return Buffer(text.data(), static_cast<unsigned int>(text.size()), true);
}

void writeMessage(const std::vector<EnvelopeRecipient>& recipients) {
    for (const ContentCipher cipher : {ContentCipher::aes256Cbc, ContentCipher::aes256Gcm}) {
        EnvelopeOptions options;
        options.cipher = cipher;
        Norvane::NullMediaOut target;
        CMS::EnvelopeWriter writer(recipients, options);
        writer.attach(target);
        writer.write(bodyOf(100).data(), 100);
        writer.end();
    }
}

EnvelopeRecipient keyed() {
    return EnvelopeRecipient::keyEncryptionKey(bufferOfText(s_keyEncryptionKey), bufferOfText("name"));
}
EnvelopeRecipient withPassword() {
    return EnvelopeRecipient::password(bufferOfText(s_password), {1000});
}
std::vector<EnvelopeRecipient> allKinds() {
    return {EnvelopeRecipient(certificateOf(identities().rsa)),
            EnvelopeRecipient::rsaOaep(certificateOf(identities().rsa)),
            EnvelopeRecipient(certificateOf(onCurve("P-256"))),
            EnvelopeRecipient(certificateOf(onCurve("X25519"))),
            keyed(),
            withPassword()};
}

} // namespace

extern "C" int EVP_CIPHER_CTX_rand_key(EVP_CIPHER_CTX* /*context*/, unsigned char* key) {
    std::copy(s_contentKey.begin(), s_contentKey.end(), key);
    return 1;
}
extern "C" int EVP_KDF_derive(EVP_KDF_CTX* context, unsigned char* key, std::size_t length,
                              const OSSL_PARAM parameters[]) {
    const int answer = norvtest::next<&EVP_KDF_derive>("EVP_KDF_derive")(context, key, length, parameters);
    if (answer == 1 && norvtest::s_soughtSecret.empty()) {
        s_derived.assign(reinterpret_cast<const char*>(key), length);
    }
    return answer;
}
extern "C" int EVP_DigestFinal_ex(EVP_MD_CTX* context, unsigned char* out, unsigned int* length) {
    const int answer = norvtest::next<&EVP_DigestFinal_ex>("EVP_DigestFinal_ex")(context, out, length);
    if (answer == 1 && norvtest::s_soughtSecret.empty()) {
        s_derived.assign(reinterpret_cast<const char*>(out), static_cast<std::size_t>(EVP_MD_CTX_get_size(context)));
    }
    return answer;
}

TEST(EnvelopeSecrets, TheContentKeyIsWiped) {
    ASSERT_TRUE(s_watching);
    const auto recipients = allKinds();
    EXPECT_GE(wipesOf(s_contentKey, [&] { writeMessage(recipients); }), 2U);
    EXPECT_EQ(freedWith(s_contentKey, [&] { writeMessage(recipients); }), 0);
}

TEST(EnvelopeSecrets, TheContentKeyIsWipedWithoutAnEnd) {
    const auto recipients = allKinds();
    EXPECT_EQ(freedWith(s_contentKey, [&] { CMS::EnvelopeWriter writer(recipients, {ContentCipher::aes256Cbc}); }), 0);
}

TEST(EnvelopeSecrets, WhatRecipientsHoldIsWiped) {
    EXPECT_GE(wipesOf(s_keyEncryptionKey, [] { writeMessage({keyed()}); }), 1U);
    EXPECT_EQ(freedWith(s_keyEncryptionKey, [] { writeMessage({keyed()}); }), 0);
    EXPECT_GE(wipesOf(s_password, [] { writeMessage({withPassword()}); }), 1U);
    EXPECT_EQ(freedWith(s_password, [] { writeMessage({withPassword()}); }), 0);
    // Before anything is written there is the recipient's own copy alone.
    EXPECT_GE(wipesOf(s_keyEncryptionKey, [] { static_cast<void>(keyed()); }), 1U);
    EXPECT_GE(wipesOf(s_password, [] { static_cast<void>(withPassword()); }), 1U);
}

TEST(EnvelopeSecrets, TheContentKeyIsWipedBeforeAnythingIsWritten) {
    norvtest::wiped.clear();
    norvtest::watchingWipes = true;
    const CMS::EnvelopeWriter writer({keyed()}, {ContentCipher::aes256Cbc});
    norvtest::watchingWipes = false;
    EXPECT_EQ(std::count(norvtest::wiped.begin(), norvtest::wiped.end(), s_contentKey), 1);
}

/// OpenSSL wipes what its contexts hold. The keys that they were given lie at the front of places of their own.
TEST(EnvelopeSecrets, DerivedKeysAreWiped) {
    // The key that a digest makes is copied from the digest's place, which is wiped as well.
    for (const auto& [curve, places] : {std::pair("P-256", 2), std::pair("X25519", 1)}) {
        const EnvelopeRecipient recipient(certificateOf(onCurve(curve)));
        s_derived.clear();
        norvtest::wiped.clear();
        norvtest::watchingWipes = true;
        writeMessage({recipient});
        norvtest::watchingWipes = false;
        ASSERT_EQ(s_derived.size(), 32U);
        const std::string zeros(48, '\0');
        EXPECT_EQ(std::count(norvtest::wiped.begin(), norvtest::wiped.end(), s_derived + zeros), places) << curve;
    }
}

TEST(EnvelopeSecrets, PlainTextThatWaitsIsWipedWithoutAnEnd) {
    const std::string text = "what was written and never encrypted";
    const EnvelopeRecipient recipient = keyed();
    const auto work = [&] {
        Norvane::NullMediaOut target;
        CMS::EnvelopeWriter writer({recipient});
        writer.attach(target);
        writer.write(bufferOfText(text));
    };
    EXPECT_GE(wipesOf(text, work), 1U);
    EXPECT_EQ(freedWith(text, work), 0);
}

/// Content of AuthEnvelopedData beyond 64 KiB is decrypted a piece at a time, all of them into one place.
TEST(EnvelopeSecrets, TheClearTextOfAReaderIsWiped) {
    const std::string text = "what only the reader may know";
    Bytes body(100000, 'x');
    std::copy(text.begin(), text.end(), body.end() - 1000);
    EnvelopeOptions options;
    options.cipher = ContentCipher::aes256Gcm;
    Norvane::MemoryMediaOut target;
    CMS::EnvelopeWriter writer({keyed()}, options);
    writer.attach(target);
    writer.write(bufferOf(body));
    writer.end();
    const Buffer message = target.content();
    const auto read = [&] {
        CMS::EnvelopeReader reader{Norvane::MemoryMediaIn(message)};
        ASSERT_TRUE(reader.open(reader.recipients().front(), bufferOfText(s_keyEncryptionKey)));
        Norvane::NullMediaOut out;
        reader.write(out);
        EXPECT_EQ(reader.verdict(), CMS::EnvelopeReader::Complete);
    };
    EXPECT_GE(wipesOf(text, read), 1U);
}

/// What the encrypting stream keeps until it is encrypted, though no caller marked it as secret.
TEST(EnvelopeSecrets, WhatTheEncryptingStreamGatheredIsWiped) {
    const std::string text = "what was gathered and then encrypted";
    const auto certificate = certificateOf(identities().rsa);
    EXPECT_GE(wipesOf(text,
                      [&] {
                          Norvane::NullMediaOut target;
                          CMS::EncrypterMediaOut encrypter(Crypto::AES_256_CBC, {certificate});
                          encrypter.attach(target);
                          encrypter.write(bufferOfText(text));
                          encrypter.end();
                      }),
              1U);
}

/// A signed body is no secret unless its caller says so, with Buffer::protect(): pieces that the stream's buffer holds whole, too.
TEST(EnvelopeSecrets, ProtectedPiecesOfASignedBodyAreWiped) {
    const std::string text = "what is signed and secret";
    for (const std::size_t length : {100U, 30000U}) {
        Bytes body(length, 'x');
        std::copy(text.begin(), text.end(), body.begin());
        const auto wipes = [&](bool secret) {
            Buffer piece = bufferOf(body);
            if (secret) {
                piece.protect();
            }
            return wipesOf(text, [&] {
                Norvane::NullMediaOut target;
                CMS::SignerMediaOut signer(Crypto::Hasher::SHA256, pairOf(identities().rsa));
                signer.attach(target);
                signer.write(piece);
                signer.end();
            });
        };
        EXPECT_EQ(wipes(false), 0U) << length;
        EXPECT_GE(wipes(true), 1U) << length;
    }
}
