// What is left of keys and passphrases in memory that is given back, by the library or by OpenSSL at its request.

#include "support/FreedMemory.h"
#include "support/Pkcs12.h"
#include "support/Streams.h"

#include <authority/Authority.h>
#include <norvcrypto/CertBinding.h>
#include <norvcrypto/Crypto.h>
#include <norvcrypto/Key.h>

#include <openssl/crypto.h>
#include <openssl/x509.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace {

void* allocate(std::size_t size, const char* /*file*/, int /*line*/) {
    return std::malloc(size);
}
void give(void* memory, const char* /*file*/, int /*line*/) {
    norvtest::noteFreed(memory, malloc_usable_size(memory));
    std::free(memory);
}
void* move(void* memory, std::size_t size, const char* /*file*/, int /*line*/) {
    void* const moved = size == 0 ? nullptr : std::malloc(size);
    if (moved != nullptr && memory != nullptr) {
        std::memcpy(moved, memory, std::min(size, malloc_usable_size(memory)));
    }
    if (moved != nullptr || size == 0) {
        give(memory, nullptr, 0);
    }
    return moved;
}

// Before OpenSSL allocates anything.
const int s_watching = CRYPTO_set_mem_functions(allocate, move, give);

using Norvane::Buffer;
using Norvane::Crypto::Key;
using Norvane::Crypto::PrivateKey;
using Norvane::Crypto::RefKey;
using norvauthority::Bytes;
using norvtest::bufferOf;
using norvtest::freedWith;

/// Longer than what a string holds in itself.
const std::string s_passphrase = "correct horse battery staple";

const norvauthority::Identity& holder() {
    static const norvauthority::Identity identity =
        norvauthority::issue({.subject = {{"CN", "Holder"}}, .key = norvauthority::Key::ed25519(), .digest = ""});
    return identity;
}

class FreedMemory : public testing::Test {
protected:
    FreedMemory() {
        EXPECT_EQ(s_watching, 1);
        Norvane::Crypto::initialize();
    }
};

TEST_F(FreedMemory, TheTestSeesWhatIsNotWiped) {
    EXPECT_EQ(freedWith(s_passphrase, [] { const std::string copy(s_passphrase); }), 1);
    EXPECT_EQ(freedWith(s_passphrase, [] { OPENSSL_free(OPENSSL_strdup(s_passphrase.c_str())); }), 1);
}

TEST_F(FreedMemory, PassphrasesOfKeysAreNotLeftBehind) {
    const Buffer pem = bufferOf(holder().key.encryptedPem(s_passphrase));
    const Buffer given = bufferOf(s_passphrase);
    EXPECT_EQ(freedWith(s_passphrase, [&] { RefKey(Key::PRIVATE_KEY)->readPEM(pem, s_passphrase); }), 0);
    EXPECT_EQ(freedWith(s_passphrase, [&] { PrivateKey(nullptr).readUnattended(pem, &given); }), 0);
    RefKey key(new PrivateKey(holder().key.newReference()));
    EXPECT_EQ(freedWith(s_passphrase,
                        [&] {
                            Buffer out;
                            key->writePEM(out, s_passphrase);
                        }),
              0);
}

TEST_F(FreedMemory, PasswordsOfPkcs12FilesAreNotLeftBehind) {
    const Bytes der = norvtest::pkcs12({.key = &holder(), .certificate = &holder(), .password = s_passphrase});
    const auto store = norvtest::storeOf(der);
    EXPECT_EQ(freedWith(s_passphrase, [&] { store->read(s_passphrase); }), 0);
    static_cast<void>(norvtest::owned(*store));
}

TEST_F(FreedMemory, PassphrasesOfBindingsAreNotLeftBehind) {
    const std::string pem = holder().key.encryptedPem(s_passphrase);
    EXPECT_EQ(freedWith(s_passphrase,
                        [&] {
                            const Norvane::Crypto::RefCertBinding binding(1, Norvane::StringPattern("*"),
                                                                          Norvane::Crypto::CertBinding::X509, {}, 0, 0,
                                                                          pem.c_str(), nullptr, s_passphrase.c_str());
                            EXPECT_FALSE(binding.isNull());
                        }),
              0);
}

/// What OpenSSL's decoders leave behind is theirs: reading PEM, decrypting and checking add nothing to it.
TEST_F(FreedMemory, NoMoreOfKeysIsLeftBehindThanOpenSslsDecodingLeaves) {
    const Bytes info = holder().key.pkcs8();
    const std::string secret(info.end() - 32, info.end());
    const Buffer der(info.data(), static_cast<unsigned int>(info.size()), false);
    const Buffer pem = bufferOf(holder().key.pkcs8Pem());
    const Buffer sealed = bufferOf(holder().key.encryptedPem(s_passphrase));
    const Bytes file = norvtest::pkcs12({.key = &holder(), .password = s_passphrase});

    const auto byOpenSsl = [&](const Buffer& in, auto read) {
        BIO* source = BIO_new_mem_buf(in.data(), static_cast<int>(in.length()));
        const int left = freedWith(secret, [&] { EVP_PKEY_free(read(source)); });
        BIO_free(source);
        return left;
    };
    const int leftOfDer = byOpenSsl(der, [](BIO* source) { return d2i_PrivateKey_bio(source, nullptr); });
    const int leftOfFile = byOpenSsl(x509testing::buffer(file), [](BIO* source) {
        PKCS12_st* structure = d2i_PKCS12_bio(source, nullptr);
        EVP_PKEY* key = nullptr;
        EXPECT_EQ(PKCS12_parse(structure, s_passphrase.c_str(), &key, nullptr, nullptr), 1);
        PKCS12_free(structure);
        return key;
    });

    EXPECT_LE(freedWith(secret, [&] { RefKey(Key::PRIVATE_KEY)->read(der, false); }), leftOfDer);
    EXPECT_LE(freedWith(secret, [&] { RefKey(Key::PRIVATE_KEY)->readPEM(pem); }), leftOfDer);
    EXPECT_LE(freedWith(secret, [&] { RefKey(Key::PRIVATE_KEY)->readPEM(sealed, s_passphrase); }), leftOfDer);
    EXPECT_LE(freedWith(secret,
                        [&] {
                            const auto store = norvtest::storeOf(file);
                            store->read(s_passphrase);
                        }),
              leftOfFile);
}

} // namespace
