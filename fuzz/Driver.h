#pragma once

/// \file
/// What the fuzz targets share: the start of the library, the bytes as a buffer, and what every target holds: a failure of
/// the library is an `Exception` and leaves nothing in the OpenSSL queue, and no input costs more than a budget.

#include "Work.h"

#include <norvcmsg/Buffer.h>
#include <norvcmsg/Exception.h>
#include <norvcmsg/Logger.h>
#include <norvcrypto/Crypto.h>

#include <openssl/err.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

namespace fuzz {

/// Drops records: hostile input would fill the terminal.
class Silence : public Norvane::LogSink {
public:
    void record(const Norvane::LogRecord& /*record*/) override {}
};

inline void start() {
    static const bool started = [] {
        Norvane::Crypto::initialize();
        Norvane::Logger::instance(false).sink(std::make_shared<Silence>());
        return true;
    }();
    static_cast<void>(started);
}

/// What an input must not make false. Tells where it does: optimised builds forget.
inline void require(bool holds, const char* file = __builtin_FILE(), int line = __builtin_LINE()) {
    if (!holds) {
        std::fprintf(stderr, "%s:%d does not hold\n", file, line);
        std::abort();
    }
}

/// Runs one input. What the library throws is an answer; anything else, an error left in the queue, or more work than the
/// budget allows, is a finding.
template <class Parse> int run(const std::uint8_t* data, std::size_t size, Parse parse, Budget budget = {}) {
    start();
    ERR_clear_error();
    Counting counting;
    try {
        parse(Norvane::Buffer(data, static_cast<unsigned int>(size), false));
    } catch (const Norvane::Exception& failure) {
        static_cast<void>(failure.asString());
    }
    budget.check(counting.stop(), size);
    require(ERR_peek_error() == 0);
    return 0;
}

inline std::string text(const Norvane::Buffer& buffer) {
    return {reinterpret_cast<const char*>(buffer.data()), buffer.length()};
}

} // namespace fuzz
