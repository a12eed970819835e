#pragma once

/// \file
/// What the TLS commands share on the command line.

#include "commands/Command.h"
#include "tls/Context.h"

namespace norvcrypt {

/// Adds the options that fill `files`; a server needs a certificate and a key, a client may have them.
void addTlsFiles(Command& command, TlsFiles& files, TlsSide side);

/// Adds --time-limit, in seconds.
void addTimeLimit(Command& command, unsigned int& seconds, const std::string& help);

void addTlsConnect(Command& tls, Action& action);
void addTlsServe(Command& tls, Action& action);
void addTlsCheck(Command& tls, Action& action);

} // namespace norvcrypt
