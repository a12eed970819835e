#pragma once

/// \file
/// The cases as `openssl verify` is asked about them.

#include "Cases.h"

#include <map>

namespace agreement {

struct OpensslAnswer {
    bool accepted = false;
    std::vector<Error> errors{}; ///< in the order of their numbers and depths
    std::string said{};
};

/// The answers by the names of the cases: a process each, started by one shell, since forking a sanitized test takes longer
/// than what the program does.
std::map<std::string, OpensslAnswer> askOpenssl(const std::vector<Case>& cases);

} // namespace agreement
