#pragma once

/// \file
/// What an exception says, for the log.

#include <string>

namespace norvmilter {

/// Of the exception that is handled at the moment: called in a `catch`. \throws std::bad_alloc there is no memory for the text
[[nodiscard]] std::string currentFailure();

} // namespace norvmilter
