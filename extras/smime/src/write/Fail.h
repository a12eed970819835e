#pragma once

#include <norvcmsg/Exception.h>

#include <string>

namespace Norvane::Crypto::SMime::writing {

/// What the writer throws: its reason, for people, is the detail.
[[noreturn]] inline void fail(const std::string& reason) {
    Exception failure("SMime::Writer", 4, "SMimeWriter", __LINE__);
    failure.stringParameter(reason);
    throw failure;
}

} // namespace Norvane::Crypto::SMime::writing
