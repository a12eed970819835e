#pragma once

#include "mime/Header.h"
#include "mime/Octets.h"

#include <norvcrypto-smime/SMimeWriter.h>

#include <string>

namespace Norvane::Crypto::SMime::writing {

/// Takes a header from the start of an entity. \param where for failures: "the message" \throws Exception: it is too long
void readBounded(mime::Octets& octets, const WriteBudget& budget, const std::string& where, mime::Header& header);

} // namespace Norvane::Crypto::SMime::writing
