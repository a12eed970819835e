#pragma once

/// \file
/// What is authenticated beside the content of AuthEnvelopedData (RFC 5083, 2.1 and 2.2).

#include "CMSStreamReader/EnvelopeFraming.h"

#include <vector>

namespace Norvane::Crypto::CMS {

/// The associated data of a message that was read to its end: its authenticated attributes under the tag of a set, empty
/// when there are none. False when they name another type than the content's, or one twice, or none although it is not data.
bool authenticatedAttributes(const EnvelopeFraming& frame, std::vector<unsigned char>& associated);

} // namespace Norvane::Crypto::CMS
