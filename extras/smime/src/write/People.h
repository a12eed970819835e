#pragma once

/// \file
/// Who signs and who reads: pairs and certificates by address, and whether they may be used.

#include "mime/Header.h"

#include <norvcrypto-smime/SMimeWriter.h>

#include <ctime>
#include <string>
#include <vector>

namespace Norvane::Crypto::SMime::writing {

/// The addresses of a header.
Correspondents correspondentsIn(const mime::Header& header);

/// All who sign, each with a digest where it has a number. \throws Exception: nobody, or one who may not
std::vector<CMS::SignedWriter::Signer> signersFor(const SignOptions& options, const mime::Header& header,
                                                  std::time_t at);

/// All who shall read. \throws Exception: nobody, or one to whom nothing may be encrypted
std::vector<CMS::EnvelopeRecipient> recipientsFor(const EncryptOptions& options, const mime::Header& header,
                                                  const WriteBudget& budget, std::time_t at);

} // namespace Norvane::Crypto::SMime::writing
