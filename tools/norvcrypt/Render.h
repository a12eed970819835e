#pragma once

#include "Describe.h"

#include <string>

namespace norvcrypt {

/// JSON in ASCII: whatever bytes the texts hold, it is valid and drives no terminal. Bytes that are no UTF-8 become
/// \xNN, and a text that holds some has its backslashes doubled, so that nothing is lost.
std::string asJson(const Description& objects);

/// Lines "key: value", one for each value, indented by depth; values are escaped for display.
std::string asText(const Description& object);

} // namespace norvcrypt
