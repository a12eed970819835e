#include <norvcmsg/Buffer.h>
#include <norvcmsg/Exception.h>

#include "Shown.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <ostream>
#include <random>
#include <string>
#include <type_traits>
#include <utility>

namespace {

using Norvane::Buffer;
using Norvane::Exception;

Buffer bufferOf(const std::string& text) {
    return {text.data(), static_cast<unsigned int>(text.size()), false};
}

std::string textOf(const Buffer& buffer) {
    return {reinterpret_cast<const char*>(buffer.data()), buffer.length()};
}

/// Checks where, code and file of what `act` throws.
template <class Act> void expectFailure(Act act, const std::string& where) {
    try {
        act();
        FAIL() << "nothing thrown";
    } catch (const Exception& failure) {
        EXPECT_EQ(failure.where(), where);
        EXPECT_EQ(failure.code(), 4);
        EXPECT_EQ(failure.fileName(), "Buffer");
        EXPECT_NE(failure.lineNumber(), 0U);
    }
}

bool allZero(const unsigned char* first, const unsigned char* last) {
    return std::all_of(first, last, [](unsigned char byte) { return byte == 0; });
}

TEST(Buffer, ANewOneIsEmptyAndItsDataIsNotNull) {
    Buffer buffer;
    EXPECT_EQ(buffer.length(), 0U);
    EXPECT_EQ(buffer.size(), 0U);
    EXPECT_TRUE(buffer.empty());
    EXPECT_NE(buffer.data(), nullptr);
    EXPECT_NE(std::as_const(buffer).data(), nullptr);
    EXPECT_FALSE(buffer.isProtected());
}

TEST(Buffer, NullBytesAreAnEmptyBuffer) {
    for (const bool borrow : {true, false}) {
        Buffer buffer(nullptr, 0, borrow);
        EXPECT_EQ(buffer.length(), 0U);
        EXPECT_NE(buffer.data(), nullptr);
    }
}

TEST(Buffer, NullBytesWithALengthThrow) {
    expectFailure([] { const Buffer buffer(nullptr, 1, true); }, "Buffer::Buffer");
    expectFailure([] { const Buffer buffer(nullptr, 1, false); }, "Buffer::Buffer");
}

TEST(Buffer, FalseCopies) {
    char bytes[] = "abc";
    const Buffer buffer(bytes, 3, false);
    bytes[0] = 'x';
    EXPECT_EQ(textOf(buffer), "abc");
    EXPECT_EQ(buffer.size(), 3U);
}

TEST(Buffer, TrueBorrows) {
    char bytes[] = "abc";
    const Buffer buffer(bytes, 3, true);
    EXPECT_EQ(static_cast<const void*>(buffer.data()), bytes);
    bytes[0] = 'x';
    EXPECT_EQ(textOf(buffer), "xbc");
    EXPECT_EQ(buffer.size(), 3U);
}

TEST(Buffer, ABorrowingOneOwnsBeforeItChanges) {
    const std::string bytes = "abc";
    Buffer written(bytes.data(), 3, true);
    written.data()[0] = 'x';
    EXPECT_EQ(textOf(written), "xbc");
    Buffer grown(bytes.data(), 3, true);
    grown.length(5);
    EXPECT_EQ(textOf(grown), std::string("abc\0\0", 5));
    Buffer shrunk(bytes.data(), 3, true);
    shrunk.length(1);
    EXPECT_EQ(textOf(shrunk), "a");
    Buffer appended(bytes.data(), 3, true);
    appended.append(bufferOf("d"));
    EXPECT_EQ(textOf(appended), "abcd");
    for (const auto* buffer : {&written, &grown, &shrunk, &appended}) {
        EXPECT_NE(static_cast<const void*>(buffer->data()), bytes.data());
    }
    EXPECT_EQ(bytes, "abc");
}

TEST(Buffer, CopyingAssigningAndMovingFromABorrowingOneOwn) {
    char bytes[] = "abc";
    Buffer borrowing(bytes, 3, true);
    const Buffer copied(borrowing);
    Buffer assigned;
    assigned = borrowing;
    Buffer lender(bytes, 3, true);
    const Buffer moved(std::move(lender));
    Buffer anotherLender(bytes, 3, true);
    Buffer moveAssigned;
    moveAssigned = std::move(anotherLender);
    bytes[0] = 'x';
    EXPECT_EQ(textOf(borrowing), "xbc");
    EXPECT_EQ(textOf(copied), "abc");
    EXPECT_EQ(textOf(assigned), "abc");
    EXPECT_EQ(textOf(moved), "abc");
    EXPECT_EQ(textOf(moveAssigned), "abc");
}

TEST(Buffer, MovingTakesTheMemoryAndLeavesAnEmptyBuffer) {
    Buffer source = bufferOf("abc");
    const auto* memory = source.data();
    Buffer target(std::move(source));
    EXPECT_EQ(target.data(), memory);
    EXPECT_EQ(source.length(), 0U); // NOLINT(bugprone-use-after-move): what is left is documented
    EXPECT_EQ(source.size(), 0U);
    source.append(bufferOf("again"));
    EXPECT_EQ(textOf(source), "again");
}

TEST(Buffer, SelfAssignmentChangesNothing) {
    Buffer buffer = bufferOf("abc");
    const auto& same = buffer;
    buffer = same;
    EXPECT_EQ(textOf(buffer), "abc");
    auto& again = buffer;
    buffer = std::move(again);
    EXPECT_EQ(textOf(buffer), "abc");
}

TEST(Buffer, ACopyIsIndependent) {
    Buffer original = bufferOf("abc");
    Buffer copy(original);
    copy.data()[0] = 'x';
    original.length(1);
    EXPECT_EQ(textOf(copy), "xbc");
    EXPECT_EQ(textOf(original), "a");
}

TEST(Buffer, CapacityIsZeroed) {
    const Buffer buffer(100, 10);
    EXPECT_EQ(buffer.length(), 10U);
    EXPECT_EQ(buffer.size(), 100U);
    EXPECT_TRUE(allZero(buffer.data(), buffer.data() + 100));
}

TEST(Buffer, CapacityIsNeverBelowTheLength) {
    const Buffer buffer(1, 10);
    EXPECT_EQ(buffer.length(), 10U);
    EXPECT_EQ(buffer.size(), 10U);
}

TEST(Buffer, NegativeArgumentsThrow) {
    expectFailure([] { const Buffer buffer(-1, 0); }, "Buffer::Buffer");
    expectFailure([] { const Buffer buffer(0, -1); }, "Buffer::Buffer");
    expectFailure([] { const Buffer buffer(INT_MIN, INT_MIN); }, "Buffer::Buffer");
}

TEST(Buffer, LengthGrowsWithZeroesAndKeepsTheBytes) {
    Buffer buffer = bufferOf("abc");
    buffer.length(3000);
    EXPECT_EQ(buffer.length(), 3000U);
    EXPECT_EQ(std::memcmp(buffer.data(), "abc", 3), 0);
    EXPECT_TRUE(allZero(buffer.data() + 3, buffer.data() + 3000));
}

TEST(Buffer, BytesWrittenIntoTheCapacityMoveAlongWhenItGrows) {
    Buffer buffer(3, 0);
    std::memcpy(buffer.data(), "abc", 3);
    buffer.length(4);
    EXPECT_EQ(textOf(buffer), std::string("abc\0", 4));
}

TEST(Buffer, BytesWrittenIntoTheCapacityAreCountedInLater) {
    Buffer buffer(8, 0);
    std::memcpy(buffer.data(), "abcdefgh", 8);
    buffer.length(8);
    EXPECT_EQ(textOf(buffer), "abcdefgh");
    buffer.length(2);
    EXPECT_EQ(buffer.size(), 8U);
    EXPECT_EQ(textOf(buffer), "ab");
}

TEST(Buffer, AtAnswersBytes) {
    const Buffer buffer("a\xFF", 2, true);
    EXPECT_EQ(buffer.at(0), 'a');
    EXPECT_EQ(buffer.at(1), 0xFF);
}

TEST(Buffer, AtOutsideThrows) {
    const Buffer buffer(10, 2);
    expectFailure([&] { static_cast<void>(buffer.at(2)); }, "Buffer::at");
    expectFailure([&] { static_cast<void>(buffer.at(-1)); }, "Buffer::at");
    expectFailure([&] { static_cast<void>(buffer.at(INT_MIN)); }, "Buffer::at");
}

TEST(Buffer, AppendsItself) {
    Buffer buffer = bufferOf("ab");
    buffer.append(buffer);
    buffer.append(buffer);
    EXPECT_EQ(textOf(buffer), "abababab");
    const std::string bytes = "xy";
    Buffer borrowing(bytes.data(), 2, true);
    borrowing.append(borrowing);
    EXPECT_EQ(textOf(borrowing), "xyxy");
}

TEST(Buffer, AppendsBytesThatAreBorrowedFromItself) {
    for (const bool secret : {false, true}) {
        Buffer buffer("abcdef", 6, false);
        if (secret) {
            buffer.protect();
        }
        const Buffer inner(std::as_const(buffer).data() + 2, 3, true);
        buffer.append(inner); // moves to new memory
        EXPECT_EQ(textOf(buffer), "abcdefcde");
        ASSERT_GE(buffer.size(), 12U);
        const Buffer again(std::as_const(buffer).data() + 6, 3, true);
        buffer.append(again); // stays where it is
        EXPECT_EQ(textOf(buffer), "abcdefcdecde");
    }
}

TEST(Buffer, AppendingNothingKeepsABorrowingOneBorrowing) {
    const std::string bytes = "abc";
    Buffer buffer(bytes.data(), 3, true);
    buffer.append(Buffer());
    EXPECT_EQ(static_cast<const void*>(std::as_const(buffer).data()), bytes.data());
}

TEST(Buffer, AppendGrowsGeometrically) {
    Buffer buffer;
    const Buffer byte("x", 1, true);
    int moves = 0;
    unsigned int capacity = 0;
    for (int i = 0; i < 1'000'000; ++i) {
        buffer.append(byte);
        moves += buffer.size() != capacity ? 1 : 0;
        capacity = buffer.size();
    }
    EXPECT_EQ(buffer.length(), 1'000'000U);
    EXPECT_LE(moves, 40);
    EXPECT_TRUE(allZero(buffer.data() + buffer.length(), buffer.data() + buffer.size()));
}

TEST(Buffer, AppendPast32BitsThrowsAndChangesNothing) {
    // Nothing reads the lent bytes: the length is checked first.
    const char byte = 'x';
    const Buffer huge(&byte, UINT_MAX, true);
    Buffer buffer = bufferOf("a");
    expectFailure([&] { buffer.append(huge); }, "Buffer::append");
    EXPECT_EQ(textOf(buffer), "a");
}

TEST(Buffer, ProtectIsTakenOverByCopies) {
    Buffer key = bufferOf("key");
    key.protect();
    EXPECT_TRUE(key.isProtected());
    const Buffer copied(key);
    Buffer assigned;
    assigned = key;
    Buffer appended = bufferOf("a");
    appended.append(key);
    const Buffer moved(std::move(key));
    EXPECT_TRUE(copied.isProtected());
    EXPECT_TRUE(assigned.isProtected());
    EXPECT_TRUE(appended.isProtected());
    EXPECT_TRUE(moved.isProtected());
}

TEST(Buffer, AProtectedOneStaysProtectedWhenAssigned) {
    Buffer key = bufferOf("key");
    key.protect();
    key = bufferOf("other");
    EXPECT_TRUE(key.isProtected());
    const Buffer plain = bufferOf("plain");
    key = plain;
    EXPECT_TRUE(key.isProtected());
}

TEST(Buffer, EqualityIsByLengthAndBytes) {
    EXPECT_TRUE(bufferOf("abc") == bufferOf("abc"));
    EXPECT_FALSE(bufferOf("abc") == bufferOf("abd"));
    EXPECT_FALSE(bufferOf("abc") == bufferOf("ab"));
    EXPECT_EQ(Buffer(), Buffer(100, 0));
    Buffer key = bufferOf("abc");
    key.protect();
    EXPECT_TRUE(key == bufferOf("abc"));
    EXPECT_FALSE(key == bufferOf("abd"));
    EXPECT_FALSE(bufferOf("xbc") == key);
}

struct Vector {
    const char* bytes;
    const char* text;
};

void PrintTo(const Vector& vector, std::ostream* out) {
    *out << vector.bytes;
}

class Base64 : public testing::TestWithParam<Vector> {};

TEST_P(Base64, IsThatOfRfc4648) {
    EXPECT_EQ(bufferOf(GetParam().bytes).toBase64String(), GetParam().text);
    Buffer decoded = bufferOf("old");
    EXPECT_TRUE(bufferOf(GetParam().text).decodeBase64(decoded));
    EXPECT_EQ(textOf(decoded), GetParam().bytes);
}

INSTANTIATE_TEST_SUITE_P(Rfc4648Section10, Base64,
                         testing::Values(Vector{"", ""}, Vector{"f", "Zg=="}, Vector{"fo", "Zm8="},
                                         Vector{"foo", "Zm9v"}, Vector{"foob", "Zm9vYg=="}, Vector{"fooba", "Zm9vYmE="},
                                         Vector{"foobar", "Zm9vYmFy"}));

TEST(Buffer, Base64UsesTheWholeAlphabet) {
    // Six bits count from 0 to 63; the bytes are what `base64 -d | xxd -p` shows.
    const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    const std::string hex = "00108310518720928b30d38f41149351559761969b71d79f"
                            "8218a39259a7a29aabb2dbafc31cb3d35db7e39ebbf3dfbf";
    std::string bytes;
    for (std::size_t i = 0; i < hex.size(); i += 2) {
        bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    }
    Buffer decoded;
    ASSERT_TRUE(bufferOf(alphabet).decodeBase64(decoded));
    EXPECT_EQ(textOf(decoded), bytes);
    EXPECT_EQ(bufferOf(bytes).toBase64String(), alphabet);
}

TEST(Buffer, Base64SkipsWhiteSpace) {
    Buffer decoded;
    EXPECT_TRUE(bufferOf(" Zm9v\r\n\tYg=\n=\n\v\f").decodeBase64(decoded));
    EXPECT_EQ(textOf(decoded), "foob");
    EXPECT_TRUE(bufferOf(" \r\n").decodeBase64(decoded));
    EXPECT_EQ(decoded.length(), 0U);
}

class NotBase64 : public testing::TestWithParam<Shown> {};

TEST_P(NotBase64, IsRefusedAndLeavesNothing) {
    Buffer decoded = bufferOf("old");
    EXPECT_FALSE(bufferOf(GetParam().text).decodeBase64(decoded));
    EXPECT_EQ(decoded.length(), 0U);
}

INSTANTIATE_TEST_SUITE_P(Texts, NotBase64,
                         testing::Values("Z", "Zg", "Zg=", "Zg===", "Zm9", "Zm9v=", "Zm9vY", "=",
                                         "==", "====", "Zg==Zg==", "Zm=v", "Z===", "Zm9v!", "Zm9-", "Zm9_",
                                         "Zh==", "Zm9=", std::string("Zm9\0", 4), "Zm9\xC3", "-----BEGIN"));

TEST(Buffer, DecodingKeepsTheCapacityAndZeroesThePartPastTheLength) {
    Buffer decoded(64, 64);
    std::memset(decoded.data(), 0xAA, 64);
    ASSERT_TRUE(bufferOf("Zm9vYg==").decodeBase64(decoded));
    EXPECT_EQ(textOf(decoded), "foob");
    EXPECT_EQ(decoded.size(), 64U);
    EXPECT_TRUE(allZero(decoded.data() + 4, decoded.data() + 64));
}

TEST(Buffer, DecodesInPlace) {
    Buffer buffer = bufferOf("Zm9vYg==");
    ASSERT_TRUE(buffer.decodeBase64(buffer));
    EXPECT_EQ(textOf(buffer), "foob");
}

TEST(Buffer, DecodingHandsTheProtectionOn) {
    Buffer text = bufferOf("Zm9v");
    text.protect();
    Buffer decoded;
    ASSERT_TRUE(text.decodeBase64(decoded));
    EXPECT_TRUE(decoded.isProtected());
}

TEST(Buffer, Base64RoundTripsEveryLength) {
    std::mt19937 random(20260101); // NOLINT(cert-msc51-cpp): the same bytes in every run
    std::string bytes;
    for (int length = 0; length < 300; ++length) {
        Buffer decoded;
        ASSERT_TRUE(bufferOf(bufferOf(bytes).toBase64String()).decodeBase64(decoded)) << length;
        EXPECT_EQ(textOf(decoded), bytes);
        bytes += static_cast<char>(random() & 0xFFU);
    }
}

} // namespace
