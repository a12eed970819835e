#include "commands/SmimeWriting.h"

namespace norvcrypt {

void addSmimeSign(Command& smime, Action& action) {
    Command* command =
        smime.command("sign", "Signs a message: a mail goes in, and a mail comes out that mail programs show "
                              "as signed");
    addSmimeWriting(*command, action, {.signs = true});
    command->note("Header fields stay outside, as they are; the fields that describe the body (Content-Type and the "
                  "like) and the "
                  "body are signed. Text that is not 7-bit, or that mail systems change on its way, is encoded "
                  "first, part by part. "
                  "Each signer is --cert FILE --key FILE [--passphrase-file FILE], or --p12 FILE --passphrase-file "
                  "FILE; or it is "
                  "the identity that --store has for --from, or else for the sender of the message. A certificate "
                  "that is expired "
                  "or not meant for signing mail is refused.");
    command->example(
        "norvcrypt smime sign --cert alice.pem --key alice.key --chain ca.pem --in letter.eml --out signed.eml");
    command->example("norvcrypt smime sign --store identities --in letter.eml");
    command->example("norvcrypt smime sign --store identities --in letter.eml message.eml --out-dir signed-mails");
}

void addSmimeSignEncrypt(Command& smime, Action& action) {
    Command* command = smime.command("sign-encrypt", "Signs a message, and encrypts the signed one: both in one pass");
    addSmimeWriting(*command, action, {.signs = true, .encrypts = true});
    command->note(
        "Takes the options of both. With --store, the sender and the recipients that no other option names are those "
        "of "
        "the message (From, or Sender where From has several; To, Cc and Bcc).");
    command->example("norvcrypt smime sign-encrypt --cert alice.pem --key alice.key --to bob.pem --in letter.eml "
                     "--out signed-encrypted.eml");
    command->example("norvcrypt smime sign-encrypt --store identities --protect-header --to-self --in letter.eml");
}

} // namespace norvcrypt
