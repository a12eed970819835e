#include "commands/SmimeCommands.h"
#include "smime/MailReport.h"

#include <norvcmsg/Media.h>

namespace norvcrypt {

namespace SMime = Norvane::Crypto::SMime;

namespace {

struct SmimeInspectOptions {
    explicit SmimeInspectOptions(Command& command) : mail(command, ManyOptions::Outputs::none) {}
    MailOptions mail;
    bool json = false;
};

Exit inspect(const SmimeInspectOptions& options) {
    Inputs inputs;
    const MailReading reading(options.mail, inputs, nullptr, false, true);
    if (options.mail.in->areMany())
        return options.mail.in->run(
            inputs, options.json, nullptr, OutputFile::Access::everyone, [&reading](const Item& item, Inputs& own) {
                Norvane::MediaOut nowhere = Norvane::NullMediaOut();
                const ReadMail mail = reading.read(item.path, own, nowhere);
                return outcomeOf(mail, isRead(mail.answer) ? Exit::good : Exit::failed, item.inJson);
            });
    Norvane::MediaOut nowhere = Norvane::NullMediaOut();
    Progress progress("reading");
    const ReadMail mail = reading.read(options.mail.in->one(), inputs, nowhere, &progress);
    progress.clear();
    tellMail(mail.answer, mail.trust, mail.file, options.json);
    return isRead(mail.answer) ? Exit::good : Exit::failed;
}

} // namespace

void addSmimeInspect(Command& smime, Action& action) {
    Command* command = smime.command("inspect", "Tells how a mail is signed and encrypted, layer by layer");
    auto options = std::make_shared<SmimeInspectOptions>(*command);
    command->flag("--json", options->json, "One JSON object; of several mails one each, a line long");
    command->note("With identities it looks into encrypted parts, too. Exit code: 0 whatever the signatures are, 2 "
                  "the mail cannot be read to its end.");
    command->example("norvcrypt smime inspect --in letter-secret.eml --p12 alice.p12 --passphrase-file secret");
    command->whenChosen([options, &action] { action = [options] { return inspect(*options); }; });
}

} // namespace norvcrypt
