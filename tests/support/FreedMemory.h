#pragma once

// Looks at memory when it is given back. A program that includes this, in one source, stands in for operator delete; what
// is freed otherwise (by OpenSSL, by buffers) it hands to `noteFreed` itself.

#include <malloc.h>

#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>

namespace norvtest {

inline std::string_view s_soughtSecret;
inline int s_freedWithSecret = 0;

inline void noteFreed(const void* memory, std::size_t length) noexcept {
    if (memory != nullptr && !s_soughtSecret.empty() &&
        memmem(memory, length, s_soughtSecret.data(), s_soughtSecret.size()) != nullptr) {
        ++s_freedWithSecret;
    }
}

/// The number of memories that were given back with `secret` in them. The caller's own copies must outlive `work`.
template <class Work> int freedWith(std::string_view secret, Work work) {
    s_freedWithSecret = 0;
    s_soughtSecret = secret;
    work();
    s_soughtSecret = {};
    return s_freedWithSecret;
}

} // namespace norvtest

void* operator new(std::size_t size) {
    void* memory = std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}
void operator delete(void* memory) noexcept {
    norvtest::noteFreed(memory, malloc_usable_size(memory));
    std::free(memory);
}
void operator delete(void* memory, std::size_t /*size*/) noexcept {
    operator delete(memory);
}
