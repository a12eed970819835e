#pragma once

/// \file
/// Who a message says it is from and to.

#include "message/Message.h"

#include <set>
#include <string>
#include <vector>

namespace norvmilter {

struct People {
    std::vector<std::string> from; ///< the addresses of From, as they stand there
    std::set<std::string> visible; ///< of To and Cc, in the form in which addresses are compared
    std::string problem;           ///< why they cannot be told; empty when they can
};

/// Reads From, To, Cc and what a resent message has in place of the latter. Bcc tells nobody.
[[nodiscard]] People peopleOf(const std::vector<HeaderField>& header);

} // namespace norvmilter
