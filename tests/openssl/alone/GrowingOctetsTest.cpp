// Octets that are kept while they arrive: as few as a stranger likes at a time.
#include "openssl/StructureOctets.h"

#include "support/Interpose.h"

#include <gtest/gtest.h>

#include <sys/mman.h>

#include <cstdarg>
#include <vector>

namespace {

std::vector<std::size_t> s_remapped; ///< to these lengths

} // namespace

extern "C" void* mremap(void* old, std::size_t oldLength, std::size_t length, int flags, ...) noexcept {
    s_remapped.push_back(length);
    return norvtest::next<&mremap>("mremap")(old, oldLength, length, flags);
}

using Norvane::Crypto::openssl::GrowingOctets;

TEST(GrowingOctets, TwoAtATimeAreNotCopiedEachTime) {
    GrowingOctets octets;
    const unsigned char* place = nullptr;
    std::size_t moves = 0;
    for (std::size_t size = 0; size < 200000; size += 2) {
        unsigned char* const room = octets.room(2, size + 2);
        moves += octets.octets().data() == place ? 0 : 1;
        place = octets.octets().data();
        room[0] = static_cast<unsigned char>(size >> 8U);
        room[1] = static_cast<unsigned char>(size);
        octets.grow(2);
    }
    EXPECT_LE(moves, 80U) << "each time a quarter more";
    ASSERT_EQ(octets.octets().size(), 200000U);
    EXPECT_EQ(octets.octets()[70000], 70000U >> 8U & 0xFFU);
    EXPECT_EQ(octets.octets()[70001], 70000U & 0xFFU);
}

TEST(GrowingOctets, LargeOnesGrowByWholeLargePages) {
    constexpr std::size_t page = 0x200000;
    s_remapped.reserve(100);
    s_remapped.clear();
    GrowingOctets octets;
    static_cast<void>(octets.room(page, page));
    octets.grow(page);
    // Nobody knows that more is to come: the system is asked once for a page.
    for (std::size_t size = page; size < 4 * page; size += 64) {
        unsigned char* const room = octets.room(64, size + 64);
        room[63] = 1;
        octets.grow(64);
    }
    EXPECT_EQ(s_remapped, (std::vector<std::size_t>{2 * page, 3 * page, 4 * page}));
    static_cast<void>(octets.room(1, 4 * page + 1));
    EXPECT_EQ(s_remapped.back(), 5 * page) << "an octet more than pages hold";
    // Where it is known how much there will be, a quarter more is taken at once.
    static_cast<void>(octets.room(page + 1, 100 * page));
    EXPECT_EQ(s_remapped.back(), 7 * page) << "6.25, in whole pages";
    static_cast<void>(octets.room(50 * page, 60 * page));
    EXPECT_EQ(s_remapped.back(), 54 * page) << "as many as are asked for, when that is more";
    EXPECT_EQ(octets.octets().size(), 4 * page);
}
