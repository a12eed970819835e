#pragma once

/// \file
/// Which way a message goes, and which rule says so.

#include "config/Config.h"
#include "message/Message.h"

#include <string>

namespace norvmilter {

struct DirectionChoice {
    Direction direction = Direction::incoming;
    std::string rule; ///< "direction in line 12", "no direction fits"
};

/// By what the MTA knows of the client alone: nothing that stands in the message counts.
[[nodiscard]] DirectionChoice directionOf(const Config& config, const Envelope& envelope);

} // namespace norvmilter
