#pragma once

/// \file
/// The functions that libmilter calls. They have no argument of ours, so that there is one front in a process.

#include "front/Front.h"

#include <chrono>

#include <libmilter/mfapi.h>

namespace norvmilter {

/// What libmilter is to call. \param front what the callbacks work for, until the process ends or another one is named
[[nodiscard]] smfiDesc callbacksFor(Front& front);

/// Waits until the threads that called back have ended, for so long at most: a process that ends beside threads that do takes
/// away what OpenSSL ends them with.
void awaitThreads(std::chrono::milliseconds most);

} // namespace norvmilter
