#include "commands/SmimeCommands.h"
#include "files/Output.h"
#include "smime/MailReport.h"
#include "trust/TrustReport.h"

#include <norvcmsg/Media.h>

namespace norvcrypt {

namespace SMime = Norvane::Crypto::SMime;
namespace Trust = Norvane::Crypto::Trust;

namespace {

struct SmimeVerifyOptions {
    explicit SmimeVerifyOptions(Command& command)
        : mail(command),
          trust(command, Trust::Purpose::sign, TrustOptions::Anchors::optional) {}
    MailOptions mail;
    TrustOptions trust;
    std::optional<std::string> out;
    bool whole = false;
    bool coveredOnly = false;
};

/// A part that nothing covers makes the mail as it is shown another one than what was signed.
Exit exitOf(const SMime::Answer& answer, bool coveredOnly) {
    switch (answer.verdict) {
    case SMime::Verdict::accepted:
    case SMime::Verdict::signatureGood:
        return answer.notCovered.empty() || coveredOnly ? Exit::good : Exit::refused;
    case SMime::Verdict::refused:
    case SMime::Verdict::notSMime:
    case SMime::Verdict::decrypted:
    case SMime::Verdict::certificates:
        return Exit::refused;
    default:
        return Exit::failed;
    }
}

Exit verify(const SmimeVerifyOptions& options) {
    Inputs inputs;
    if (options.out == "-")
        throw Failure("the verdict goes to standard output: give --out a file for the content");
    std::optional<TrustJudge> judge;
    if (options.trust.asked())
        judge.emplace(options.trust.request(), inputs);
    std::optional<OutputFile> out;
    std::optional<HeldBody> body;
    if (options.out)
        body.emplace(out.emplace(*options.out, inputs, OutputFile::Access::owner));
    Norvane::MediaOut nowhere = Norvane::NullMediaOut();
    const ReadMail mail =
        readMail(options.mail, inputs, judge ? &*judge : nullptr, body ? body->sink() : nowhere, options.whole);
    if (judge)
        tellUnused(*judge);
    const Exit exit = exitOf(mail.answer, options.coveredOnly);
    tellMail(mail.answer, mail.trust, mail.file, options.trust.json());
    if (body && exit == Exit::good) {
        body->release();
        out->commit();
    }
    return exit;
}

} // namespace

Exit verifyMail(const std::string& path, Inputs& inputs, const std::optional<TrustJudge>& judge,
                const SignerCertificates& certificates, bool json) {
    const ReadMail mail = readMail(path, certificates, inputs, judge ? &*judge : nullptr);
    if (judge)
        tellUnused(*judge);
    tellMail(mail.answer, mail.trust, mail.file, json);
    return exitOf(mail.answer, false);
}

void addSmimeVerify(Command& smime, Action& action) {
    Command* command = smime.command("verify", "Judges the signatures of a mail, and whom to believe");
    auto options = std::make_shared<SmimeVerifyOptions>(*command);
    Option* const out =
        command
            ->option("--out", options->out,
                     "What was signed, written only when the exit code is 0, and readable by its owner alone")
            ->typeName("CONTENT");
    command->flag("--whole", options->whole, "Write a whole mail: the header fields outside, and what was signed")
        ->needs(out);
    command->flag("--covered-only", options->coveredOnly,
                  "Judge the signed part alone, whatever stands beside it, such as the footer of a mailing list");
    command->note(
        "With --ca a mail is good when one who is trusted signed it and is its sender; without, trust is not checked. "
        "Encrypted mails are opened with the identities given, as norvcrypt decrypt takes them. Exit code: 0 good, 1 "
        "refused, not signed, or with parts that nobody signed, 2 it could not be judged: no key, damaged, not "
        "supported, too costly.");
    command->example("norvcrypt smime verify --in letter-signed.eml --ca root.pem --out letter-content.txt");
    command->whenChosen([options, &action] { action = [options] { return verify(*options); }; });
}

} // namespace norvcrypt
