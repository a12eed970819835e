#pragma once

/// \file
/// Content keys, encrypted for those who shall read the content: with the public key of a certificate, with a key that
/// both sides have, or with a password. What of it goes into which element is CMS's business, not done here.
///
/// Whatever answers `false`, or nothing, has left the reasons in the error queue.

#include "framing/Encoding.h"
#include "openssl/Oaep.h"
#include "openssl/Pointers.h"
#include "openssl/Secret.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace Norvane::Crypto::openssl {

/// How content keys are encrypted for a public key.
enum class RecipientKeyKind : int {
    rsa,
    p256,
    p384,
    p521,
    x25519,
    other, ///< not at all: keys that only sign, other curves
};

/// The kind of a key; `other` for null.
RecipientKeyKind recipientKeyKind(const EVP_PKEY* key) noexcept;
/// The key for people: "Ed25519", "DSA", "EC on brainpoolP256r1", "no key that can be decoded" for null.
std::string recipientKeyName(const EVP_PKEY* key);

/// What encrypting for the key costs, in squarings of a 1024-bit number. The largest number for keys that are not used at
/// all: RSA with an exponent below 3, which hides nothing, or beyond 64 bits, and moduli beyond OpenSSL's 16384 bits.
std::uint64_t encryptionWork(const EVP_PKEY* key, RecipientKeyKind kind) noexcept;

/// How many octets a key encrypts at most, negative when it is too short for anything: with the padding of PKCS#1 1.5 when
/// `oaep` is null.
int rsaRoom(const EVP_PKEY* key, const Oaep* oaep) noexcept;

/// RSA with a key and a padding. Made once, used by any number of threads: OpenSSL's preparations take as long as a quarter
/// of the encryption itself.
class RsaEncryption {
public:
    /// \param oaep null: the padding of PKCS#1 1.5 \return whether it was made
    bool prepare(EVP_PKEY* key, const Oaep* oaep);
    [[nodiscard]] std::optional<framing::Encoded> encrypt(framing::Octets contentKey) const;

private:
    KeyContextPtr m_context;
};

/// Makes a key of the kind of `recipient` for this once, and agrees on a secret with it. \param ephemeral becomes the public
/// half: an uncompressed point, or the octets of an X25519 key
bool agreeWith(EVP_PKEY* recipient, framing::Encoded& ephemeral, Secret& secret);
/// The key derivation of ANSI X9.63 (RFC 5753; SEC 1, 3.6.1), and HKDF without salt (RFC 8418): fill `key`. The first is made
/// of the digest here, since OpenSSL 3.0's own ends the process where it has no memory to begin.
bool deriveX963(const EVP_MD* digest, const Secret& secret, framing::Octets info, Secret& key);
bool deriveHkdf(const EVP_MD* digest, const Secret& secret, framing::Octets info, Secret& key);
/// PBKDF2 (RFC 8018, 5.2): fills `key`.
bool derivePbkdf2(const EVP_MD* digest, framing::Octets password, framing::Octets salt, std::uint32_t iterations,
                  Secret& key);

/// Key wrap: RFC 3394 by the NID of AES, RFC 3217 by that of triple DES.
std::optional<framing::Encoded> wrapKey(int nid, framing::Octets wrappingKey, framing::Octets contentKey);
/// The wrapping of RFC 3211, 2.3.1: the key with its length, a check value and random padding, encrypted twice in a row.
std::optional<framing::Encoded> wrapUnderPassword(const EVP_CIPHER* cipher, framing::Octets wrappingKey,
                                                  framing::Octets vector, framing::Octets contentKey);

} // namespace Norvane::Crypto::openssl
