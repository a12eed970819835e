#pragma once

/// \file
/// What the sockets throw: see the head of Socket.h.

#include <norvcmsg/Exception.h>
#include <norvcmsg/SourceLocation.h>

#include <string>

namespace Norvane::detail {

/// Code 4 with a reason.
[[noreturn]] void throwSocket(const char* where, const char* module, const std::string& reason,
                              SourceLocation here = SourceLocation::current());

/// Code 4 with the text of a system error after `what`, which may be empty, and its number as a second parameter; code 1
/// when the error is that there is no connection.
[[noreturn]] void throwSocketErrno(const char* where, const char* module, const std::string& what, int error,
                                   SourceLocation here = SourceLocation::current());

} // namespace Norvane::detail
