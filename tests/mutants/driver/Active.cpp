#include "Active.h"

#include <cstdlib>

namespace norvmutants {

namespace {

unsigned fromEnvironment() {
    const char* const number = std::getenv("NORV_MUTANT");
    return number == nullptr ? 0 : static_cast<unsigned>(std::strtoul(number, nullptr, 10));
}

} // namespace

// The constants of the libraries ask already while they are loaded, which is after this one.
unsigned active = fromEnvironment();
unsigned char reached[most];

} // namespace norvmutants
