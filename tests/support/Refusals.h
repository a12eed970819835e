#pragma once

/// \file
/// How the tool says no, where that is no verdict that is told on standard output.

#include "support/Process.h"

#include <gtest/gtest.h>

#include <string>

namespace interop {

/// One line on standard error with that text in it, nothing on standard output, exit code 1.
inline void expectRefusal(const Answer& answer, const std::string& text) {
    EXPECT_EQ(1, answer.status);
    EXPECT_EQ("", answer.out);
    ASSERT_EQ(1U, linesOf(answer.err).size()) << answer.err;
    EXPECT_EQ(0U, answer.err.find("norvcrypt: ")) << answer.err;
    EXPECT_NE(std::string::npos, answer.err.find(text)) << answer.err;
}

} // namespace interop
