#pragma once

#include "commandline/CommandLine.h"

namespace norvcrypt {

/// Each adds a sub-command that sets `action` when it is chosen.
void addSign(Command& commands, Action& action);
void addVerify(Command& commands, Action& action);
void addEncrypt(Command& commands, Action& action);
void addDecrypt(Command& commands, Action& action);
void addSmime(Command& commands, Action& action);
void addRequest(Command& commands, Action& action);
void addGenkey(Command& commands, Action& action);
void addPkcs12(Command& commands, Action& action);
void addChain(Command& commands, Action& action);
void addInspect(Command& commands, Action& action);
void addDigest(Command& commands, Action& action);
void addCipher(Command& commands, Action& action);
void addTls(Command& commands, Action& action);
void addBindings(Command& commands, Action& action);
void addDemo(Command& commands, Action& action);
void addHelp(Command& commands, Action& action);

/// Of the tool and of the libraries that it works with on this machine, a line each.
std::string versions();

} // namespace norvcrypt
