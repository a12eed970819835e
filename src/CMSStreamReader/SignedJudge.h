#pragma once

/// \file
/// The verdict on one signer of a message that was read.

#include "CMSStreamReader/SignedCertificates.h"
#include "CMSStreamReader/SignedParts.h"
#include "CMSVerification/BodyDigests.h"
#include "CMSVerification/Trials.h"

#include <optional>
#include <vector>

namespace Norvane::Crypto::CMS {

/// What a signer signs: a content, or the signature of another signer.
struct SignedOctets {
    std::vector<BodyDigest> digests;
    std::vector<const EVP_MD*> announced;  ///< digests that stand in front of the content, those without a value too
    framing::Octets contentType;           ///< the octets of its identifier; none for a signature
    std::optional<framing::Octets> octets; ///< themselves, where they were kept
    bool isAttributeSet = false;
};

/// The signature of `signer`, as somebody who countersigns it signs it by `algorithm`.
SignedOctets signatureOf(const SignerParts& signer, const EVP_MD* algorithm);

/// The digest that a signer names, SHAKE256 with 512 bits among them (RFC 8419); null for one that OpenSSL does not have.
const EVP_MD* contentDigest(framing::Octets identifier) noexcept;

/// The octets of the message digest attribute; nothing when there is none that counts.
std::optional<framing::Octets> announcedDigest(const SignerParts& signer) noexcept;

/// What is wrong apart from the signature; nothing when `question` is what is left to ask.
std::optional<SignatureResult> faultBesideSignature(const SignerParts& signer, const SignedOctets& content,
                                                    SignatureInQuestion& question);

/// The verdict with one certificate, which is not yet in it.
SignatureResult judgeWith(const SignerParts& signer, const SignatureInQuestion& question, Trials& trials,
                          X509* certificate);
/// The verdict with those that the signer names.
SignatureResult judgeWithNamed(const SignerParts& signer, const SignatureInQuestion& question, Trials& trials,
                               const NamedCertificates& named);

} // namespace Norvane::Crypto::CMS
