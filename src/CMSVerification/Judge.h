#pragma once

/// \file
/// The verdict on one signer, once the body was digested.

#include "CMSVerification/Candidates.h"

#include <norvcrypto/CMSVerification.h>

#include <array>
#include <optional>
#include <vector>

namespace Norvane::Crypto::CMS {

/// The digest of the body under one algorithm.
struct BodyDigest {
    const EVP_MD* algorithm = nullptr;
    std::array<unsigned char, EVP_MAX_MD_SIZE> value{};
};

/// What is known about the body.
struct BodyFacts {
    std::vector<BodyDigest> digests;
    const ASN1_OBJECT* contentType = nullptr;
    bool isAttributeSet = false;
    bool differsFromContent = false;
};

/// Judges the signers of one structure, which share what may be spent on public-key operations.
class Judge {
public:
    explicit Judge(const BodyFacts& body) : m_body(body) {}

    SignatureResult operator()(const PKCS7_SIGNER_INFO* signer, const Candidates& candidates);

private:
    [[nodiscard]] const BodyDigest* digestFor(const EVP_MD* algorithm) const;
    /// What is wrong apart from the signature itself; sets what the signature covers otherwise.
    std::optional<SignatureResult> faultBesideSignature(const PKCS7_SIGNER_INFO* signer, BodyDigest& covered) const;
    /// The verdict with one certificate.
    SignatureResult tryCertificate(const PKCS7_SIGNER_INFO* signer, const BodyDigest& covered, X509* certificate);

    const BodyFacts& m_body;
    std::uint64_t m_spent = 0;
};

} // namespace Norvane::Crypto::CMS
