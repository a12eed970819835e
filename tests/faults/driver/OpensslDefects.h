#pragma once

#include "Driver.h"

namespace faults {

/// Whether a finding is one of OpenSSL's own defects that are listed in OpensslDefects.cpp.
bool isOpensslsOwn(const Finding& finding);

} // namespace faults
