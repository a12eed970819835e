#pragma once

/// \file
/// The place of a virtual operation in its table, which programs built against the headers rely on. Both destructors
/// come first, so that the first operation of a class without polymorphic base has slot 2.

#include <cstring>

namespace slottesting {

/// As the Itanium C++ ABI represents a pointer to a virtual member function: 1 plus the offset into the table.
template <class Member> long slotOf(Member member) {
    long representation = 0;
    static_assert(sizeof member >= sizeof representation);
    std::memcpy(&representation, &member, sizeof representation);
    return (representation - 1) / static_cast<long>(sizeof(void*));
}

} // namespace slottesting
