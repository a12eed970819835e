// Where a structure ends, for which nothing behind it is read, and octets that are kept while they arrive.
#include "openssl/StructureOctets.h"

#include <norvcmsg/BytesInMemory.h>

#include <authority/Der.h>

#include <openssl/err.h>

#include <gtest/gtest.h>

#include <sys/mman.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <malloc.h>
#include <stdexcept>

using namespace Norvane::Crypto::openssl;
using norvauthority::Bytes;
namespace der = norvauthority::der;

namespace {

/// A source that gives little at a time, and fails where it is told to.
class SlowInImpl : public Norvane::MediaInImpl {
public:
    SlowInImpl(Bytes content, std::size_t piece, bool fails)
        : m_content(std::move(content)),
          m_piece(piece),
          m_fails(fails) {}
    using MediaInImpl::read;
    [[nodiscard]] bool atEnd() const override { return m_at == m_content.size(); }
    [[nodiscard]] int peek() const override { return atEnd() ? -1 : m_content[m_at]; }
    int read(unsigned char* out, unsigned int length) override {
        if (m_fails && atEnd()) {
            ERR_raise(ERR_LIB_USER, 77);
            throw std::runtime_error("the line went dead");
        }
        const std::size_t count = std::min({m_content.size() - m_at, static_cast<std::size_t>(length), m_piece});
        std::copy_n(m_content.begin() + static_cast<std::ptrdiff_t>(m_at), count, out);
        m_at += count;
        return static_cast<int>(count);
    }
    [[nodiscard]] std::size_t position() const { return m_at; }

private:
    Bytes m_content;
    std::size_t m_piece;
    bool m_fails;
    std::size_t m_at = 0;
};

class SlowIn : public Norvane::MediaIn {
public:
    explicit SlowIn(Bytes content, std::size_t piece = 3, bool fails = false)
        : MediaIn(Norvane::makeReference<SlowInImpl, Norvane::MediaInImpl>(std::move(content), piece, fails)) {}
    [[nodiscard]] std::size_t position() const { return dynamic_cast<const SlowInImpl&>(**this).position(); }
};

/// Octets that lie somewhere.
class LyingInImpl : public Norvane::MediaInImpl, public Norvane::BytesInMemory {
public:
    LyingInImpl(const unsigned char* octets, std::size_t length) : m_octets(octets), m_left(length) {}
    using MediaInImpl::read;
    [[nodiscard]] bool atEnd() const override { return m_left == 0; }
    [[nodiscard]] int peek() const override { return atEnd() ? -1 : *m_octets; }
    int read(unsigned char* out, unsigned int length) override {
        const std::size_t count = std::min<std::size_t>(length, m_left);
        std::copy_n(m_octets, count, out);
        skip(count);
        return static_cast<int>(count);
    }
    [[nodiscard]] const unsigned char* rest() const noexcept override { return m_octets; }
    [[nodiscard]] unsigned long left() const noexcept override { return m_left; }
    void skip(unsigned long count) noexcept override {
        m_octets += count;
        m_left -= count;
    }

private:
    const unsigned char* m_octets;
    std::size_t m_left;
};

class LyingIn : public Norvane::MediaIn {
public:
    LyingIn(const unsigned char* octets, std::size_t length)
        : MediaIn(Norvane::makeReference<LyingInImpl, Norvane::MediaInImpl>(octets, length)) {}
    [[nodiscard]] std::size_t left() const { return dynamic_cast<const LyingInImpl&>(**this).left(); }
};

Bytes bytesOf(Norvane::Crypto::framing::Octets octets) {
    return {octets.begin(), octets.end()};
}

/// From memory and piece by piece: the octets of the structure at the front, and nothing behind it is read.
void expectWhole(const Bytes& input, std::size_t length) {
    const Bytes expected(input.begin(), input.begin() + static_cast<std::ptrdiff_t>(length));
    SCOPED_TRACE(norvauthority::toHex(
        Bytes(input.begin(), input.begin() + static_cast<std::ptrdiff_t>(std::min<std::size_t>(input.size(), 40)))));
    LyingIn lying(input.data(), input.size());
    const StructureOctets inPlace(lying);
    EXPECT_TRUE(inPlace.isWhole());
    EXPECT_EQ(bytesOf(inPlace.octets()), expected);
    EXPECT_EQ(lying.left(), input.size() - length);
    for (const std::size_t piece : {1U, 3U, 100000U}) {
        SlowIn slow(input, piece);
        const StructureOctets kept(slow);
        EXPECT_TRUE(kept.isWhole());
        EXPECT_EQ(bytesOf(kept.octets()), expected);
        EXPECT_EQ(slow.position(), length);
    }
}

/// Nothing is taken from a source in memory; of another one, what was read is handed over.
void expectNotWhole(const Bytes& input, std::size_t read) {
    SCOPED_TRACE(norvauthority::toHex(input));
    LyingIn lying(input.data(), input.size());
    EXPECT_FALSE(StructureOctets(lying).isWhole());
    EXPECT_EQ(lying.left(), input.size());
    SlowIn slow(input);
    const StructureOctets kept(slow);
    EXPECT_FALSE(kept.isWhole());
    EXPECT_EQ(slow.position(), read);
    EXPECT_EQ(bytesOf(kept.octets()), Bytes(input.begin(), input.begin() + static_cast<std::ptrdiff_t>(read)));
    EXPECT_EQ(kept.segments().count, 0U);
}

Bytes operator+(const Bytes& left, const Bytes& right) {
    return der::concat({left, right});
}

const Bytes s_behind{0x30, 0x03, 1, 2, 3};
const Bytes s_end{0, 0};

/// Reads so many octets, each call as long as it is told.
Bytes readBy(Norvane::MediaIn source, unsigned int length) {
    Bytes all;
    Bytes piece(length);
    for (int count = 1; count > 0;) {
        count = source.read(piece.data(), length);
        all.insert(all.end(), piece.begin(), piece.begin() + std::max(count, 0));
    }
    return all;
}

} // namespace

// X.690, 8.1.
TEST(StructureOctets, DefiniteLengthsInAnyForm) {
    expectWhole({0x30, 0x00}, 2);
    expectWhole(Bytes{0x30, 0x00} + s_behind, 2);
    expectWhole(Bytes{0x04, 0x02, 7, 7} + s_behind, 4);
    expectWhole(Bytes{0x1E, 0x02, 7, 7} + s_behind, 4);
    expectWhole(Bytes{0xA0, 0x00} + s_behind, 2);
    expectWhole(Bytes{0x00, 0x00} + s_behind, 2);
    expectWhole(der::octetString(Bytes(127, 1)) + s_behind, 129);
    expectWhole(der::octetString(Bytes(128, 1)) + s_behind, 131);
    expectWhole(Bytes{0x30, 0x81, 0x01, 9} + s_behind, 4);
    expectWhole(Bytes{0x30, 0x88, 0, 0, 0, 0, 0, 0, 0, 1, 9} + s_behind, 11);
    expectWhole(der::octetString(Bytes(300000, 1)) + s_behind, 300005);
    expectWhole(der::octetString(Bytes(300, 1)) + der::octetString(Bytes(300, 1)), 304);
}

TEST(StructureOctets, IndefiniteLengthsEndWhereAllOfThemEnd) {
    expectWhole(Bytes{0x30, 0x80} + s_end + s_behind, 4);
    expectWhole(Bytes{0x30, 0x80, 0x04, 0x00} + s_end + s_behind, 6);
    expectWhole(Bytes{0x30, 0x80, 0x30, 0x80, 0x04, 0x01, 5} + s_end + s_end + s_behind, 11);
    expectWhole(Bytes{0x30, 0x80, 0x30, 0x80} + s_end + Bytes{0xA0, 0x01, 0} + s_end + s_behind, 11);
    expectWhole(Bytes{0x30, 0x80, 0x00, 0x01, 0} + s_end + s_behind, 7);
    expectWhole(Bytes{0x30, 0x80, 0x81, 0x00} + s_end + s_behind, 6);
}

// The tag number of an end of contents without being one: each version of OpenSSL may see it otherwise.
TEST(StructureOctets, WhatOnlyLooksLikeAnEndIsLeftToOpenssl) {
    expectNotWhole(Bytes{0x30, 0x80, 0xA0, 0x00} + s_end, 4);
    expectNotWhole(Bytes{0x30, 0x80, 0x20, 0x00} + s_end, 4);
    expectNotWhole(Bytes{0x30, 0x80, 0x80, 0x00} + s_end, 4);
    expectNotWhole(Bytes{0x30, 0x80, 0x00, 0x81, 0x00} + s_end, 5);
    expectNotWhole(Bytes{0x30, 0x80, 0x30, 0x80, 0xA0, 0x00} + s_end + s_end, 6);
}

TEST(StructureOctets, WhatIsNotFramedAsSendersDoIt) {
    expectNotWhole({}, 0);
    expectNotWhole({0x30}, 1);
    expectNotWhole({0x1F}, 1);
    expectNotWhole({0x1F, 0x81, 0x01, 0x00}, 2);
    expectNotWhole({0x3F, 0x10, 0x00, 0x00}, 2);
    expectNotWhole({0xBF, 0x10, 0x00, 0x00}, 2);
    expectNotWhole({0x30, 0x89, 0, 0, 0, 0, 0, 0, 0, 0, 1, 9}, 2);
    expectNotWhole({0x30, 0xFF, 1, 1}, 2);
    expectNotWhole({0x30, 0x82, 1}, 3);
    expectNotWhole({0x30, 0x05, 1, 2, 3, 4}, 6);
    expectNotWhole({0x30, 0x80, 0x04, 0x01}, 4);
    expectNotWhole({0x30, 0x80, 0x04, 0x01, 1, 0}, 6);
    expectNotWhole({0x04, 0x80, 0x00, 0x00}, 2); // a primitive one must say how long it is: X.690, 8.1.3.2
}

// INT_MAX octets in all are what OpenSSL counts: of what announces more, only the header is read.
TEST(StructureOctets, AnnouncementsOfMoreThanOpensslCounts) {
    const Bytes few(20, 1);
    expectNotWhole(Bytes{0x30, 0x84, 0x7F, 0xFF, 0xFF, 0xF9} + few, 26); // 6 + this: INT_MAX
    expectNotWhole(Bytes{0x30, 0x84, 0x7F, 0xFF, 0xFF, 0xFA} + few, 6);
    expectNotWhole(Bytes{0x30, 0x88, 0x7F, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF} + few, 10);
    expectNotWhole(Bytes{0x30, 0x80, 0x30, 0x84, 0x7F, 0xFF, 0xFF, 0xF7} + few, 28);
    expectNotWhole(Bytes{0x30, 0x80, 0x30, 0x84, 0x7F, 0xFF, 0xFF, 0xF8} + few, 8);
}

// The ends of contents are what can lead beyond it when all lengths are known.
TEST(StructureOctets, IntMaxOctetsAreWholeAndOneMoreIsNot) {
    constexpr std::size_t most = INT_MAX;
    void* const place =
        mmap(nullptr, most + 1, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(place, MAP_FAILED);
    auto* const octets = static_cast<unsigned char*>(place);
    const auto announce = [&](unsigned int length) {
        const Bytes headers{0x30, 0x80, 0x04, 0x84, 0x7F, 0xFF, 0xFF, static_cast<unsigned char>(length)};
        std::copy(headers.begin(), headers.end(), octets);
    };
    announce(0xFF - 10); // 8 octets in front of the content, 2 behind it
    LyingIn all(octets, most + 1);
    const StructureOctets whole(all);
    EXPECT_TRUE(whole.isWhole());
    EXPECT_EQ(whole.octets().size(), most);
    announce(0xFF - 9);
    LyingIn more(octets, most + 1);
    EXPECT_FALSE(StructureOctets(more).isWhole());
    munmap(place, most + 1);
}

TEST(StructureOctets, TheLongestRunOfSegmentsIsKnown) {
    const Bytes segment = der::octetString(Bytes(300, 7));
    Bytes input{0x30, 0x80, 0x24, 0x80, 0x04, 0x01, 1};
    for (int i = 0; i < 5; ++i) {
        input = input + segment;
    }
    input = input + Bytes{0x04, 0x01, 1} + s_end + s_end;
    LyingIn lying(input.data(), input.size());
    SlowIn slow(input);
    for (const StructureOctets& found : {StructureOctets(lying), StructureOctets(slow)}) {
        EXPECT_TRUE(found.isWhole());
        EXPECT_EQ(found.segments().start, 7U);
        EXPECT_EQ(found.segments().headerSize, 4U);
        EXPECT_EQ(found.segments().contentLength, 300U);
        EXPECT_EQ(found.segments().count, 5U);
    }
}

TEST(StructureOctets, ASourceThatFailsLeavesTheErrorQueueEmpty) {
    SlowIn dead({0x30, 0x10, 1, 2}, 3, true);
    EXPECT_THROW(StructureOctets{dead}, std::runtime_error);
    EXPECT_EQ(ERR_peek_error(), 0U);
}

TEST(OctetsSource, OctetsAndThenTheRest) {
    const Bytes first{1, 2, 3, 4, 5};
    const Bytes second{6, 7, 8};
    const Bytes all = first + second;
    for (unsigned int length = 1; length < 10; ++length) {
        EXPECT_EQ(readBy(octetsSource(first), length), first);
        SlowIn rest(second, 100);
        EXPECT_EQ(readBy(octetsSource(first, rest), length), all) << length;
    }
    SlowIn rest(second, 100);
    Norvane::MediaIn both = octetsSource(first, rest);
    Bytes piece(5);
    ASSERT_EQ(both.read(piece.data(), 5), 5) << "as many as there are";
    EXPECT_EQ(piece, first);
    EXPECT_EQ(rest.position(), 0U) << "the rest is not asked yet";
    EXPECT_EQ(both.peek(), 6);
    EXPECT_FALSE(both.atEnd());
    ASSERT_EQ(both.read(piece.data(), 3), 3);
    EXPECT_EQ(both.peek(), -1);
    EXPECT_TRUE(both.atEnd());
    SlowIn again(second, 100);
    Norvane::MediaIn short1 = octetsSource(first, again);
    Bytes seven(8, 0xEE);
    ASSERT_EQ(short1.read(seven.data(), 7), 7);
    EXPECT_EQ(seven, (Bytes{1, 2, 3, 4, 5, 6, 7, 0xEE}));
    EXPECT_EQ(again.position(), 2U) << "no more than was asked for";
}

TEST(GrowingOctets, WhatMovedAwayIsEmptyAndCanBeUsedAgain) {
    for (const std::size_t size : {std::size_t{10}, std::size_t{3} << 20U}) {
        GrowingOctets octets;
        std::memset(octets.room(size, size), 5, size);
        octets.grow(size);
        GrowingOctets other(std::move(octets));
        EXPECT_EQ(other.octets().size(), size);
        EXPECT_TRUE(octets.octets().empty()); // NOLINT(bugprone-use-after-move)
        *octets.room(1, 1) = 6;
        octets.grow(1);
        EXPECT_EQ(bytesOf(octets.octets()), Bytes{6});
        octets = std::move(other);
        EXPECT_EQ(octets.octets().size(), size);
        EXPECT_EQ(octets.octets().back(), 5);
        *octets.room(1, size + 1) = 7;
        octets.grow(1);
        EXPECT_EQ(octets.octets()[size - 1], 5);
        EXPECT_EQ(octets.octets()[size], 7);
    }
}

TEST(GrowingOctets, KeepTheirContentOnTheWayIntoLargePages) {
    for (const std::size_t first : {std::size_t{0}, std::size_t{1}, std::size_t{1000}}) {
        GrowingOctets octets;
        if (first != 0) {
            std::memset(octets.room(first, first), 9, first);
            octets.grow(first);
        }
        std::size_t size = first;
        for (const std::size_t count :
             {std::size_t{0x200000} - first, std::size_t{1}, std::size_t{0x400000}, std::size_t{0x200001}}) {
            std::memset(octets.room(count, size + count), static_cast<int>(count % 7), count);
            octets.grow(count);
            size += count;
            EXPECT_EQ(octets.octets().size(), size);
            EXPECT_EQ(octets.octets().back(), count % 7);
            EXPECT_EQ(octets.octets().front(), first == 0 ? 0x200000 % 7 : 9);
        }
    }
}

TEST(GrowingOctets, GiveTheirMemoryBack) {
    const unsigned char* place = nullptr;
    {
        GrowingOctets octets;
        const std::size_t size = std::size_t{16} << 20U;
        place = octets.room(size, size);
        octets.grow(size);
        unsigned char resident = 0;
        EXPECT_EQ(mincore(const_cast<unsigned char*>(place), 4096, &resident), 0);
    }
    unsigned char resident = 0;
    EXPECT_EQ(mincore(const_cast<unsigned char*>(place), 4096, &resident), -1) << "still mapped";

    const auto inUse = [] { return mallinfo2().uordblks; }; // 0 under AddressSanitizer, which looks for leaks itself
    const std::size_t before = inUse();
    for (int i = 0; i < 100; ++i) {
        GrowingOctets small;
        static_cast<void>(small.room(1000, 1000));
        GrowingOctets growing;
        static_cast<void>(growing.room(100000, 100000));
        static_cast<void>(growing.room(0x200000, 0x200000));
    }
    EXPECT_LT(inUse(), before + 50000);
}
