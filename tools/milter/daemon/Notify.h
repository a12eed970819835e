#pragma once

/// \file
/// Tells systemd how the service does (sd_notify): over the socket that the variable NOTIFY_SOCKET names, if there is one.

#include <string>

namespace norvmilter {

/// \param state such as "READY=1\nSTATUS=takes mail". What cannot be told is not: nobody else could be told either.
void notifyManager(const std::string& state) noexcept;

} // namespace norvmilter
