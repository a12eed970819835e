#pragma once

// The place of a virtual operation in its class's table: the order of operations is part of the interface.

#include <cstddef>
#include <cstring>

namespace norvtest {

/// The slot of a virtual member function, counted from 0; the two destructor slots come first in every class here.
template <class Member> std::size_t slotOf(Member member) {
    static_assert(sizeof member == 2 * sizeof(std::size_t), "a pointer to member as the Itanium ABI lays it out");
    std::size_t words[2];
    std::memcpy(words, &member, sizeof words);
    return (words[0] - 1) / sizeof(void*);
}

} // namespace norvtest
