#pragma once

/// \file
/// The functions that libmilter calls. They have no argument of ours, so that there is one front in a process.

#include "front/Front.h"

#include <libmilter/mfapi.h>

namespace norvmilter {

/// What libmilter is to call. \param front what the callbacks work for, until the process ends or another one is named
[[nodiscard]] smfiDesc callbacksFor(Front& front);

} // namespace norvmilter
