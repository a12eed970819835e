#pragma once

// Looks at memory before it is given. A program that includes this, in one source, stands in for operator new and is told of
// each allocation; see FreedMemory.h for what is given back.

#include <cstddef>
#include <cstdlib>
#include <new>

namespace norvtest {

/// What is called with the length of each allocation; what it throws, the allocation throws.
inline void (*s_beforeAllocation)(std::size_t length) = nullptr;

inline void* allocated(std::size_t length) {
    if (s_beforeAllocation != nullptr) {
        s_beforeAllocation(length);
    }
    if (void* memory = std::malloc(length == 0 ? 1 : length)) {
        return memory;
    }
    throw std::bad_alloc();
}

} // namespace norvtest

void* operator new(std::size_t length) {
    return norvtest::allocated(length);
}
void* operator new[](std::size_t length) {
    return norvtest::allocated(length);
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete[](void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t /*length*/) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::size_t /*length*/) noexcept {
    std::free(memory);
}
