#pragma once

/// \file
/// The tool on bodies that come through a pipe, and its memory on long ones.

#include "support/Process.h"
#include "support/Workspace.h"

#include <gtest/gtest.h>

#include <string>
#include <sys/resource.h>

namespace interop {

/// Runs the tool with that input through a pipe, whose length it cannot know.
inline Answer pipedInto(const std::string& arguments, const std::string& input, const Workspace& work) {
    return run({.arguments = {"sh", "-c", "cat | " + std::string(norvtest::norvcryptProgram) + " " + arguments},
                .input = input,
                .directory = work.directory()});
}

/// The largest memory of any program that this one started and waited for, those started by them included, in bytes.
inline long peakOfChildren() {
    rusage usage{};
    EXPECT_EQ(0, getrusage(RUSAGE_CHILDREN, &usage));
    return usage.ru_maxrss * 1024;
}

/// Runs the tool on bodies from a pipe and from a file: 128 MiB take no more memory than 1 MiB does.
inline void expectConstantMemory(const std::string& arguments, const Workspace& work) {
    constexpr long mebibyte = 1L << 20;
    const auto runOn = [&](long mebibytes) {
        const std::string tool = std::string(norvtest::norvcryptProgram) + " " + arguments + " --out /dev/null";
        const std::string length = std::to_string(mebibytes) + "M";
        for (const std::string& command : {"head -c " + length + " /dev/zero | " + tool,
                                           "truncate -s " + length + " long && " + tool + " --in long"}) {
            const Answer answer = run({.arguments = {"sh", "-c", command}, .directory = work.directory()});
            EXPECT_EQ(0, answer.status) << answer.err;
        }
    };
    runOn(1);
    const long little = peakOfChildren();
    runOn(128);
    EXPECT_LT(peakOfChildren() - little, 32 * mebibyte) << arguments;
}

} // namespace interop
