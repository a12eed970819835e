#pragma once

/// \file
/// The sub-commands. Each adds itself to the parser and sets the action when it is the one that was given; what it returns is
/// the exit code: 0 good, 1 something would not work, 2 bad usage or a failure.

#include <CLI/CLI.hpp>

#include <functional>

namespace norvmilter {

using Action = std::function<int()>;

/// --config FILE [--foreground] [--user NAME] [--allow-root]: the action when no sub-command is given
void addRun(CLI::App& app, Action& action);
/// check --config FILE
void addCheck(CLI::App& app, Action& action);
/// explain --config FILE --from A --to B... [--incoming]
void addExplain(CLI::App& app, Action& action);
/// learnt --config FILE list | revoke NAME
void addLearnt(CLI::App& app, Action& action);

} // namespace norvmilter
