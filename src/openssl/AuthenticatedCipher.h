#pragma once

/// \file
/// The ciphers of AuthEnvelopedData: AES-GCM (RFC 5084) and ChaCha20-Poly1305 (RFC 8103).

#include "openssl/ContentCipher.h"
#include "openssl/GcmCheck.h"
#include "openssl/Pointers.h"
#include "openssl/WipedBytes.h"

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace Norvane::Crypto::openssl {

/// The name of the cipher when it is not one of the above; else empty.
std::string unsupportedAuthenticatedCipher(const X509_ALGOR* algorithm);

/// One of them with its parameters, and the tag that it ends with.
class AuthenticatedCipher {
public:
    /// Nothing when the parameters are not what the standards ask for, or OpenSSL cannot use them: a nonce of 1 to 128
    /// octets for GCM and of 12 for ChaCha20-Poly1305; a tag of 12 to 16 octets for GCM and of 16 for the other.
    /// \param algorithm a supported one
    static std::optional<AuthenticatedCipher> of(const X509_ALGOR& algorithm);

    [[nodiscard]] std::size_t tagLength() const noexcept { return m_tagLength; }

    /// Takes the content key; a random one when it does not fit. False when OpenSSL fails. \throws std::bad_alloc
    bool start(const WipedBytes& contentKey);
    /// A context that decrypts from the beginning; null when OpenSSL fails. `associated` is what is authenticated beside
    /// the content.
    [[nodiscard]] CipherContextPtr verifying(std::span<const unsigned char> associated) const;
    /// Whether the tag is right, after all content went through such a context.
    [[nodiscard]] bool isRight(EVP_CIPHER_CTX* context, std::span<const unsigned char> tag) const;
    /// Checks the tag without decrypting; nothing for a cipher that cannot.
    [[nodiscard]] std::optional<GcmCheck> check() const;
    /// A context that decrypts from the beginning what was verified, without verifying it once more.
    [[nodiscard]] CipherContextPtr verified() const;

private:
    AuthenticatedCipher() = default;
    [[nodiscard]] bool isGcm() const noexcept;
    [[nodiscard]] CipherContextPtr keyless() const;

    CipherPtr m_cipher;
    std::vector<unsigned char> m_nonce;
    std::size_t m_tagLength = 0;
    WipedBytes m_key;
};

} // namespace Norvane::Crypto::openssl
