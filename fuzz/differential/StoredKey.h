#pragma once

/// \file
/// Private keys that stay the same, so that messages which were encrypted once can always be opened.

#include <authority/Authority.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace fuzz {

/// One of the tests' keys, from the checkout, or from beside the program where there is none.
inline norvauthority::Key storedKey(const std::string& name) {
    std::ifstream file(std::string(NORV_KEYS) + "/" + name + ".pem");
    if (!file) {
        file.open(std::filesystem::read_symlink("/proc/self/exe").parent_path() / "keys" / (name + ".pem"));
    }
    return norvauthority::Key::fromPem({std::istreambuf_iterator<char>(file), {}});
}

} // namespace fuzz
