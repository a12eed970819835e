#pragma once

/// \file
/// Private keys as signers of CMS use them: which digest goes with which key, what the algorithms are called in a
/// structure, and whether a key can do it at all, asked before a body is.

#include "framing/Elements.h"
#include "openssl/Pointers.h"

#include <cstddef>
#include <string>
#include <vector>

namespace Norvane::Crypto::openssl {

/// A digest that signatures are made over: SHA-1, SHA-2, SHA-3, and SHAKE256 with 64 octets, which Ed448 demands.
struct SignatureDigest {
    int number = NID_undef;
    const EVP_MD* algorithm = nullptr;     ///< null: OpenSSL's number is of none such
    std::size_t length = 0;                ///< octets
    std::vector<unsigned char> identifier; ///< AlgorithmIdentifier, DER

    /// A context that digests; null with the reasons in the error queue.
    [[nodiscard]] DigestContextPtr start() const;
    /// What it digested; empty with the reasons in the error queue.
    [[nodiscard]] std::vector<unsigned char> finish(EVP_MD_CTX* context) const;
};
SignatureDigest signatureDigest(int number);

enum class RsaPadding : int {
    pkcs1, ///< PKCS#1 1.5, unless the key is for RSASSA-PSS alone
    pss,   ///< RSASSA-PSS, MGF1 over the same digest, a salt of its length
};

/// A key, shared, that signs.
class SigningKey {
public:
    /// \param digest OpenSSL's number, or NID_undef for the digest that goes with the key
    SigningKey(EVP_PKEY* key, RsaPadding padding, int digest);

    /// Why the key does not sign so; empty when it does. Nothing else may be asked of a key with a refusal.
    [[nodiscard]] const std::string& refusal() const noexcept { return m_refusal; }
    [[nodiscard]] const SignatureDigest& digest() const noexcept { return m_digest; }
    /// Edwards curves sign whole texts: what is digested while it passes can only be signed through attributes.
    [[nodiscard]] bool signsWhole() const noexcept { return m_signsWhole; }
    /// The AlgorithmIdentifier of the signature, DER.
    [[nodiscard]] const std::vector<unsigned char>& algorithm() const noexcept { return m_algorithm; }
    /// The octets of every signature; 0 when they vary.
    [[nodiscard]] std::size_t fixedLength() const noexcept { return m_fixedLength; }

    /// Signs a text by what it digests to. Empty, with the reasons in the error queue, on failure.
    [[nodiscard]] std::vector<unsigned char> signDigest(framing::Octets digest) const;
    /// Signs a text. Empty as above.
    [[nodiscard]] std::vector<unsigned char> signText(framing::Octets text) const;

private:
    void chooseRsa(int digest);
    void chooseEc(int digest);
    void chooseEdwards(int digest, int demanded);
    void chooseDigest(int digest);
    /// \param begin EVP_PKEY_sign_init or EVP_PKEY_verify_init
    [[nodiscard]] KeyContextPtr context(int (*begin)(EVP_PKEY_CTX*)) const;
    [[nodiscard]] bool holdsPrivatePart() const;

    KeyPtr m_key;
    std::string m_refusal;
    SignatureDigest m_digest;
    std::vector<unsigned char> m_algorithm;
    std::size_t m_fixedLength = 0;
    bool m_rsa = false;
    bool m_pss = false;
    bool m_signsWhole = false;
};

} // namespace Norvane::Crypto::openssl
