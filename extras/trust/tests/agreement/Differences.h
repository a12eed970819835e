#pragma once

/// \file
/// Where the verdicts are not those of `openssl verify`, by the names of the cases, each with its reason. docs/trust.md has
/// them in words.

#include "Cases.h"

#include <map>
#include <string>

namespace agreement {

/// One accepts what the other refuses.
const std::map<std::string, std::string>& otherVerdicts();
/// Both refuse, for other reasons, or one for more of them.
const std::map<std::string, std::string>& otherReasons();

/// The reasons where certificates and lists come with a message: its lists count when an issuer of the chain or somebody who
/// is known signed them, and are left alone otherwise.
const std::map<std::string, std::vector<Finding>>& fromMessages();

} // namespace agreement
