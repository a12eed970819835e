#pragma once

/// \file
/// What the reader refuses with a reason of its own: whether that is so.

#include "Differential.h"
#include "Tree.h"

#include <optional>

namespace fuzz {

/// The outcome that a reason of the reader's stands for, if a signer of the message is as the reason says.
std::optional<Outcome> faultIn(Node& root, int reason);

} // namespace fuzz
