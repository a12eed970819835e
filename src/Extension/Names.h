#pragma once

#include <norvcrypto/Extension.h>

namespace Norvane::Crypto::NVX509 {

/// Fills an empty cache with one name for each entry of a stack, which may be null, in their order.
const std::list<GeneralName>& fillNames(std::list<GeneralName>& cache, const stack_st_GENERAL_NAME* entries);

} // namespace Norvane::Crypto::NVX509
