#include "cms/TrialDecryption.h"
#include "commands/Command.h"
#include "commands/IdentityOptions.h"
#include "files/Input.h"
#include "files/Output.h"
#include "read/CmsFile.h"
#include "show/DecryptionReport.h"

#include <algorithm>
#include <iterator>
#include <memory>
#include <optional>
#include <string>

namespace norvcrypt {

namespace {

struct DecryptOptions {
    std::optional<IdentityOptions> identities;
    std::optional<std::string> store;
    std::string in = "-";
    std::string out = "-";
};

/// Those of the command line come first.
std::vector<OwnIdentity> identitiesOf(const DecryptOptions& options, Inputs& inputs) {
    const std::vector<IdentityFiles> files = options.identities->files();
    if (files.empty() && !options.store)
        throw Failure("give an identity to decrypt with: --cert and --key, or --p12, or --store (norvcrypt decrypt "
                      "--help tells more)");
    std::vector<OwnIdentity> identities = readIdentities(files, inputs);
    if (options.store)
        std::ranges::move(readIdentities(*options.store, inputs), std::back_inserter(identities));
    return identities;
}

void openMessage(TrialDecryption& decryption, const std::string& path, Inputs& inputs) {
    Progress progress("decrypting");
    readStructure(
        inputs, path, "the encrypted message",
        [&](Norvane::MediaIn& structure) { decryption.open(structure, inputName(path)); }, &progress);
}

Exit decrypt(const DecryptOptions& options) {
    Inputs inputs;
    TrialDecryption decryption(identitiesOf(options, inputs));
    // Opened now: a place that cannot be written to should not cost the reading of a long message.
    OutputFile out(options.out, inputs, OutputFile::Access::owner);
    openMessage(decryption, options.in, inputs);
    const DecryptionResult result = decryption.run(inputName(options.in));
    for (const std::string& line : decryptionReport(result))
        reportError(line);
    if (!result.decrypted)
        return result.needsMore() ? Exit::failed : Exit::refused;
    OutputStream body(out);
    decryption.body().write(body);
    out.commit();
    return Exit::good;
}

} // namespace

void addDecrypt(Command& commands, Action& action) {
    auto options = std::make_shared<DecryptOptions>();
    Command* command = commands.command(
        "decrypt", "Decrypts a CMS structure with the first key that fits, and tells what became of each recipient");
    options->identities.emplace(*command);
    command->option("--store", options->store, "A store: its identities with a key are tried after the others")
        ->typeName("DIR");
    command->option("--in", options->in, "The structure, DER, BER or PEM; \"-\" is standard input")
        ->typeName("MSG")
        ->showDefault();
    command
        ->option("--out", options->out,
                 "The body, written only when a key fitted, and readable by its owner alone; \"-\" is standard output")
        ->typeName("BODY")
        ->showDefault();
    command->footer(
        "Each identity is --cert FILE --key FILE [--passphrase-file FILE], or --p12 FILE --passphrase-file "
        "FILE, or all of a --store DIR, whatever their validity; the first one whose certificate a recipient "
        "names is tried for it. Exit code 1: no key decrypts the message; 2: it needs what is not supported, which is "
        "named, or it cannot be read.");
    command->whenChosen([options, &action] { action = [options] { return decrypt(*options); }; });
}

} // namespace norvcrypt
