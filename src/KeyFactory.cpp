#include "Platform.h"
#include "failures/Raise.h"
#include "openssl/RsaGeneration.h"

#include <norvcrypto/BIO.h>
#include <norvcrypto/KeyFactory.h>

namespace Norvane::Crypto {

namespace {

/// One half of the pair, through its PEM text, which is wiped: the key shares nothing with the RSA structure.
RefKey halfOf(rsa_st* rsa, Key::Type type, bool (*write)(BIO*, rsa_st*), const failures::Failure& failure) {
    MemoryBIO pem;
    pem.protect();
    if (!write(pem, rsa)) {
        failures::raiseWithErrors(failure);
    }
    RefKey key(type);
    key->readPEM(pem);
    return key;
}

} // namespace

KeyGenerator::KeyGenerator() = default;
KeyGenerator::KeyGenerator(const KeyGenerator& other) = default;
KeyGenerator& KeyGenerator::operator=(const KeyGenerator& other) = default;
KeyGenerator::~KeyGenerator() = default;

std::pair<RefKey, RefKey> KeyGenerator::rsaGenerateKeyPair(unsigned int exponent, unsigned int bits) {
    const openssl::RsaPtr rsa = openssl::generateRsa(bits, exponent);
    fips_rsa_consistency_test(rsa.get()); // what it answers is the platform's affair
    // A generation that was refused shows as the first write's failure, with its own errors in front.
    RefKey publicKey = halfOf(rsa.get(), Key::PUBLIC_KEY, openssl::writeRsaPublicPem, failures::generatePublicKey);
    RefKey privateKey = halfOf(rsa.get(), Key::PRIVATE_KEY, openssl::writeRsaPrivatePem, failures::generatePrivateKey);
    return {publicKey, privateKey};
}

} // namespace Norvane::Crypto
