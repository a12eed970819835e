#pragma once

/// \file
/// The process that does the work: libmilter's threads, one that listens to the supervisor, one that loads, and one for metrics.

#include "daemon/Channel.h"
#include "daemon/Log.h"

#include <chrono>
#include <string>

namespace norvmilter {

struct WorkerOptions {
    std::string config;          ///< the path of the configuration
    int milterSocket = -1;       ///< listens; so that connections wait while a worker is started anew
    int metricsSocket = -1;      ///< listens; negative: no metrics are told
    bool isInBackground = false; ///< there is no standard error
    /// How long beyond four times `limits.seconds_per_message` one message may be judged before the worker ends.
    std::chrono::seconds stuckGrace{60};
};

/// Until it is told to stop, or the supervisor is gone. \param restarts how many workers there were before
/// \return the exit code: 0 told to stop, 1 could not start, 75 a message did not come to an end
int runWorker(const WorkerOptions& options, const Channel& channel, unsigned long restarts);

} // namespace norvmilter
