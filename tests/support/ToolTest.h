#pragma once

/// \file
/// What tests of the tool's commands share: a folder to run in, and how a failure is told.

#include "support/Process.h"
#include "support/Workspace.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace interop {

class ToolTest : public testing::Test {
protected:
    Answer tool(const std::vector<std::string>& arguments, const std::string& input = "") {
        return norvcrypt(Command{.arguments = arguments, .input = input, .directory = work.directory()});
    }
    /// One line on standard error with that text in it, nothing on standard output, exit code 2, no file that was not
    /// there `before`.
    void expectFailure(const Answer& answer, const std::string& text) {
        EXPECT_EQ(2, answer.status);
        EXPECT_EQ("", answer.out);
        ASSERT_EQ(1U, linesOf(answer.err).size()) << answer.err;
        EXPECT_EQ('\n', answer.err.back());
        EXPECT_EQ(0U, answer.err.find("norvcrypt: ")) << answer.err;
        EXPECT_NE(std::string::npos, answer.err.find(text)) << answer.err;
        EXPECT_EQ(before, work.names());
    }

    Workspace work;
    std::vector<std::string> before;
};

} // namespace interop
