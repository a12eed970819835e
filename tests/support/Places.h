#pragma once

/// \file
/// Where the checkout and the built programs are. Kept out of the compile commands of the tests, so that a compiler cache
/// works across checkouts.

#include <filesystem>
#include <string>

namespace norvtest {

/// The checkout.
extern const char* const sourceDirectory;
/// The folder of the built programs, with a slash at its end.
extern const char* const programDirectory;
/// The built command-line tool.
extern const char* const norvcryptProgram;

/// A sample written elsewhere, which need not be there.
std::filesystem::path samplePath(const std::string& name);

/// The PEM text of a key of tests/data/keys: making keys takes long.
std::string storedKeyPem(const std::string& name);

} // namespace norvtest
