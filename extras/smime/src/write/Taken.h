#pragma once

#include "mime/Octets.h"
#include "write/QuotedPrintable.h"
#include "write/TextTraits.h"

#include <norvcmsg/Media.h>

namespace Norvane::Crypto::SMime::writing {

/// Takes all that is left, looks at it, and passes it on where there is a target.
TextTraits taken(mime::Octets& octets, MediaOut* target, QuotedPrintableCheck* check = nullptr);

/// A second look found something else than the first one. \throws Exception
[[noreturn]] void failChanged();

} // namespace Norvane::Crypto::SMime::writing
