#include "commands/Command.h"
#include "commands/SmimeWriting.h"

namespace norvcrypt {

void addSmime(Command& commands, Action& action) {
    Command* smime = commands.command("smime", "Signs and encrypts whole messages (S/MIME)");
    smime->requireCommand();
    addSmimeSign(*smime, action);
    addSmimeEncrypt(*smime, action);
    addSmimeSignEncrypt(*smime, action);
}

} // namespace norvcrypt
