#pragma once

/// \file
/// How the configuration file names sockets.

#include <string>

namespace norvmilter {

/// What is wrong with "unix:/path", "inet:PORT@ADDRESS" or "inet6:PORT@ADDRESS"; empty when nothing is.
[[nodiscard]] std::string problemOfSocket(const std::string& text);
/// What is wrong with "smtp://HOST:PORT"; empty when nothing is.
[[nodiscard]] std::string problemOfSubmit(const std::string& text);

} // namespace norvmilter
