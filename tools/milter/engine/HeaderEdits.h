#pragma once

/// \file
/// What makes one header of another.

#include "message/Message.h"
#include "message/Outcome.h"

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace norvmilter {

/// Fields of a stranger's choice that are taken out one by one: for each an MTA looks through the header from its beginning, and
/// 8,000 took Postfix seven seconds.
constexpr std::size_t mostTakenOut = 2000;

/// A value as `HeaderEdit::value` has it: no CR and no NUL, and a blank behind each LF.
[[nodiscard]] std::string editable(const std::string& value);

/// Removals of the fields that a question is answered yes for, from the last one to the first.
[[nodiscard]] std::vector<HeaderEdit> removals(const std::vector<HeaderField>& header,
                                               const std::function<bool(const HeaderField&)>& isUnwanted);

/// Makes `wanted` of `header`: of a name whose fields differ all are removed, and those that are wanted appended. Fields that
/// are the same stay where they are.
/// \param isKept names whose fields stay as they are, whatever is wanted
[[nodiscard]] std::vector<HeaderEdit> difference(const std::vector<HeaderField>& header,
                                                 const std::vector<HeaderField>& wanted,
                                                 const std::function<bool(const std::string&)>& isKept);

} // namespace norvmilter
