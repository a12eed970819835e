#pragma once

/// \file
/// The verdict on one signer, once the body was digested.

#include "CMSVerification/BodyDigests.h"
#include "CMSVerification/Candidates.h"
#include "CMSVerification/Trials.h"

#include <norvcrypto/CMSVerification.h>

#include <optional>
#include <vector>

namespace Norvane::Crypto::CMS {

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
    /// What is wrong apart from the signature itself; sets what the signature covers otherwise.
    std::optional<SignatureResult> faultBesideSignature(const PKCS7_SIGNER_INFO* signer, BodyDigest& covered) const;
    /// The verdict with one certificate.
    SignatureResult tryCertificate(const SignatureInQuestion& signature, X509* certificate);

    const BodyFacts& m_body;
    Trials m_trials;
};

} // namespace Norvane::Crypto::CMS
