#include "OpensslDefects.h"

namespace faults {

bool isOpensslsOwn(const Finding& /*finding*/) {
    return false;
}

} // namespace faults
