#include "commands/SmimeWriting.h"

namespace norvcrypt {

void addSmimeEncrypt(Command& smime, Action& action) {
    Command* command =
        smime.command("encrypt", "Encrypts a message: a mail goes in, and a mail comes out that its "
                                 "recipients' mail programs open; whose the certificates are is not checked");
    addSmimeWriting(*command, action, {.encrypts = true});
    command->note(
        "Header fields stay outside and can be read by everybody, the Subject too unless --protect-header is given. "
        "With "
        "--store alone, the recipients are those of the message (To, Cc and Bcc); the message names the certificates "
        "of "
        "all of them, for each to see. A certificate that is expired or not "
        "meant for encrypting mail is refused. The -gcm ciphers let the recipient see whether somebody changed the "
        "message, and older programs do not read them.");
    command->example("norvcrypt smime encrypt --to bob.pem carol.pem --in letter.eml --out encrypted.eml");
    command->example("norvcrypt smime encrypt --store identities --to-address bob@example.org --in letter.eml");
}

} // namespace norvcrypt
