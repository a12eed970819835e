#pragma once

// Functions of OpenSSL that fail once on demand, and a record of the library's calls:
//
//     REPLACEMENT int PKCS7_set_type(PKCS7* structure, int type) {
//         return failsNow("PKCS7_set_type") ? 0 : FORWARD(PKCS7_set_type, structure, type);
//     }
//
// For one source of a test program: what is here belongs to the program as a whole.

#include "support/Interpose.h"

#include <openssl/err.h>

#include <cstring>
#include <string>
#include <vector>

#define REPLACEMENT extern "C" __attribute__((visibility("default")))
#define FORWARD(function, ...) norvtest::forward(norvtest::next<&function>(#function) __VA_OPT__(, ) __VA_ARGS__)

namespace norvtest {

/// The name of the function that fails next.
inline const char* s_failing = "";
/// What it says then.
inline int s_error = 42;
/// The functions that were called since the last clearing.
inline std::vector<std::string> s_calls;
/// How many of the functions are being executed.
inline int s_depth = 0;

/// Notes a call of the library's. OpenSSL's own calls of its functions pass here too, inside of another one.
inline void note(const std::string& call) {
    if (s_depth == 0) {
        s_calls.push_back(call);
    }
}

/// Forwards to OpenSSL's function.
template <class Function, class... Arguments> auto forward(Function function, Arguments... arguments) {
    const During<int> inside(s_depth, s_depth + 1);
    return function(arguments...);
}

/// True for the function that is to fail now; an error is queued.
inline bool fails(const char* function) {
    if (std::strcmp(s_failing, function) != 0) {
        return false;
    }
    s_failing = "";
    ERR_raise(ERR_LIB_USER, s_error);
    return true;
}

/// Notes a call; true when it is to fail.
inline bool failsNow(const char* function) {
    note(function);
    return fails(function);
}

} // namespace norvtest
