#pragma once

#include <string>
#include <vector>

namespace norvcrypt {

/// Name and version of each library that the tool works with, as it is on this machine: "OpenSSL 3.0.17", "libidn2 is not
/// installed".
std::vector<std::string> libraryVersions();

} // namespace norvcrypt
