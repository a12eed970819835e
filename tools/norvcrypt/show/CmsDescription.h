#pragma once

#include "show/Description.h"

#include <norvcmsg/Buffer.h>
#include <norvcrypto/CMSEnvelopeReader.h>

namespace norvcrypt {

/// What `describe` tells of a CMS structure, without the type. Contents are passed and not looked at.
/// \throws Failure or Norvane::Exception: it cannot be read
Description cmsFacts(const Norvane::Buffer& structure);

/// "keyTransport", "keyAgreement", ...
const char* nameOfKind(Norvane::Crypto::CMS::EnvelopeReader::Recipient::Kind kind);

} // namespace norvcrypt
