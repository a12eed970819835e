#pragma once

/// \file
/// The whole daemon, from the command line on.

#include <chrono>
#include <string>

namespace norvmilter {

struct DaemonOptions {
    std::string config;
    bool isForeground = false;
    std::string user;        ///< started by root: who it becomes
    bool isRootGood = false; ///< stays root
    /// How long beyond four times `limits.seconds_per_message` one message may be judged.
    std::chrono::seconds stuckGrace{60};
};

/// Runs until it is told to stop. \return the exit code \throws std::exception it cannot start
int runDaemon(const DaemonOptions& options);

} // namespace norvmilter
