// Octets that are kept while they arrive: as few as a stranger likes at a time.
#include "openssl/StructureOctets.h"

#include <gtest/gtest.h>

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
