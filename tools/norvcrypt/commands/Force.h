#pragma once

#include "files/Output.h"

#include <CLI/CLI.hpp>

namespace norvcrypt {

/// Adds --force to a command that writes private keys.
inline void addForce(CLI::App& command, bool& force) {
    command.add_flag("--force", force, "Replace files that are there already, which may be the only copy of a key");
}

inline OutputFile::Existing existingOf(bool force) {
    return force ? OutputFile::Existing::replaced : OutputFile::Existing::refused;
}

} // namespace norvcrypt
