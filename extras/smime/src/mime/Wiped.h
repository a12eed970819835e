#pragma once

/// \file
/// Memory for what was encrypted: its octets are wiped when it is given back, which a text that grows does again and again.

#include <cstddef>
#include <cstring> // explicit_bzero of <string.h> too
#include <memory>
#include <string>
#include <vector>

namespace Norvane::Crypto::SMime::mime {

/// What containers take their memory from.
template <class T> class WipingAllocator {
public:
    using value_type = T;

    WipingAllocator() noexcept = default;
    // Containers make one of another type of theirs.
    template <class Other> WipingAllocator(const WipingAllocator<Other>& /*other*/) noexcept {} // NOLINT(*-explicit-*)

    [[nodiscard]] T* allocate(std::size_t count) { return std::allocator<T>().allocate(count); }
    void deallocate(T* memory, std::size_t count) noexcept {
        explicit_bzero(memory, count * sizeof(T));
        std::allocator<T>().deallocate(memory, count);
    }

    template <class Other> bool operator==(const WipingAllocator<Other>& /*other*/) const noexcept { return true; }
};

using WipedOctets = std::vector<char, WipingAllocator<char>>;
/// A text. Up to 15 octets lie in the object itself, and stay there.
using WipedText = std::basic_string<char, std::char_traits<char>, WipingAllocator<char>>;

} // namespace Norvane::Crypto::SMime::mime
