#include "commands/SmimeCommands.h"
#include "files/Output.h"
#include "smime/MailReport.h"
#include "trust/TrustReport.h"

#include <algorithm>

namespace norvcrypt {

namespace SMime = Norvane::Crypto::SMime;
namespace Trust = Norvane::Crypto::Trust;

namespace {

struct SmimeDecryptOptions {
    explicit SmimeDecryptOptions(Command& command)
        : mail(command, ManyOptions::Outputs::needed),
          trust(command, Trust::Purpose::sign, TrustOptions::Anchors::optional) {}
    MailOptions mail;
    TrustOptions trust;
    std::string out = "-";
    bool whole = false;
    bool anySignature = false;
};

bool isEncrypted(const SMime::Layer& layer) {
    return layer.coversContent &&
           (layer.kind == SMime::LayerKind::enveloped || layer.kind == SMime::LayerKind::authEnveloped);
}

Exit exitOf(const SMime::Answer& answer, bool anySignature) {
    switch (answer.verdict) {
    case SMime::Verdict::accepted:
    case SMime::Verdict::signatureGood:
    case SMime::Verdict::decrypted:
        return Exit::good;
    case SMime::Verdict::refused:
        return anySignature ? Exit::good : Exit::refused;
    case SMime::Verdict::noKey:
        return Exit::refused;
    default:
        return Exit::failed;
    }
}

/// Nothing was there to decrypt. Of a mail that could not be looked at to its end nobody knows.
bool isClear(const SMime::Answer& answer) {
    const bool isKnown = answer.verdict != SMime::Verdict::tooCostly && answer.verdict != SMime::Verdict::damaged &&
                         answer.verdict != SMime::Verdict::unsupported;
    return isKnown && std::ranges::none_of(answer.layers, isEncrypted);
}

Outcome decryptOne(const Item& item, const SmimeDecryptOptions& options, const MailReading& reading, Inputs& inputs) {
    OutputFile out(item.output, inputs, OutputFile::Access::owner);
    HeldBody body(out);
    const ReadMail mail = reading.read(item.path, inputs, body.sink());
    const Exit exit = exitOf(mail.answer, options.anySignature);
    if (isClear(mail.answer)) {
        Outcome outcome = outcomeOf(mail, Exit::failed, item.inJson);
        outcome.verdict = "failed";
        outcome.facts["error"] = outcome.reason = "nothing is encrypted in it";
        return outcome;
    }
    if (exit == Exit::good) {
        body.release();
        out.commit();
    }
    return outcomeOf(mail, exit, item.inJson);
}

Exit decrypt(const SmimeDecryptOptions& options) {
    Inputs inputs;
    const bool areMany = options.mail.in->areMany();
    if (!options.mail.canOpen())
        throw Failure(
            "give an identity to decrypt with: --cert and --key, or --p12, or --store, or what both sides have: "
            "--password-file or --kek-file (norvcrypt smime decrypt --help tells more)");
    if (!areMany && options.trust.json() && options.out == "-")
        throw Failure("with --json the report goes to standard output: give --out a file for the content");
    std::optional<TrustJudge> judge;
    if (options.trust.asked())
        judge.emplace(options.trust.request(), inputs);
    std::optional<OutputFile> out;
    if (!areMany)
        out.emplace(options.out, inputs, OutputFile::Access::owner);
    const MailReading reading(options.mail, inputs, judge ? &*judge : nullptr, options.whole);
    if (areMany) {
        if (judge)
            tellUnused(*judge);
        const OutputName name =
            options.whole ? OutputName([](const std::string& one) { return one; }) : OutputName(withoutSignatureEnding);
        return options.mail.in->run(
            inputs, options.trust.json(), name, OutputFile::Access::owner,
            [&](const Item& item, Inputs& own) { return decryptOne(item, options, reading, own); });
    }
    HeldBody body(*out);
    Progress progress("reading");
    const ReadMail mail = reading.read(options.mail.in->one(), inputs, body.sink(), &progress);
    progress.clear();
    if (judge)
        tellUnused(*judge);
    if (options.trust.json())
        tellMail(mail.answer, mail.trust, mail.file, true, judge ? judge->problems() : std::vector<std::string>());
    else
        tellMailOnError(mail.answer);
    if (isClear(mail.answer))
        throw Failure("nothing is encrypted in " + inputName(options.mail.in->one()));
    const Exit exit = exitOf(mail.answer, options.anySignature);
    if (exit == Exit::good) {
        body.release();
        out->commit();
    }
    return exit;
}

} // namespace

void addSmimeDecrypt(Command& smime, Action& action) {
    Command* command = smime.command("decrypt", "Decrypts a mail, and judges the signatures within");
    auto options = std::make_shared<SmimeDecryptOptions>(*command);
    command
        ->option("--out", options->out,
                 "What was encrypted, written only when the exit code is 0, and readable by its owner alone; \"-\" is "
                 "standard output")
        ->typeName("CONTENT")
        ->showDefault()
        ->excludes(options->mail.in->outDirectory());
    command->flag("--whole", options->whole, "Write a whole mail: the header fields outside, and what was encrypted");
    command->flag("--any-signature", options->anySignature,
                  "Write it although a signature within is wrong, or its signer not to be believed");
    command->note(
        "Each identity is --cert FILE --key FILE [--passphrase-file FILE], or --p12 FILE --passphrase-file FILE, or "
        "all of a --store DIR. Where none of them fits, the password and the key-encryption key are tried, each for "
        "the first "
        "recipient of its kind. Nothing of what stands beside the encrypted part is written; it is named. Exit code: 0 "
        "decrypted, 1 no key fits, or a signature within is refused, 2 damaged, not supported, too costly, or nothing "
        "is encrypted. Of several mails each goes to --out-dir under its name with \".content\" behind (in the "
        "place of \".p7m\" or \".p7s\"), or, with --whole, under its name.");
    command->example(
        "norvcrypt smime decrypt --in letter-secret.eml --cert bob.pem --key bob.key --ca root.pem --whole "
        "--out letter-clear.eml");
    command->whenChosen([options, &action] { action = [options] { return decrypt(*options); }; });
}

} // namespace norvcrypt
