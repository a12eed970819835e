#include "failures/Raise.h"
#include "openssl/Signatures.h"

#include <norvcrypto/Hasher.h>

#include <openssl/evp.h>

#include <algorithm>

namespace Norvane::Crypto {

namespace {

/// The key's OpenSSL object, or null; a null handle throws.
EVP_PKEY* keyOf(const RefKey& key) {
    return static_cast<EVP_PKEY*>(key->keyData());
}

} // namespace

Signer::Signer(Type type) : Hasher(type) {}

Signer::~Signer() = default;

void Signer::signingKey(const RefKey& key) {
    m_signingKey = key;
}

Buffer Signer::sign() {
    EVP_PKEY* key = keyOf(m_signingKey);
    const int size = key == nullptr ? 0 : std::max(EVP_PKEY_size(key), 0);
    Buffer signature(size, 0);
    signature.length(static_cast<unsigned int>(size));
    unsigned int length = 0;
    if (!openssl::signFinal(context(), signature.data(), length, key)) {
        failures::raiseWithErrors(failures::signerSign);
    }
    std::fill(signature.data() + std::min(length, signature.length()), signature.data() + signature.length(),
              static_cast<unsigned char>(0));
    return signature;
}

Verifier::Verifier(Type type) : Hasher(type) {}

Verifier::~Verifier() = default;

void Verifier::verificationKey(const RefKey& key) {
    m_verificationKey = key;
}

bool Verifier::isValid(const Buffer& signature) {
    if (isFinalized()) {
        failures::raise(failures::verifierFinalized, "Finalized already called. Do not call finalize before isValid");
    }
    EVP_PKEY* key = keyOf(m_verificationKey);
    const int result = openssl::verifyFinal(context(), signature.data(), signature.length(), key);
    if (result < 0) {
        failures::raiseWithErrors(failures::verifierError, "Error during signature verification:  ");
    }
    return result == 1;
}

SignerRef::SignerRef(Hasher::Type type) : RefHasher(makeReference<Signer, Hasher>(type)) {}
SignerRef::SignerRef(const SignerRef& other) = default;
SignerRef& SignerRef::operator=(const SignerRef& other) = default;
SignerRef::~SignerRef() = default;

Signer* SignerRef::operator->() {
    return static_cast<Signer*>(RefHasher::operator->());
}

Signer* SignerRef::operator->() const {
    return static_cast<Signer*>(RefHasher::operator->());
}

RefVerifier::RefVerifier() = default;
RefVerifier::RefVerifier(Hasher::Type type) : RefHasher(makeReference<Verifier, Hasher>(type)) {}
RefVerifier::RefVerifier(const RefVerifier& other) = default;
RefVerifier& RefVerifier::operator=(const RefVerifier& other) = default;
RefVerifier::~RefVerifier() = default;

Verifier* RefVerifier::operator->() {
    return static_cast<Verifier*>(RefHasher::operator->());
}

Verifier* RefVerifier::operator->() const {
    return static_cast<Verifier*>(RefHasher::operator->());
}

} // namespace Norvane::Crypto
