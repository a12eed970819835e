#include "commands/Command.h"
#include "commands/Force.h"
#include "files/Input.h"
#include "files/Output.h"
#include "openssl/KeyKinds.h"
#include "read/Passphrase.h"
#include "show/Description.h"
#include "show/TextAndJson.h"
#include "write/PrivateKeyFile.h"

#include <memory>
#include <optional>
#include <string>

namespace norvcrypt {

namespace {

constexpr unsigned int leastSafeBits = 2048;
constexpr unsigned int largestBits = 16384; // OpenSSL works with no larger modulus

constexpr unsigned int leastBits = 512; // OpenSSL makes no smaller ones

struct GenkeyOptions {
    std::string kind = "rsa";
    unsigned int bits = 3072;
    bool bitsGiven = false;
    bool json = false;
    unsigned int exponent = 65537;
    std::string out;
    std::optional<std::string> passphraseFile;
    bool force = false;
};

void requireProtection(const Passphrase& passphrase, const GenkeyOptions& options) {
    if (passphrase.given() && passphrase.text().empty())
        throw Failure("the passphrase in " + inputName(*options.passphraseFile) +
                      " is empty: it would protect nothing");
}

/// --bits is for RSA keys alone.
KeyKind kindOf(const GenkeyOptions& options) {
    auto kind = keyKindNamed(options.kind);
    if (!kind)
        throw Failure("no kind of key: " + options.kind + "; there are " + keyKindNames());
    if (!options.bitsGiven)
        return *kind;
    if (!kind->curve.empty())
        throw Failure("--bits is for RSA keys: " + kind->curve + " keys have one size");
    if (options.kind.find(':') != std::string::npos)
        throw Failure("give the size with --kind " + options.kind + " or with --bits, not with both");
    kind->bits = options.bits;
    return *kind;
}

void tellJson(const GenkeyOptions& options, const Norvane::Crypto::RefKey& key) {
    Description facts{{"file", options.out}};
    facts.update(keyFacts(key));
    facts["encrypted"] = options.passphraseFile.has_value();
    TextOutput out;
    out.text(asJson(facts));
    out.flush();
}

Exit genkey(const GenkeyOptions& options) {
    Inputs inputs;
    if (options.json && options.out == "-")
        throw Failure("with --json the report goes to standard output: give --out a file for the key");
    const KeyKind kind = kindOf(options);
    const Passphrase passphrase(inputs, options.passphraseFile);
    requireProtection(passphrase, options);
    // Opened first: a place that cannot be written to should not cost the generation.
    OutputFile out(options.out, inputs, OutputFile::Access::owner, existingOf(options.force));
    const Norvane::Crypto::RefKey key = makeKey(kind, options.exponent);
    writePrivateKey(key, passphrase.view(), out);
    out.commit();
    if (options.json)
        tellJson(options, key);
    if (kind.curve.empty() && kind.bits < leastSafeBits)
        reportError("warning: an RSA key of " + std::to_string(kind.bits) + " bits is not safe; use " +
                    std::to_string(leastSafeBits) + " or more");
    return Exit::good;
}

} // namespace

void addGenkey(Command& commands, Action& action) {
    auto options = std::make_shared<GenkeyOptions>();
    Command* command = commands.command("genkey", "Generates a private key: PEM, readable by its owner alone");
    command->option("--kind", options->kind, "The kind of key: " + keyKindNames())->typeName("KIND")->showDefault();
    Option* const bits =
        command
            ->option("--bits", options->bits,
                     "The size of the modulus of an RSA key: 512 to 16384, and 2048 or more to be safe")
            ->typeName("COUNT")
            ->range(leastBits, largestBits)
            ->showDefault();
    command->option("--exponent", options->exponent, "The public exponent of an RSA key: odd and above 1")
        ->typeName("NUMBER")
        ->showDefault();
    command->option("--out", options->out, "The key; \"-\" is standard output")->typeName("KEY")->required();
    command
        ->option("--passphrase-file", options->passphraseFile,
                 "Encrypt the key under this file's first line; without it the key is in clear")
        ->typeName("FILE");
    addForce(*command, options->force);
    command->flag("--json", options->json, "Tell about the key in JSON (docs/json.md)");
    command->note("norvcrypt request makes a certificate request of a key, or both at once.");
    command->example("norvcrypt genkey --kind P-256 --out new.key");
    command->example("norvcrypt genkey --bits 2048 --passphrase-file secret --out new-protected.key --json");
    command->whenChosen([options, bits, &action] {
        options->bitsGiven = !bits->empty();
        action = [options] { return genkey(*options); };
    });
}

} // namespace norvcrypt
