#pragma once

#include <norvcmsg/Buffer.h>

#include <string>

namespace norvcrypt {

/// The type of a binary CMS structure.
struct ContentType {
    std::string name; ///< OpenSSL's long one, else digits and dots; empty when there is none
    bool isKnown = false;
};

/// What the beginning of a structure says; 64 bytes of it are enough for any type in use.
ContentType contentTypeOf(const Norvane::Buffer& start);

} // namespace norvcrypt
