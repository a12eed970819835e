#pragma once

#include <string>

namespace norvcrypt {

/// A path as a shell takes it for one argument that is no option, whatever bytes it holds.
std::string quoted(const std::string& path);

} // namespace norvcrypt
