#pragma once

/// \file
/// What became of a signature, for people and for programs.

#include "show/Description.h"

#include <norvcrypto/CMSSignedReader.h>

#include <optional>
#include <string>

namespace norvcrypt {

/// The verdict on a signer. To be shown as it is.
std::string verdictText(const Norvane::Crypto::CMS::SignatureResult& result,
                        const Norvane::Crypto::CMS::SignedReader::Signer& signer);
/// Likewise. \param name that of the certificate that the signer names, not escaped; may be empty
std::string verdictText(const Norvane::Crypto::CMS::SignatureResult& result, const std::string& name);
/// What a signer says of itself. To be shown as it is.
std::string detailsText(const Norvane::Crypto::CMS::SignedReader::Signer& signer);

/// "good", "refused", "unsupported".
const char* verdictName(Norvane::Crypto::CMS::SignatureVerdict verdict);
/// What docs/json.md calls a signer object.
Description signerFacts(const Norvane::Crypto::CMS::SignatureResult& result,
                        const Norvane::Crypto::CMS::SignedReader::Signer& signer);

/// What of it is about the verdict.
Description resultFacts(const Norvane::Crypto::CMS::SignatureResult& result, const std::string& name);

} // namespace norvcrypt
