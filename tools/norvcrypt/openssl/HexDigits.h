#pragma once

#include <norvcmsg/Buffer.h>

#include <string>

namespace norvcrypt {

/// The bytes that hexadecimal digits spell, two each, in upper or lower case; none for what is something else.
Norvane::Buffer octetsFromHex(const std::string& digits);

} // namespace norvcrypt
