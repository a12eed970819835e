#include "files/Colours.h"

#include <cstdlib>
#include <string_view>
#include <unistd.h>

namespace norvcrypt {

namespace {

std::string_view environment(const char* name) {
    const char* const value = std::getenv(name); // NOLINT(concurrency-mt-unsafe): no thread changes the environment
    return value == nullptr ? "" : value;
}

} // namespace

Colours::Colours()
    : m_wanted(isatty(STDOUT_FILENO) == 1 && environment("NO_COLOR").empty() && environment("TERM") != "dumb") {}

std::string Colours::inColour(const char* colour, const std::string& text) const {
    return m_wanted ? std::string("\x1B[") + colour + "m" + text + "\x1B[0m" : text;
}

} // namespace norvcrypt
