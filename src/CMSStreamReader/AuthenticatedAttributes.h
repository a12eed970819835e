#pragma once

/// \file
/// What is authenticated beside the content of AuthEnvelopedData (RFC 5083, 2.1 and 2.2).

#include "CMSStreamReader/EnvelopeFrame.h"

#include <vector>

namespace Norvane::Crypto::CMS {

/// The associated data of a message that was read to its end: its authenticated attributes under the tag of a set, empty
/// when there are none. False when they do not name the content's type once, or are missing for a type that needs them.
bool authenticatedAttributes(const EnvelopeFrame& frame, std::vector<unsigned char>& associated);

} // namespace Norvane::Crypto::CMS
