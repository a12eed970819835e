#ifndef NORVCRYPTO_KEY_FACTORY_H
#define NORVCRYPTO_KEY_FACTORY_H

/// \file
/// Makes RSA key pairs.
///
/// \code
/// Norvane::Crypto::KeyGenerator generator;
/// auto [publicKey, privateKey] = generator.rsaGenerateKeyPair(65537, 3072); // exponent first, then bits
/// Norvane::Buffer pem;
/// privateKey->writePEM(pem, passphrase);                                    // encrypted
/// \endcode

#include <norvcrypto/Export.h>
#include <norvcrypto/Key.h>

#include <utility>

namespace Norvane::Crypto {

/// Generates keys; holds nothing, so that several threads may use one generator.
class NORVCRYPTO_EXPORT KeyGenerator {
public:
    KeyGenerator();
    KeyGenerator(const KeyGenerator& other);
    KeyGenerator& operator=(const KeyGenerator& other);
    virtual ~KeyGenerator();

    /// Makes a pair: the public key first, the private key second. Takes from a tenth of a second (2048 bits) to
    /// minutes (16384); no upper bound is set.
    /// \param exponent the public exponent: odd and above 1; 65537 unless something else is required
    /// \param bits     the size of the modulus: 512 or more; 2048 is the least that is considered safe, 3072 a good one
    ///
    /// \throws Exception "Crypto::KeyGenerator::s_generateRSA write RSA PublicKey", code 4, source module "KeyFactory",
    /// line 27, OpenSSL's errors: OpenSSL refused to generate (the failure of the write that follows tells it)
    ///
    /// \throws Exception "Crypto::KeyGenerator::s_generateRSA write RSA PrivateKey", code 4, line 40, OpenSSL's errors
    std::pair<RefKey, RefKey> rsaGenerateKeyPair(unsigned int exponent, unsigned int bits);
};

} // namespace Norvane::Crypto

#endif
