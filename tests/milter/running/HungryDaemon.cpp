// norvcrypt-milter with a reader of mails that does what a faulty library might when a message says so: it never comes back, or
// takes all the memory there is.

#include "daemon/Daemon.h"
#include "support/Interpose.h"

#include <norvcrypto-smime/SMimeReader.h>
#include <norvcrypto/Crypto.h>

#include <chrono>
#include <cstddef>
#include <exception>
#include <iostream>
#include <list>
#include <new>
#include <string>
#include <unistd.h>

namespace {

void takeAllMemory() {
    constexpr std::size_t piece = std::size_t{1} << 20U;
    std::list<std::string> taken;
    // Without a limit it comes back, and the message passes.
    for (int count = 0; count < 1024; ++count) {
#ifdef __SANITIZE_ADDRESS__
        // There the limit is not set: the sanitizer itself takes more.
        if (count == 64)
            throw std::bad_alloc();
#endif
        taken.emplace_back(piece, 'x');
    }
}

} // namespace

// In place of the library's, which it asks.
Norvane::Crypto::SMime::Answer Norvane::Crypto::SMime::read(const MediaIn& message, MediaOut& content,
                                                            const ReadOptions& options) {
    std::string text;
    MediaIn whole = message;
    whole.read(text);
    whole.setpos(0);
    while (text.find("\r\nX-Test: never comes back\r\n") != std::string::npos)
        ::pause();
    if (text.find("\r\nX-Test: all memory\r\n") != std::string::npos)
        takeAllMemory();
    return norvtest::next<&Norvane::Crypto::SMime::read>(
        "_ZN7Norvane6Crypto5SMime4readERKNS_7MediaInERNS_8MediaOutERKNS1_11ReadOptionsE")(message, content, options);
}

/// --config FILE, and what the tests give the program itself.
int main(int argc, char** argv) {
    if (argc < 3)
        return 2;
    Norvane::Crypto::initialize();
    try {
        norvmilter::DaemonOptions options;
        options.config = argv[2];
        options.isForeground = true;
        options.isRootGood = true;
        options.stuckGrace = std::chrono::seconds(1);
        return norvmilter::runDaemon(options);
    } catch (const std::exception& failure) {
        std::cerr << failure.what() << '\n';
        return 2;
    }
}
