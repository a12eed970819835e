#pragma once

/// \file
/// Those of the hostile inputs that the readers of CMS in constant memory are given.

#include "HostileInputs.h"

namespace fuzz {

std::vector<Case> hostileMessages();

} // namespace fuzz
