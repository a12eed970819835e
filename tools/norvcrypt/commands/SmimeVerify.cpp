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
        : mail(command, ManyOptions::Outputs::possible),
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

/// "letter.eml" stays so where a mail is written.
OutputName nameOf(bool whole) {
    return whole ? OutputName([](const std::string& name) { return name; }) : withoutSignatureEnding;
}

Exit verifyMany(const SmimeVerifyOptions& options, const MailReading& reading, Inputs& shared) {
    return options.mail.in->run(shared, options.trust.json(), nameOf(options.whole), OutputFile::Access::owner,
                                [&](const Item& item, Inputs& inputs) {
                                    std::optional<OutputFile> out;
                                    std::optional<HeldBody> body;
                                    if (!item.output.empty())
                                        body.emplace(out.emplace(item.output, inputs, OutputFile::Access::owner));
                                    Norvane::MediaOut nowhere = Norvane::NullMediaOut();
                                    const ReadMail mail =
                                        reading.read(item.path, inputs, body ? body->sink() : nowhere);
                                    const Exit exit = exitOf(mail.answer, options.coveredOnly);
                                    if (body && exit == Exit::good) {
                                        body->release();
                                        out->commit();
                                    }
                                    return outcomeOf(mail, exit, item.inJson);
                                });
}

Exit verify(const SmimeVerifyOptions& options) {
    Inputs inputs;
    if (options.out == "-")
        throw Failure("the verdict goes to standard output: give --out a file for the content");
    if (options.out && options.mail.in->areMany())
        throw Failure(outOfMany);
    std::optional<TrustJudge> judge;
    if (options.trust.asked())
        judge.emplace(options.trust.request(), inputs);
    std::optional<OutputFile> out;
    std::optional<HeldBody> body;
    if (options.out)
        body.emplace(out.emplace(*options.out, inputs, OutputFile::Access::owner));
    const MailReading reading(options.mail, inputs, judge ? &*judge : nullptr, options.whole);
    if (options.mail.in->areMany()) {
        if (judge)
            tellUnused(*judge);
        return verifyMany(options, reading, inputs);
    }
    Norvane::MediaOut nowhere = Norvane::NullMediaOut();
    Progress progress("reading");
    const ReadMail mail = reading.read(options.mail.in->one(), inputs, body ? body->sink() : nowhere, &progress);
    progress.clear();
    if (judge)
        tellUnused(*judge);
    const Exit exit = exitOf(mail.answer, options.coveredOnly);
    tellMail(mail.answer, mail.trust, mail.file, options.trust.json(),
             judge ? judge->problems() : std::vector<std::string>());
    if (body && exit == Exit::good) {
        body->release();
        out->commit();
    }
    return exit;
}

} // namespace

Exit verifyMail(const std::string& path, Inputs& inputs, const std::optional<TrustJudge>& judge,
                const SignerCertificates& certificates, bool json) {
    Norvane::MediaOut nowhere = Norvane::NullMediaOut();
    Progress progress("reading");
    const ReadMail mail = MailReading(certificates, judge ? &*judge : nullptr).read(path, inputs, nowhere, &progress);
    progress.clear();
    if (judge)
        tellUnused(*judge);
    tellMail(mail.answer, mail.trust, mail.file, json, judge ? judge->problems() : std::vector<std::string>());
    return exitOf(mail.answer, false);
}

Outcome verifyOneMail(const Item& item, Inputs& inputs, const MailReading& reading) {
    Norvane::MediaOut nowhere = Norvane::NullMediaOut();
    const ReadMail mail = reading.read(item.path, inputs, nowhere);
    return outcomeOf(mail, exitOf(mail.answer, false), item.inJson);
}

void addSmimeVerify(Command& smime, Action& action) {
    Command* command = smime.command("verify", "Judges the signatures of a mail, and whom to believe");
    auto options = std::make_shared<SmimeVerifyOptions>(*command);
    Option* const out =
        command
            ->option("--out", options->out,
                     "What was signed, written only when the exit code is 0, and readable by its owner alone")
            ->typeName("CONTENT")
            ->excludes(options->mail.in->outDirectory());
    command->flag("--whole", options->whole, "Write a whole mail: the header fields outside, and what was signed");
    command->flag("--covered-only", options->coveredOnly,
                  "Judge the signed part alone, whatever stands beside it, such as the footer of a mailing list");
    command->note(
        "With --ca a mail is good when one who is trusted signed it and is its sender; without, trust is not checked. "
        "Encrypted mails are opened with the identities given, as norvcrypt decrypt takes them. Exit code: 0 good, 1 "
        "refused, not signed, or with parts that nobody signed, 2 it could not be judged: no key, damaged, not "
        "supported, too costly. Of several mails a line each is told; what was signed goes to --out-dir, if that is "
        "given, "
        "under the mail's name with \".content\" behind (in the place of \".p7m\" or \".p7s\"), or, with --whole, "
        "under "
        "its name.");
    command->example("norvcrypt smime verify --in letter-signed.eml --ca root.pem --out letter-content.txt");
    command->example("norvcrypt smime verify --in letter-signed.eml letter.eml --ca root.pem # exit code 1");
    command->whenChosen([options, &action, out] {
        if (options->whole && out->empty() && options->mail.in->outDirectory()->empty())
            throw MissingOption("--out");
        action = [options] { return verify(*options); };
    });
}

} // namespace norvcrypt
