#pragma once

/// \file
/// Where the verdicts are not those of `openssl verify`, by the names of the cases, each with its reason. docs/trust.md has
/// them in words.

#include <map>
#include <string>

namespace agreement {

/// One accepts what the other refuses.
const std::map<std::string, std::string>& otherVerdicts();
/// Both refuse, for other reasons, or one for more of them.
const std::map<std::string, std::string>& otherReasons();

} // namespace agreement
