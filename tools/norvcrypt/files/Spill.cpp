#include "files/Spill.h"

#include <cstdlib>

namespace norvcrypt {

namespace {

constexpr unsigned int keptInMemory = 1U << 20U;

} // namespace

std::string spillTemplate() {
    const char* const directory = std::getenv("TMPDIR"); // NOLINT(concurrency-mt-unsafe): no thread sets it
    return std::string(directory == nullptr || *directory == '\0' ? "/tmp" : directory) + "/norvcrypt-XXXXXX";
}

Norvane::SwapBufferMediaOut emptySpill() {
    return {keptInMemory, spillTemplate().c_str()};
}

} // namespace norvcrypt
