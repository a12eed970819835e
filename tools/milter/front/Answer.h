#pragma once

/// \file
/// Tells the MTA what is to be done with a message.

#include "front/Agreements.h"
#include "message/Outcome.h"

#include <libmilter/mfapi.h>

#include <map>
#include <string>

namespace norvmilter {

/// Makes the changes. \param written recipients as the MTA wrote them, by the address
/// False: the MTA did not take one of them, and the message must not go on.
[[nodiscard]] bool applyChanges(SMFICTX* context, const Agreed& agreed,
                                const std::map<std::string, std::string>& written, const Outcome& outcome);

/// Sets the text of an answer and tells its status: SMFIS_REJECT or SMFIS_TEMPFAIL.
[[nodiscard]] sfsistat answerWith(SMFICTX* context, const Reply& reply);

} // namespace norvmilter
