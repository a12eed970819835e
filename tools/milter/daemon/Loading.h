#pragma once

/// \file
/// From the files on the disk to what judges messages.

#include "config/Config.h"
#include "daemon/Log.h"
#include "front/Front.h"
#include "stores/Stores.h"

#include <memory>
#include <string>

namespace norvmilter {

struct Loaded {
    std::shared_ptr<const Config> config;
    std::shared_ptr<Stores> stores;
    std::shared_ptr<const Generation> generation;
};

/// Reads configuration, store and trust. \throws ConfigError, Temporary: what is wrong with them, or with the folder for bodies
[[nodiscard]] Loaded load(const std::string& path);

/// Tells what was loaded, and what is there and not used.
void tellLoaded(Log& log, const Loaded& loaded);

} // namespace norvmilter
