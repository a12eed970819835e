#include "cms/TrialDecryption.h"
#include "commands/Command.h"
#include "commands/IdentityOptions.h"
#include "commands/SecretOptions.h"
#include "files/HeldBody.h"
#include "files/Input.h"
#include "files/Output.h"
#include "many/ManyOptions.h"
#include "read/StructureFile.h"
#include "show/DecryptionReport.h"
#include "show/TextAndJson.h"

#include <norvcmsg/Escape.h>

#include <memory>
#include <optional>
#include <string>

namespace norvcrypt {

namespace {

struct DecryptOptions {
    std::optional<IdentityOptions> identities;
    std::optional<std::string> store;
    std::optional<SecretOptions> secrets;
    std::unique_ptr<ManyOptions> in;
    std::string out = "-";
    bool json = false;
};

std::vector<OwnIdentity> identitiesOf(const DecryptOptions& options, Inputs& inputs) {
    const std::vector<IdentityFiles> files = options.identities->files();
    if (files.empty() && !options.store && !options.secrets->any())
        throw Failure(
            "give an identity to decrypt with: --cert and --key, or --p12, or --store, or what both sides have: "
            "--password-file or --kek-file (norvcrypt decrypt --help tells more)");
    return readIdentities(files, inputs);
}

std::optional<StoreIdentities> storeOf(const DecryptOptions& options, Inputs& inputs) {
    return options.store ? std::optional<StoreIdentities>(std::in_place, *options.store, inputs) : std::nullopt;
}

Exit exitOf(const DecryptionResult& result) {
    return result.decrypted ? Exit::good : result.needsMore() ? Exit::failed : Exit::refused;
}

void tell(const DecryptionResult& result) {
    for (const std::string& line : decryptionReport(result))
        reportError(line);
}

/// It says whether the body was written.
void tellJson(const DecryptionResult& result, const DecryptOptions& options) {
    Description facts{{"file", options.in->one()}};
    facts.update(decryptionFacts(result));
    TextOutput out;
    out.text(asJson(facts));
    out.flush();
}

/// For the line of one of many.
Outcome outcomeOf(const DecryptionResult& result, bool inJson) {
    std::string reason;
    for (const std::string& line : decryptionReport(result))
        reason += (reason.empty() ? "" : "; ") + Norvane::escapeForDisplay(line);
    return {.exit = exitOf(result),
            .verdict = result.decrypted ? "decrypted" : "not decrypted",
            .reason = result.decrypted ? "" : reason,
            .facts = inJson ? decryptionFacts(result) : Description::object()};
}

Outcome decryptOne(const Item& item, const DecryptionKeys& keys, Inputs& inputs) {
    OutputFile out(item.output, inputs, OutputFile::Access::owner);
    HeldBody body(out);
    StructureFile file(inputs, item.path, nullptr);
    TrialDecryption decryption(keys);
    const DecryptionResult result = decryption.run(file, body);
    if (result.decrypted) {
        decryption.deliver(body);
        out.commit();
    }
    return outcomeOf(result, item.inJson);
}

Exit decrypt(const DecryptOptions& options) {
    Inputs inputs;
    if (!options.in->areMany() && options.json && options.out == "-")
        throw Failure("with --json the report goes to standard output: give --out a file for the body");
    const DecryptionKeys keys(identitiesOf(options, inputs), storeOf(options, inputs),
                              options.secrets->password(inputs), options.secrets->keyEncryptionKey(inputs));
    if (options.in->areMany())
        return options.in->run(inputs, options.json, withoutSignatureEnding, OutputFile::Access::owner,
                               [&keys](const Item& item, Inputs& own) { return decryptOne(item, keys, own); });
    TrialDecryption decryption(keys);
    // Opened now: a place that cannot be written to should not cost the reading of a long message.
    OutputFile out(options.out, inputs, OutputFile::Access::owner);
    HeldBody body(out);
    Progress progress("decrypting");
    StructureFile file(inputs, options.in->one(), &progress);
    const DecryptionResult result = decryption.run(file, body);
    progress.clear();
    if (!options.json)
        tell(result);
    if (result.decrypted) {
        decryption.deliver(body);
        out.commit();
    }
    if (options.json)
        tellJson(result, options);
    return exitOf(result);
}

} // namespace

void addDecrypt(Command& commands, Action& action) {
    auto options = std::make_shared<DecryptOptions>();
    Command* command = commands.command(
        "decrypt", "Decrypts a CMS structure with the first key that fits, and tells what became of each recipient");
    options->identities.emplace(*command);
    command->option("--store", options->store, "A store: its identities with a key are tried after the others")
        ->typeName("DIR");
    options->secrets.emplace(*command);
    options->in = std::make_unique<ManyOptions>(*command, "--in", "MSG",
                                                "The structure: DER, BER, PEM, base64, or the mail that it came in; or "
                                                "several with --out-dir; \"-\", as without "
                                                "it, is standard input",
                                                ManyOptions::Outputs::needed, ManyOptions::Json::ofCommand);
    command
        ->option("--out", options->out,
                 "The body, written only when a key fitted, and readable by its owner alone; \"-\" is standard output")
        ->typeName("BODY")
        ->showDefault()
        ->excludes(options->in->outDirectory());
    command->flag("--json", options->json, "Tell what became of each recipient in JSON (docs/json.md)");
    command->note(
        "Each identity is --cert FILE --key FILE [--passphrase-file FILE], or --p12 FILE --passphrase-file "
        "FILE, or all of a --store DIR, whatever their validity; the first one whose certificate a recipient "
        "names, by issuer and serial number or by key identifier, is tried for it; so are the password and the "
        "key-encryption key. Messages may have any size. Exit code 1: no key decrypts the message; 2: it needs what is "
        "not supported or costs too much, which is named, or it cannot be read.");
    command->example("norvcrypt decrypt --cert bob.pem --key bob.key --in message.p7m --out for-bob.eml");
    command->example("norvcrypt decrypt --cert bob.pem --key bob.key --in message.p7m --out-dir clear");
    command->example("norvcrypt decrypt --p12 alice.p12 --passphrase-file secret --in message.p7m --out for-alice.eml");
    command->example("norvcrypt decrypt --store identities --in message.p7m --out for-us.eml");
    command->example("norvcrypt decrypt --cert mallory.pem --key mallory.key --in message.p7m # exit code 1");
    command->whenChosen([options, &action] { action = [options] { return decrypt(*options); }; });
}

} // namespace norvcrypt
