// The cipher table and the generator of initialisation vectors.
#include "failures/Raise.h"
#include "openssl/Idea.h"

#include <norvcrypto/Encryption.h>

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/rand.h>
#include <openssl/randerr.h>

#include <climits>
#include <string>

namespace Norvane::Crypto {

// The public header keeps OpenSSL's numbers as plain ones.
static_assert(DES_CBC == NID_des_cbc && IDEA_CBC == NID_idea_cbc && DES_EDE3_CBC == NID_des_ede3_cbc);
static_assert(BF_CBC == NID_bf_cbc && CAST5_CBC == NID_cast5_cbc);
static_assert(AES_128_CBC == NID_aes_128_cbc && AES_192_CBC == NID_aes_192_cbc && AES_256_CBC == NID_aes_256_cbc);

const evp_cipher_st* initializeCipher(Cipher cipher) {
    switch (cipher) {
    case DES_CBC:
        return EVP_des_cbc();
    case IDEA_CBC:
        return openssl::ideaCbc();
    case DES_EDE3_CBC:
        return EVP_des_ede3_cbc();
    case BF_CBC:
        return EVP_bf_cbc();
    case CAST5_CBC:
        return EVP_cast5_cbc();
    case AES_128_CBC:
        return EVP_aes_128_cbc();
    case AES_192_CBC:
        return EVP_aes_192_cbc();
    case AES_256_CBC:
        return EVP_aes_256_cbc();
    }
    failures::raise(failures::cipherUnknown, "Unsupported CIPHER value " + std::to_string(static_cast<int>(cipher)));
}

IntializationVectorGenerator::IntializationVectorGenerator() = default;

IntializationVectorGenerator* IntializationVectorGenerator::instance() noexcept {
    return nullptr; // one would be made only in the place of another, and nothing makes the first
}

Buffer IntializationVectorGenerator::generateIV(unsigned int length) {
    if (length > INT_MAX) {
        openssl::queueError("RAND_bytes", ERR_LIB_RAND, RAND_R_ARGUMENT_OUT_OF_RANGE);
        failures::raiseWithErrors(failures::generateIV);
    }
    Buffer iv(static_cast<int>(length), 0);
    // Negative answers are failures too: a generator that cannot do this must not give a predictable vector.
    if (RAND_bytes(iv.data(), static_cast<int>(length)) <= 0) {
        failures::raiseWithErrors(failures::generateIV);
    }
    iv.length(length);
    return iv;
}

} // namespace Norvane::Crypto
