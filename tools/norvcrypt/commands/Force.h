#pragma once

#include "commandline/CommandLine.h"
#include "files/Output.h"

namespace norvcrypt {

/// Adds --force to a command that writes private keys.
inline Option* addForce(Command& command, bool& force) {
    return command.flag("--force", force, "Replace files that are there already, which may be the only copy of a key");
}

inline OutputFile::Existing existingOf(bool force) {
    return force ? OutputFile::Existing::replaced : OutputFile::Existing::refused;
}

} // namespace norvcrypt
