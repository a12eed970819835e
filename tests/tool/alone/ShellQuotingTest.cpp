// A path as a shell takes it: a shell is asked.
#include "show/ShellQuoting.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <string>

namespace {

/// The arguments that a shell makes of a text, each in brackets.
std::string argumentsOf(const std::string& text) {
    FILE* shell = popen(("exec bash -c 'printf \"[%s]\" \"$@\"' - " + text).c_str(), "r");
    std::array<char, 200> said{};
    const std::size_t count = shell == nullptr ? 0 : std::fread(said.data(), 1, said.size(), shell);
    if (shell != nullptr) {
        pclose(shell);
    }
    return {said.data(), count};
}

TEST(ShellQuoting, IsOneArgument) {
    for (const std::string& path :
         {std::string("a b"), std::string("it's"), std::string("$(id)"), std::string("a\\n%s"), std::string("a\nb"),
          std::string("\xFF"), std::string("plain/path.txt")}) {
        EXPECT_EQ(argumentsOf(norvcrypt::quoted(path)), "[" + path + "]");
    }
}

TEST(ShellQuoting, AnEmptyOneIsOneArgument) {
    EXPECT_EQ(norvcrypt::quoted(""), "''");
    EXPECT_EQ(argumentsOf("a " + norvcrypt::quoted("") + " b"), "[a][][b]");
}

} // namespace
