#pragma once

#include "files/Input.h"

#include <norvcmsg/Buffer.h>

#include <string>

namespace norvcrypt {

/// A key-encryption key in a file: 16, 24 or 32 bytes, or as many in hexadecimal digits with a line end or none behind them.
/// What can be read in both ways is taken for digits. Wiped with the last copy. \throws Failure
Norvane::Buffer readKeyEncryptionKey(Inputs& inputs, const std::string& path);

} // namespace norvcrypt
