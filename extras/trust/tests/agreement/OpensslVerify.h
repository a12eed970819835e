#pragma once

/// \file
/// A case as `openssl verify` is asked about it.

#include "Cases.h"

#include "support/Workspace.h"

namespace agreement {

struct OpensslAnswer {
    bool accepted = false;
    std::vector<Error> errors{}; ///< in the order of their numbers and depths
    std::string said{};
};

/// One process; the files go into the folder.
OpensslAnswer askOpenssl(const Case& one, const interop::Workspace& folder);

} // namespace agreement
