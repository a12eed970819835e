#pragma once

/// \file
/// What the streams of this library throw: code 4, the module that throws, and the reason as text.

#include <norvcmsg/Exception.h>
#include <norvcmsg/SourceLocation.h>

#include <string>

namespace Norvane::detail {

[[noreturn]] void throwMedia(const char* where, const char* module, const std::string& reason,
                             SourceLocation here = SourceLocation::current());

/// As above with the text of a system error at the end, and its number as a second parameter.
[[noreturn]] void throwMediaErrno(const char* where, const char* module, const std::string& what, int error,
                                  SourceLocation here = SourceLocation::current());

} // namespace Norvane::detail
