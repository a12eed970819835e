// norvcrypt: signs, verifies, encrypts, decrypts and inspects from the command line what the appliance handles.

#include "base/Failure.h"
#include "commands/Command.h"
#include "files/Output.h"
#include "openssl/Start.h"

#include <norvcmsg/Logger.h>
#include <norvcrypto/Crypto.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace {

using norvcrypt::Exit;

struct NamedCommand {
    std::string_view name;
    void (*add)(norvcrypt::Command& commands, norvcrypt::Action& action);
};

constexpr std::array<NamedCommand, 16> namedCommands{{
    {"sign", norvcrypt::addSign},
    {"verify", norvcrypt::addVerify},
    {"chain", norvcrypt::addChain},
    {"encrypt", norvcrypt::addEncrypt},
    {"decrypt", norvcrypt::addDecrypt},
    {"smime", norvcrypt::addSmime},
    {"genkey", norvcrypt::addGenkey},
    {"request", norvcrypt::addRequest},
    {"p12", norvcrypt::addPkcs12},
    {"inspect", norvcrypt::addInspect},
    {"digest", norvcrypt::addDigest},
    {"cipher", norvcrypt::addCipher},
    {"tls", norvcrypt::addTls},
    {"bindings", norvcrypt::addBindings},
    {"demo", norvcrypt::addDemo},
    {"help", norvcrypt::addHelp},
}};

/// Adds those whose names are among the arguments, which the parser then sees as it would see all of them; all when the line
/// does not begin with one or asks for help, since help and errors are about all then; none for the version. Describing all commands
/// would cost a short-lived process a tenth of its time.
void addCommands(norvcrypt::Command& commands, norvcrypt::Action& action, std::span<char* const> arguments) {
    const auto given = [&arguments](const NamedCommand& command) {
        return std::ranges::find(arguments, command.name) != arguments.end();
    };
    const bool some = !arguments.empty() && arguments.front() != std::string_view("help") &&
                      std::ranges::any_of(namedCommands, [&](const NamedCommand& command) {
                          return command.name == arguments.front();
                      });
    const bool none = arguments.size() == 1 && arguments.front() == std::string_view("--version");
    for (const NamedCommand& command : namedCommands)
        if (!none && (!some || given(command)))
            command.add(commands, action);
}

Exit run(int argc, char** argv) {
    norvcrypt::CommandLine line(
        "Signs, verifies, encrypts and decrypts mails and mail bodies; inspects certificates, lists and keys",
        "norvcrypt", norvcrypt::versions);
    line.commands().example("norvcrypt sign --cert alice.pem --key alice.key --in message.eml --out signature.p7s");
    line.commands().example("norvcrypt verify --signature message.p7s --in message.eml --ca root.pem");
    line.commands().example("norvcrypt help sign");
    norvcrypt::Action action;
    addCommands(line.commands(), action, {argv + 1, static_cast<std::size_t>(std::max(argc - 1, 0))});
    const std::optional<Exit> answered = line.read(argc, argv);
    return answered ? *answered : action();
}

Exit guarded(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (...) {
        const norvcrypt::Told told = norvcrypt::toldOfException();
        norvcrypt::reportError(told.text);
        return told.exit;
    }
}

/// The commands tell themselves what matters; records of the library would only repeat it in between. But why a store passes over
/// the key of the one who is meant nobody else says: a command sees no key then, and would call it missing.
class Log : public Norvane::LogSink {
public:
    void record(const Norvane::LogRecord& record) override {
        constexpr unsigned int skippedInStore = 0x3000062;
        if (record.event != skippedInStore || record.fields.size() != 3)
            return;
        const std::string& file = record.fields[1];
        if (file == "key.pem" || file == "passphrase" || file == "chain.pem") // read of nobody but who was looked for
            norvcrypt::reportError("warning: " + record.fields[0] + "/" + file +
                                   " in the store is skipped: " + record.fields[2]);
    }
};

} // namespace

int main(int argc, char** argv) {
    norvcrypt::prepareOutput();
    norvcrypt::startFor(argc > 1 ? argv[1] : "");
    Norvane::Logger::instance(false).sink(std::make_shared<Log>());
    const Exit code = guarded(argc, argv);
    Norvane::Crypto::cleanup();
#ifdef NDEBUG
    // All output is written and committed. OpenSSL would go on to give back one by one what the process gives back at once;
    // builds that look for leaks let it.
    std::_Exit(static_cast<int>(code));
#else
    return static_cast<int>(code);
#endif
}
