#pragma once

/// \file
/// The signers of a structure judged over a body: by which certificates, and why one does not fit.

#include "files/RepeatableBody.h"
#include "read/StructureFile.h"

#include <norvcrypto-smime/SMimeDiagnosis.h>
#include <norvcrypto/CMSIdentifier.h>
#include <norvcrypto/CMSSignedReader.h>
#include <norvcrypto/CMSVerification.h>
#include <norvcrypto/Certificate.h>

#include <cstdint>
#include <list>
#include <optional>
#include <vector>

namespace norvcrypt {

/// The certificates that signers may name, beside those in the structure.
struct SignerCertificates {
    /// Those alone count then, and none of the structure.
    std::optional<std::list<Norvane::Crypto::NVX509::RefCertificate>> given;
    /// For signers whose certificate is not among the others.
    std::list<Norvane::Crypto::NVX509::RefCertificate> ofStore;

    [[nodiscard]] std::list<Norvane::Crypto::NVX509::RefCertificate> all() const;
};

/// Which body was judged, and whether it is the content, where there are both.
struct JudgedBody {
    std::uint64_t length = 0;
    std::optional<bool> isContent;
};

/// What the signer names its certificate by; nothing when that does not decode.
std::optional<Norvane::Crypto::CMS::CertificateIdentifier> nameOfCertificate(
    const Norvane::Crypto::CMS::SignedReader::Signer& signer);

/// A verdict for each signer. \param message was read to its end
std::vector<Norvane::Crypto::CMS::SignatureResult> judgeSigners(const Norvane::Crypto::CMS::SignedReader& message,
                                                                const JudgedBody& body,
                                                                const SignerCertificates& certificates);

/// Why signatures do not fit, as far as that can be found out; it changes no verdict. \param body null: it is the content
Norvane::Crypto::SMime::Diagnosis diagnosisOf(const Norvane::Crypto::CMS::SignedReader& message, StructureFile& file,
                                              RepeatableBody* body,
                                              const std::vector<Norvane::Crypto::CMS::SignatureResult>& results,
                                              const SignerCertificates& certificates);

} // namespace norvcrypt
