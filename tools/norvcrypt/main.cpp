// norvcrypt: signs, verifies, encrypts, decrypts and inspects from the command line what the appliance handles.

#include "commands/Command.h"
#include "files/Output.h"

#include <norvcmsg/Logger.h>
#include <norvcrypto/Crypto.h>

#include <memory>
#include <optional>

namespace {

using norvcrypt::Exit;

Exit run(int argc, char** argv) {
    norvcrypt::CommandLine line(
        "Signs, verifies, encrypts and decrypts mail bodies; inspects certificates, lists and keys.\n"
        "Exit code: 0 good, 1 a negative verdict, 2 bad usage or a failure: unreadable or malformed input, output "
        "that cannot be written.",
        "norvcrypt", "norvcrypt " NORVCRYPT_VERSION);
    norvcrypt::Command& commands = line.commands();
    norvcrypt::Action action;
    norvcrypt::addSign(commands, action);
    norvcrypt::addVerify(commands, action);
    norvcrypt::addChain(commands, action);
    norvcrypt::addEncrypt(commands, action);
    norvcrypt::addDecrypt(commands, action);
    norvcrypt::addGenkey(commands, action);
    norvcrypt::addPkcs12(commands, action);
    norvcrypt::addInspect(commands, action);
    norvcrypt::addDigest(commands, action);
    norvcrypt::addCipher(commands, action);
    norvcrypt::addTls(commands, action);
    norvcrypt::addBindings(commands, action);
    norvcrypt::addDemo(commands, action);
    const std::optional<Exit> answered = line.read(argc, argv);
    return answered ? *answered : action();
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
