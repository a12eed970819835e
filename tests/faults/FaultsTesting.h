#pragma once

// Makes a table of operations a test.

#include "driver/Driver.h"

#include <norvcrypto/Crypto.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <regex>

namespace faultstesting {

using faults::Answer;
using faults::Operation;
using faults::Target;

inline std::string textOf(const std::vector<unsigned char>& bytes) {
    return {bytes.begin(), bytes.end()};
}

/// Runs each operation, or those whose names match NORV_FAULTS_OF, and tells what must not be.
inline void runAll(const std::vector<Operation>& operations) {
    const char* const asked = std::getenv("NORV_FAULTS_OF");
    const std::regex of(asked == nullptr ? "" : asked);
    faults::Tried all;
    for (const Operation& operation : operations) {
        if (!std::regex_search(operation.name, of)) {
            continue;
        }
        faults::Tried tried;
        for (const faults::Finding& finding : faults::run(operation, faults::extent(), tried)) {
            ADD_FAILURE() << textOf(finding);
        }
        std::printf("%-50s %6ld faults: %6ld done, %6ld refused, %6ld thrown\n", operation.name.c_str(), tried.places,
                    tried.done, tried.refused, tried.thrown);
        std::fflush(stdout);
        EXPECT_GT(tried.places, 0);
        all.places += tried.places;
    }
    std::printf("%ld faults in all\n", all.places);
}

} // namespace faultstesting

#define NORV_FAULTS(name, operations)                                                                                  \
    TEST(Faults, name) {                                                                                               \
        runAll(operations());                                                                                          \
    }                                                                                                                  \
    static_assert(true)
