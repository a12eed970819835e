#pragma once

/// \file
/// The fields of a log message, formatted one conversion at a time so that no argument can end a field.

#include <cstdarg>
#include <string>
#include <vector>

namespace Norvane {

/// The texts between the bytes 0x01 of `format`, each with its arguments put in. `error` is what %m tells.
[[nodiscard]] std::vector<std::string> formatLogFields(const char* format, std::va_list arguments, int error);

} // namespace Norvane
