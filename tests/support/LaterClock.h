#pragma once

// The clock of a test program, which goes as far ahead as a test says: include it in one source of a program, which is a program of
// its own.
//
//     const norvtest::During<std::time_t> later(norvtest::secondsAhead, 100);

#include "support/Interpose.h"

#include <ctime>

namespace norvtest {

inline std::time_t secondsAhead = 0;

} // namespace norvtest

extern "C" std::time_t time(std::time_t* out) {
    const std::time_t now =
        norvtest::next<static_cast<std::time_t (*)(std::time_t*)>(&time)>("time")(nullptr) + norvtest::secondsAhead;
    return out == nullptr ? now : *out = now;
}
