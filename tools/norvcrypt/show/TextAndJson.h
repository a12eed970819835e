#pragma once

#include "show/Description.h"

#include <string>

namespace norvcrypt {

/// JSON in ASCII: whatever bytes the texts hold, it is valid and drives no terminal. Bytes that are no UTF-8 become
/// \xNN, and a text that holds some has its backslashes doubled, as has one with a backslash and an x of its own: a
/// value with \x in it is to be read back that way, any other as it stands, so that nothing is lost. "subject" and
/// "issuer" are names as the library shows them to people (RFC 4514), with the escapes of that form alone.
std::string asJson(const Description& objects);
/// The same on one line.
std::string asJsonLine(const Description& object);
/// The line of an input that could not be done, made without containers: these need memory to be destroyed, and end the process
/// where there is none, which may be what is to be told.
std::string asJsonLine(const std::string& file, int exitCode, const std::string& error);

/// Lines "key: value", one for each value, indented by depth; values are escaped for display, names once.
std::string asText(const Description& object);
/// The same under a heading of the caller's, which is shown as it is.
std::string asText(const std::string& heading, const Description& object);

} // namespace norvcrypt
