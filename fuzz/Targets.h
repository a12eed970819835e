#pragma once

/// \file
/// The fuzz targets of a program that has them all.

#include <cstddef>
#include <cstdint>
#include <vector>

namespace fuzz {

struct Target {
    const char* name;
    int (*run)(const std::uint8_t* data, std::size_t size);
};

/// In a source that is written when the build is configured.
const std::vector<Target>& targets();

} // namespace fuzz
