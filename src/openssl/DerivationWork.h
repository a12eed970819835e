#pragma once

/// \file
/// What it costs to turn a password into keys. The maker of an encrypted structure chooses how often the password is
/// hashed, up to 2^31 times for each part and before anything is known of him. OpenSSL sets no bound.

#include <openssl/pkcs12.h>
#include <openssl/x509.h>

#include <cstdint>
#include <string>

namespace Norvane::Crypto::openssl {

/// The most hash computations that one structure may ask for in all: some seconds. Usual programs ask for 2,000 to
/// 1,000,000 iterations, each of which is one to six of them.
inline constexpr std::int64_t mostHashes = 50'000'000;

/// Adds up the hash computations of all that is derived from one password, before it is derived. An iteration counts
/// for each block of the hash that the key and the IV fill; the HMAC of PBKDF2 is two. Hashes that take several times as
/// long as SHA-1 and SHA-2 count eightfold; scrypt counts the Salsa20 cores that it runs, and how often it hashes its salt. A number of iterations that
/// is below 1 or beyond 2^31 - 1, which OpenSSL would truncate, is beyond the bound.
///
/// What OpenSSL refuses before it derives anything counts nothing. The error queue stays as it is.
class DerivationWork {
public:
    /// The key of a MAC: one block. \param iterations null: left out, which is 1
    void addMac(const X509_ALGOR* digest, const ASN1_INTEGER* iterations) noexcept;
    /// The key and the IV of an encrypted part: PKCS#12's own schemes, PBES1 and PBES2 (RFC 8018) with PBKDF2 or scrypt.
    void addEncryption(const X509_ALGOR* algorithm) noexcept;

    [[nodiscard]] bool isAffordable() const noexcept { return m_hashes <= mostHashes; }

private:
    void add(std::int64_t hashes, std::int64_t times) noexcept;
    void addDerivation(const X509_ALGOR& function, std::int64_t keyLength) noexcept;

    std::int64_t m_hashes = 0;
};

/// "The PKCS#12 structure asks for more than 50000000 hash computations".
[[nodiscard]] inline std::string tooManyHashes(const std::string& what) {
    return what + " asks for more than " + std::to_string(mostHashes) + " hash computations";
}

} // namespace Norvane::Crypto::openssl
