#pragma once

#include "base/Failure.h"

#include <CLI/CLI.hpp>

#include <functional>

namespace norvcrypt {

/// What the command line asks for, once it was read.
using Action = std::function<Exit()>;

/// Each adds a sub-command that sets `action` when it is chosen.
void addSign(CLI::App& app, Action& action);
void addVerify(CLI::App& app, Action& action);
void addEncrypt(CLI::App& app, Action& action);
void addDecrypt(CLI::App& app, Action& action);
void addGenkey(CLI::App& app, Action& action);
void addPkcs12(CLI::App& app, Action& action);
void addInspect(CLI::App& app, Action& action);
void addDigest(CLI::App& app, Action& action);
void addCipher(CLI::App& app, Action& action);
void addTls(CLI::App& app, Action& action);
void addBindings(CLI::App& app, Action& action);
void addDemo(CLI::App& app, Action& action);

} // namespace norvcrypt
