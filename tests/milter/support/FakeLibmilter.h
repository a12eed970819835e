#pragma once

/// \file
/// What the front sees of libmilter, without a connection: each call is kept, and fails when it is told to.

#include <libmilter/mfapi.h>

#include <atomic>
#include <map>
#include <string>
#include <vector>

/// libmilter's name for what a connection is to it.
struct smfi_str {
    std::map<std::string, std::string> macros;
    std::vector<std::string> calls; ///< "addheader X: y", "replacebody 5", "setreply 550 5.7.1 no"
    std::string body;               ///< pieces of a new one put together
    bool keepsBody = true;          ///< false: there is none
    int callsUntilFailure = -1;     ///< changes that succeed before all fail; negative: none fails
    bool throwsAtBody = false;      ///< there is no memory for a piece of a new one
    std::atomic<int> progress{0};
    void* kept = nullptr;
};
