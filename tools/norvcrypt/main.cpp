// norvcrypt: signs, verifies, encrypts, decrypts and inspects from the command line what the appliance handles.

#include "commands/Command.h"
#include "files/Output.h"

#include <norvcmsg/Logger.h>
#include <norvcrypto/Crypto.h>

#include <memory>
#include <string>
#include <vector>

namespace {

using norvcrypt::Exit;

constexpr char mark = '\x01';

/// The parser takes "[a,b]" for a list and "++" for the end of a command; behind a mark they are names like any other.
std::string marked(const std::string& argument) {
    const bool list = argument.starts_with('[') && argument.ends_with(']');
    return list || argument == "++" || argument.starts_with(mark) ? mark + argument : argument;
}

std::string unmarked(const std::string& argument) {
    return argument.starts_with(mark) ? argument.substr(1) : argument;
}

/// In the reverse order that the parser wants, without the program.
std::vector<std::string> markedArguments(int argc, char** argv) {
    std::vector<std::string> arguments;
    for (int at = argc - 1; at > 0; --at)
        arguments.push_back(marked(argv[at]));
    return arguments;
}

/// Has the options of all commands take the marks away again.
void takeMarksAway(CLI::App& app) {
    for (CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; })) {
        for (CLI::Option* option : command->get_options())
            option->transform(unmarked);
        takeMarksAway(*command);
    }
}

/// The command as far as it was understood: "norvcrypt tls serve".
std::string chosen(const CLI::App& app) {
    std::string name = app.get_name();
    if (const std::vector<CLI::App*> commands = app.get_subcommands(); !commands.empty())
        name += " " + chosen(*commands.front());
    return name;
}

/// Help and version are answers; everything else is bad usage, told on one line.
Exit answer(const CLI::App& app, const CLI::ParseError& error) {
    if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {
        norvcrypt::TextOutput out;
        out.text(dynamic_cast<const CLI::CallForVersion*>(&error) != nullptr ? std::string(error.what()) + "\n"
                                                                             : app.help());
        out.flush();
        return Exit::good;
    }
    // Without a sub-command the parser would not say which word it could not make one of.
    const std::vector<std::string> unknown = app.remaining();
    std::string what =
        unknown.empty() || !app.get_subcommands().empty() ? error.what() : "unknown command: " + unknown.front();
    std::erase(what, mark);
    norvcrypt::reportError(what + " (" + chosen(app) + " --help tells more)");
    return Exit::failed;
}

Exit run(int argc, char** argv) {
    CLI::App app(
        "Signs, verifies, encrypts and decrypts mail bodies; inspects certificates, lists and keys.\n"
        "Exit code: 0 good, 1 a negative verdict, 2 bad usage or a failure: unreadable or malformed input, output "
        "that cannot be written.",
        "norvcrypt");
    app.set_version_flag("--version", "norvcrypt " NORVCRYPT_VERSION);
    app.require_subcommand(1);
    norvcrypt::Action action;
    norvcrypt::addSign(app, action);
    norvcrypt::addVerify(app, action);
    norvcrypt::addEncrypt(app, action);
    norvcrypt::addDecrypt(app, action);
    norvcrypt::addGenkey(app, action);
    norvcrypt::addPkcs12(app, action);
    norvcrypt::addInspect(app, action);
    norvcrypt::addDigest(app, action);
    norvcrypt::addCipher(app, action);
    norvcrypt::addTls(app, action);
    norvcrypt::addBindings(app, action);
    norvcrypt::addDemo(app, action);
    takeMarksAway(app);
    try {
        app.parse(markedArguments(argc, argv));
    } catch (const CLI::ParseError& error) {
        return answer(app, error);
    }
    return action();
}

Exit guarded(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (const Norvane::Exception& failure) {
        norvcrypt::reportError(failure.asString());
    } catch (const std::bad_alloc&) {
        norvcrypt::reportError("out of memory");
    } catch (const std::exception& failure) {
        norvcrypt::reportError(failure.what());
    }
    return Exit::failed;
}

} // namespace

int main(int argc, char** argv) {
    norvcrypt::prepareOutput();
    Norvane::Crypto::initialize();
    // The commands tell themselves what matters; records of the library would only repeat it in between.
    Norvane::Logger::instance(false).sink(std::make_shared<Norvane::RecordingLogSink>());
    const Exit code = guarded(argc, argv);
    Norvane::Crypto::cleanup();
    return static_cast<int>(code);
}
