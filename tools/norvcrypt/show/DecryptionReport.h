#pragma once

#include "cms/TrialDecryption.h"
#include "show/Description.h"

#include <string>
#include <vector>

namespace norvcrypt {

/// A line for each recipient that was tried, or why there was none to try; to be escaped.
std::vector<std::string> decryptionReport(const DecryptionResult& result);
/// What docs/json.md says of `norvcrypt decrypt --json`, without the file.
Description decryptionFacts(const DecryptionResult& result);

} // namespace norvcrypt
