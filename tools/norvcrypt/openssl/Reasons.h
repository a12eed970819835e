#pragma once

#include <norvcmsg/Exception.h>

#include <string>

namespace norvcrypt {

/// What OpenSSL's queue of errors says, in plain words; it is empty then.
std::string openSslReasons();

/// What failed, with OpenSSL's reasons where the failure does not hold them itself.
std::string reasonOf(const Norvane::Exception& failure);

} // namespace norvcrypt
