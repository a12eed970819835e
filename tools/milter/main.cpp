// norvcrypt-milter: signs, encrypts, decrypts and verifies the mails that an MTA asks about.

#include "commands/Command.h"

#include <norvcmsg/Exception.h>
#include <norvcrypto/Crypto.h>

#include <exception>
#include <iostream>
#include <new>

namespace {

/// The code, unless what was printed did not get where it should: an answer that nobody has is no answer.
int told(int code) {
    if (std::cout.flush()) {
        return code;
    }
    std::cerr << "norvcrypt-milter: cannot write standard output\n";
    return 2;
}

int run(int argc, char** argv) {
    CLI::App app("Signs, encrypts, decrypts and verifies the mails that an MTA asks about.", "norvcrypt-milter");
    app.set_version_flag("--version", "norvcrypt-milter " NORVCRYPT_MILTER_VERSION);
    norvmilter::Action action;
    norvmilter::addCheck(app, action);
    norvmilter::addExplain(app, action);
    norvmilter::addLearnt(app, action);
    norvmilter::addRun(app, action);
    app.require_subcommand(0, 1);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& failure) {
        return told(app.exit(failure) == 0 ? 0 : 2);
    }
    return told(action());
}

int guarded(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (const Norvane::Exception& failure) {
        std::cerr << "norvcrypt-milter: " << failure.asString() << '\n';
    } catch (const std::bad_alloc&) {
        std::cerr << "norvcrypt-milter: out of memory\n";
    } catch (const std::exception& failure) {
        std::cerr << "norvcrypt-milter: " << failure.what() << '\n';
    }
    return 2;
}

} // namespace

int main(int argc, char** argv) {
    Norvane::Crypto::initialize();
    const int code = guarded(argc, argv);
    Norvane::Crypto::cleanup();
    return code;
}
