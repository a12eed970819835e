// The line about an input that could not be done, where there is no memory left.

#include "show/TextAndJson.h"
#include "support/Allocations.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <new>
#include <string>

namespace {

const std::string file = std::string(40, 'f') + "\xFF\"\\\n";
const std::string error = "cannot open \x1B[31m\xE2\x80\xAE" + std::string(40, 'e');

std::size_t s_left = 0; ///< how many allocations succeed
bool s_counts = false;

void fail(std::size_t /*length*/) {
    if (s_counts && s_left-- == 0) {
        s_left = 0; // what ran out stays out
        throw std::bad_alloc();
    }
}

TEST(FailureLinesTest, AreObjectsLikeTheOthers) {
    const std::string line = norvcrypt::asJsonLine(file, 2, error);
    EXPECT_EQ(line, norvcrypt::asJsonLine({{"file", file}, {"exitCode", 2}, {"error", error}}));
    const nlohmann::json object = nlohmann::json::parse(line);
    EXPECT_EQ(std::string(40, 'f') + "\\xFF\"\\\\\n", object.at("file"));
    EXPECT_EQ(error, object.at("error"));
}

// What comes after the first allocation that fails must do without any.
TEST(FailureLinesTest, WantOfMemoryEndsNoProcess) {
    norvtest::s_beforeAllocation = fail;
    std::string line;
    std::size_t failed = 0;
    for (std::size_t left = 0; line.empty() && left < 1000; ++left) {
        s_left = left;
        s_counts = true;
        try {
            line = norvcrypt::asJsonLine(file, 2, error);
        } catch (const std::bad_alloc&) {
            ++failed;
        }
        s_counts = false;
    }
    norvtest::s_beforeAllocation = nullptr;
    EXPECT_LT(3U, failed);
    EXPECT_EQ(norvcrypt::asJsonLine(file, 2, error), line);
}

} // namespace
