#include "openssl/RecipientKeys.h"

#include "openssl/ErrorQueue.h"
#include "openssl/Signers.h"

#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/kdf.h>
#include <openssl/params.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

namespace Norvane::Crypto::openssl {

namespace {

using KdfPtr = Owned<EVP_KDF, EVP_KDF_free>;
using KdfContextPtr = Owned<EVP_KDF_CTX, EVP_KDF_CTX_free>;

constexpr std::uint64_t notUsed = ~std::uint64_t{0};
constexpr std::size_t longestGroupName = 64;

/// The name of an elliptic curve; empty for other keys and for curves without a name.
std::string groupName(const EVP_PKEY* key) {
    std::array<char, longestGroupName> name{};
    std::size_t length = 0;
    const ErrorMark mark;
    return EVP_PKEY_get_group_name(key, name.data(), name.size(), &length) == 1 ? std::string(name.data(), length)
                                                                                : std::string();
}

bool hidesSomething(const EVP_PKEY* rsa) {
    BIGNUM* number = nullptr;
    if (EVP_PKEY_get_bn_param(rsa, OSSL_PKEY_PARAM_RSA_E, &number) != 1) {
        return false;
    }
    const BignumPtr exponent(number);
    return BN_num_bits(number) > 1;
}

OSSL_PARAM octetsParameter(const char* name, framing::Octets octets) noexcept {
    return OSSL_PARAM_construct_octet_string(name, const_cast<unsigned char*>(octets.data()), octets.size());
}

bool update(EVP_MD_CTX* context, framing::Octets octets) noexcept {
    return EVP_DigestUpdate(context, octets.data(), octets.size()) == 1;
}

KeyPtr ephemeralKeyFor(EVP_PKEY* recipient) {
    const KeyContextPtr context(EVP_PKEY_CTX_new(recipient, nullptr));
    EVP_PKEY* key = nullptr;
    if (context == nullptr || EVP_PKEY_keygen_init(context.get()) != 1 || EVP_PKEY_keygen(context.get(), &key) != 1) {
        return nullptr;
    }
    return KeyPtr(key);
}

const EVP_CIPHER* wrappingCipher(int nid) noexcept {
    switch (nid) {
    case NID_id_aes128_wrap:
        return EVP_aes_128_wrap();
    case NID_id_aes192_wrap:
        return EVP_aes_192_wrap();
    case NID_id_aes256_wrap:
        return EVP_aes_256_wrap();
    case NID_id_smime_alg_CMS3DESwrap:
        return EVP_des_ede3_wrap();
    default:
        return nullptr;
    }
}

} // namespace

RecipientKeyKind recipientKeyKind(const EVP_PKEY* key) noexcept {
    switch (key == nullptr ? EVP_PKEY_NONE : EVP_PKEY_get_base_id(key)) {
    case EVP_PKEY_RSA:
        return RecipientKeyKind::rsa;
    case EVP_PKEY_X25519:
        return RecipientKeyKind::x25519;
    case EVP_PKEY_EC:
        break;
    default:
        return RecipientKeyKind::other;
    }
    std::array<char, longestGroupName> name{};
    std::size_t length = 0;
    const ErrorMark mark;
    if (EVP_PKEY_get_group_name(key, name.data(), name.size(), &length) != 1) {
        return RecipientKeyKind::other;
    }
    switch (OBJ_sn2nid(name.data())) {
    case NID_X9_62_prime256v1:
        return RecipientKeyKind::p256;
    case NID_secp384r1:
        return RecipientKeyKind::p384;
    case NID_secp521r1:
        return RecipientKeyKind::p521;
    default:
        return RecipientKeyKind::other;
    }
}

std::string recipientKeyName(const EVP_PKEY* key) {
    if (key == nullptr) {
        return "no key that can be decoded";
    }
    if (EVP_PKEY_get_base_id(key) == EVP_PKEY_EC) {
        const std::string curve = groupName(key);
        return curve.empty() ? "EC" : "EC on " + curve;
    }
    const char* name = EVP_PKEY_get0_type_name(key);
    return name == nullptr ? "unknown" : name;
}

std::uint64_t encryptionWork(const EVP_PKEY* key, RecipientKeyKind kind) noexcept {
    constexpr std::uint64_t ofX25519 = 1024; // two multiplications, each some half of one on P-256
    switch (kind) {
    case RecipientKeyKind::rsa:
        return hidesSomething(key) ? verificationWork(key) : notUsed;
    case RecipientKeyKind::x25519:
        return ofX25519;
    case RecipientKeyKind::p256:
    case RecipientKeyKind::p384:
    case RecipientKeyKind::p521:
        return 2 * verificationWork(key); // one for the key of this once, one with the recipient's
    default:
        return notUsed;
    }
}

int rsaRoom(const EVP_PKEY* key, const Oaep* oaep) noexcept {
    constexpr int ofPkcs1 = 11;
    return EVP_PKEY_get_size(key) - (oaep == nullptr ? ofPkcs1 : 2 * EVP_MD_get_size(oaep->digest) + 2);
}

bool RsaEncryption::prepare(EVP_PKEY* key, const Oaep* oaep) {
    m_context.reset(EVP_PKEY_CTX_new(key, nullptr));
    return m_context != nullptr && EVP_PKEY_encrypt_init(m_context.get()) == 1 &&
           (oaep == nullptr || setOaep(m_context.get(), *oaep)); // PKCS#1 1.5 is OpenSSL's own choice
}

std::optional<framing::Encoded> RsaEncryption::encrypt(framing::Octets contentKey) const {
    const KeyContextPtr context(EVP_PKEY_CTX_dup(m_context.get()));
    if (context == nullptr) {
        return std::nullopt;
    }
    auto length = static_cast<std::size_t>(EVP_PKEY_get_size(EVP_PKEY_CTX_get0_pkey(context.get())));
    framing::Encoded encrypted(length);
    if (EVP_PKEY_encrypt(context.get(), encrypted.data(), &length, contentKey.data(), contentKey.size()) != 1) {
        return std::nullopt;
    }
    encrypted.resize(length);
    return encrypted;
}

bool agreeWith(EVP_PKEY* recipient, framing::Encoded& ephemeral, Secret& secret) {
    const KeyPtr key = ephemeralKeyFor(recipient);
    if (key == nullptr) {
        return false;
    }
    unsigned char* encoded = nullptr;
    const std::size_t encodedLength = EVP_PKEY_get1_encoded_public_key(key.get(), &encoded);
    const OwnedMemory<unsigned char> owner(encoded);
    const KeyContextPtr context(EVP_PKEY_CTX_new(key.get(), nullptr));
    secret.resize(Secret::most);
    std::size_t length = secret.size();
    if (encodedLength == 0 || context == nullptr || EVP_PKEY_derive_init(context.get()) != 1 ||
        EVP_PKEY_derive_set_peer(context.get(), recipient) != 1 ||
        EVP_PKEY_derive(context.get(), secret.octets().data(), &length) != 1) {
        return false;
    }
    secret.resize(length);
    ephemeral.assign(encoded, encoded + encodedLength);
    return true;
}

bool deriveX963(const EVP_MD* digest, const Secret& secret, framing::Octets info, Secret& key) {
    const DigestContextPtr context(EVP_MD_CTX_new());
    if (digest == nullptr || context == nullptr) {
        return false;
    }
    Secret block(static_cast<std::size_t>(EVP_MD_get_size(digest)));
    std::span<unsigned char> left = key.octets();
    for (unsigned char counter = 1; !left.empty(); ++counter) { // of the few that a key takes
        const std::array<unsigned char, 4> number{0, 0, 0, counter};
        if (EVP_DigestInit_ex(context.get(), digest, nullptr) != 1 ||
            !update(context.get(), std::as_const(secret).octets()) || !update(context.get(), number) ||
            !update(context.get(), info) || EVP_DigestFinal_ex(context.get(), block.octets().data(), nullptr) != 1) {
            return false;
        }
        const std::size_t taken = std::min(left.size(), block.size());
        std::copy_n(block.octets().begin(), taken, left.begin());
        left = left.subspan(taken);
    }
    return true;
}

bool deriveHkdf(const EVP_MD* digest, const Secret& secret, framing::Octets info, Secret& key) {
    const KdfPtr kdf(EVP_KDF_fetch(nullptr, OSSL_KDF_NAME_HKDF, nullptr));
    const KdfContextPtr context(EVP_KDF_CTX_new(kdf.get()));
    const std::array<OSSL_PARAM, 4> parameters{
        OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, const_cast<char*>(EVP_MD_get0_name(digest)), 0),
        octetsParameter(OSSL_KDF_PARAM_KEY, secret.octets()), octetsParameter(OSSL_KDF_PARAM_INFO, info),
        OSSL_PARAM_construct_end()};
    return context != nullptr && EVP_KDF_derive(context.get(), key.octets().data(), key.size(), parameters.data()) == 1;
}

bool derivePbkdf2(const EVP_MD* digest, framing::Octets password, framing::Octets salt, std::uint32_t iterations,
                  Secret& key) {
    return PKCS5_PBKDF2_HMAC(reinterpret_cast<const char*>(password.data()), static_cast<int>(password.size()),
                             salt.data(), static_cast<int>(salt.size()), static_cast<int>(iterations), digest,
                             static_cast<int>(key.size()), key.octets().data()) == 1;
}

std::optional<framing::Encoded> wrapKey(int nid, framing::Octets wrappingKey, framing::Octets contentKey) {
    constexpr std::size_t longestAddition = 16;
    const EVP_CIPHER* cipher = wrappingCipher(nid);
    const CipherContextPtr context(EVP_CIPHER_CTX_new());
    if (cipher == nullptr || context == nullptr ||
        wrappingKey.size() != static_cast<std::size_t>(EVP_CIPHER_get_key_length(cipher))) {
        return std::nullopt;
    }
    EVP_CIPHER_CTX_set_flags(context.get(), EVP_CIPHER_CTX_FLAG_WRAP_ALLOW);
    framing::Encoded wrapped(contentKey.size() + longestAddition);
    int length = 0;
    if (EVP_EncryptInit_ex(context.get(), cipher, nullptr, wrappingKey.data(), nullptr) != 1 ||
        EVP_EncryptUpdate(context.get(), wrapped.data(), &length, contentKey.data(),
                          static_cast<int>(contentKey.size())) != 1) {
        return std::nullopt;
    }
    wrapped.resize(static_cast<std::size_t>(length));
    return wrapped;
}

std::optional<framing::Encoded> wrapUnderPassword(const EVP_CIPHER* cipher, framing::Octets wrappingKey,
                                                  framing::Octets vector, framing::Octets contentKey) {
    constexpr std::size_t checked = 3;
    constexpr std::size_t ofHeader = checked + 1;
    const auto block = static_cast<std::size_t>(EVP_CIPHER_get_block_size(cipher));
    const std::size_t length = std::max((ofHeader + contentKey.size() + block - 1) / block, std::size_t{2}) * block;
    if (contentKey.size() < checked || length > Secret::most) {
        return std::nullopt;
    }
    Secret clear(length);
    unsigned char* at = clear.octets().data();
    if (RAND_bytes(at, static_cast<int>(length)) != 1) {
        return std::nullopt;
    }
    at[0] = static_cast<unsigned char>(contentKey.size());
    for (std::size_t i = 0; i < checked; ++i) {
        at[i + 1] = static_cast<unsigned char>(~contentKey[i]);
    }
    std::memcpy(at + ofHeader, contentKey.data(), contentKey.size());

    framing::Encoded wrapped(length);
    int count = 0;
    const CipherContextPtr context(EVP_CIPHER_CTX_new());
    // The second time goes on where the first one ended: its vector is the last block of that. Whole blocks come out at once, and
    // padding with an end that nobody asks for.
    if (context == nullptr ||
        EVP_EncryptInit_ex(context.get(), cipher, nullptr, wrappingKey.data(), vector.data()) != 1 ||
        EVP_EncryptUpdate(context.get(), wrapped.data(), &count, at, static_cast<int>(length)) != 1 ||
        EVP_EncryptUpdate(context.get(), wrapped.data(), &count, wrapped.data(), static_cast<int>(length)) != 1) {
        return std::nullopt;
    }
    return wrapped;
}

} // namespace Norvane::Crypto::openssl
