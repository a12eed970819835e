#pragma once

// Looks at what is wiped. A program that includes this, in one source, stands in for the functions with which buffers
// and texts are wiped.

#include "support/Interpose.h"

#include <openssl/crypto.h>

#include <cstring>
#include <string>
#include <vector>

namespace norvtest {

inline bool watchingWipes = false;
inline std::vector<std::string> wiped;

inline void noteWipe(void* memory, std::size_t length) {
    if (watchingWipes) {
        watchingWipes = false; // the note itself is no secret
        wiped.emplace_back(static_cast<const char*>(memory), length);
        watchingWipes = true;
    }
}

/// The number of wiped memories in which `secret` stood.
template <class Work> std::size_t wipesOf(const std::string& secret, Work work) {
    wiped.clear();
    watchingWipes = true;
    work();
    watchingWipes = false;
    std::size_t count = 0;
    for (const std::string& memory : wiped) {
        count += memory.find(secret) == std::string::npos ? 0U : 1U;
    }
    return count;
}

} // namespace norvtest

extern "C" void OPENSSL_cleanse(void* memory, std::size_t length) {
    norvtest::noteWipe(memory, length);
    norvtest::next<&OPENSSL_cleanse>("OPENSSL_cleanse")(memory, length);
}

extern "C" void explicit_bzero(void* memory, std::size_t length) {
    norvtest::noteWipe(memory, length);
    norvtest::next<&explicit_bzero>("explicit_bzero")(memory, length);
}
