#include "commands/Command.h"
#include "commands/Force.h"
#include "files/Input.h"
#include "files/Output.h"
#include "read/Passphrase.h"
#include "write/PrivateKeyFile.h"

#include <norvcrypto/KeyFactory.h>

#include <memory>
#include <optional>
#include <string>

namespace norvcrypt {

namespace {

constexpr unsigned int leastSafeBits = 2048;
constexpr unsigned int largestBits = 16384; // OpenSSL works with no larger modulus

constexpr unsigned int leastBits = 512; // OpenSSL makes no smaller ones

struct GenkeyOptions {
    unsigned int bits = 3072;
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

Norvane::Crypto::RefKey generate(const GenkeyOptions& options) {
    try {
        return Norvane::Crypto::KeyGenerator().rsaGenerateKeyPair(options.exponent, options.bits).second;
    } catch (const Norvane::Exception& failure) {
        throw Failure("cannot generate an RSA key of " + std::to_string(options.bits) + " bits with the exponent " +
                          std::to_string(options.exponent),
                      failure);
    }
}

Exit genkey(const GenkeyOptions& options) {
    Inputs inputs;
    const Passphrase passphrase(inputs, options.passphraseFile);
    requireProtection(passphrase, options);
    // Opened first: a place that cannot be written to should not cost the generation.
    OutputFile out(options.out, inputs, OutputFile::Access::owner, existingOf(options.force));
    const Norvane::Crypto::RefKey key = generate(options);
    writePrivateKey(key, passphrase.view(), out);
    out.commit();
    if (options.bits < leastSafeBits)
        reportError("warning: an RSA key of " + std::to_string(options.bits) + " bits is not safe; use " +
                    std::to_string(leastSafeBits) + " or more");
    return Exit::good;
}

} // namespace

void addGenkey(Command& commands, Action& action) {
    auto options = std::make_shared<GenkeyOptions>();
    Command* command = commands.command("genkey", "Generates an RSA private key: PEM, readable by its owner alone");
    command->option("--bits", options->bits, "The size of the modulus: 512 to 16384, and 2048 or more to be safe")
        ->typeName("COUNT")
        ->range(leastBits, largestBits)
        ->showDefault();
    command->option("--exponent", options->exponent, "The public exponent: odd and above 1")
        ->typeName("NUMBER")
        ->showDefault();
    command->option("--out", options->out, "The key; \"-\" is standard output")->typeName("KEY")->required();
    command
        ->option("--passphrase-file", options->passphraseFile,
                 "Encrypt the key under this file's first line; without it the key is in clear")
        ->typeName("FILE");
    addForce(*command, options->force);
    command->example("norvcrypt genkey --out new.key");
    command->whenChosen([options, &action] { action = [options] { return genkey(*options); }; });
}

} // namespace norvcrypt
