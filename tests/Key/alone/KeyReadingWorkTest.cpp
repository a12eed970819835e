// What reading a private key takes OpenSSL, counted in allocations: a program of its own, since these can be counted only from a
// process's beginning.

#include <norvcrypto/Crypto.h>
#include <norvcrypto/Key.h>

#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>

namespace {

long s_allocations = 0;

void* counted(std::size_t size, const char* /*file*/, int /*line*/) {
    ++s_allocations;
    return std::malloc(size);
}
void* resized(void* memory, std::size_t size, const char* /*file*/, int /*line*/) {
    ++s_allocations;
    return std::realloc(memory, size);
}
void given(void* memory, const char* /*file*/, int /*line*/) {
    std::free(memory);
}

template <auto Free> struct With {
    template <class T> void operator()(T* object) const { Free(object); }
};
using KeyPtr = std::unique_ptr<EVP_PKEY, With<EVP_PKEY_free>>;
using InfoPtr = std::unique_ptr<PKCS8_PRIV_KEY_INFO, With<PKCS8_PRIV_KEY_INFO_free>>;

Norvane::Buffer pkcs8(EVP_PKEY* key) {
    const InfoPtr info(EVP_PKEY2PKCS8(key));
    unsigned char* at = nullptr;
    const int length = i2d_PKCS8_PRIV_KEY_INFO(info.get(), &at);
    Norvane::Buffer der(at, static_cast<unsigned int>(length), false);
    OPENSSL_free(at);
    return der;
}

template <class Read> long allocationsOf(Read read) {
    read(); // what is looked up once
    s_allocations = 0;
    read();
    return s_allocations;
}

TEST(KeyReadingWork, PrivateKeysTakeHalfOfWhatOpenSslTakesWithoutBeingToldTheKind) {
    ASSERT_EQ(CRYPTO_set_mem_functions(counted, resized, given), 1);
    Norvane::Crypto::initialize();
    for (const KeyPtr& key : {KeyPtr(EVP_RSA_gen(2048)), KeyPtr(EVP_EC_gen("P-256"))}) {
        const Norvane::Buffer der = pkcs8(key.get());
        const long untold = allocationsOf([&] {
            const unsigned char* at = der.data();
            EXPECT_NE(KeyPtr(d2i_AutoPrivateKey(nullptr, &at, static_cast<long>(der.length()))), nullptr);
        });
        const long ours = allocationsOf([&] {
            const Norvane::Crypto::RefKey read(Norvane::Crypto::Key::PRIVATE_KEY);
            read->read(der, false);
        });
        EXPECT_LT(ours, untold / 2) << EVP_PKEY_get0_type_name(key.get());
    }
}

} // namespace
