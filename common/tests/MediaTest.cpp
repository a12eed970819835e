#include <norvcmsg/Media.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <string>
#include <vector>

namespace {

using Norvane::Buffer;
using Norvane::Exception;
using Norvane::makeReference;
using Norvane::MediaException;
using Norvane::MediaIn;
using Norvane::MediaInImpl;
using Norvane::MediaOut;
using Norvane::MediaOutDecorator;
using Norvane::MediaOutDecoratorImpl;
using Norvane::MediaOutImpl;
using Norvane::MemoryMediaIn;
using Norvane::MemoryMediaOut;
using Norvane::NullMediaOut;

std::string textOf(const Buffer& buffer) {
    return {reinterpret_cast<const char*>(buffer.data()), buffer.length()};
}

Buffer bufferOf(const std::string& text) {
    return {text.data(), static_cast<unsigned int>(text.size()), false};
}

/// Checks what `act` throws.
template <class Act> void expectMediaFailure(Act act, const std::string& where, int code, const std::string& file) {
    try {
        act();
        FAIL() << "nothing thrown";
    } catch (const MediaException& failure) {
        EXPECT_EQ(failure.where(), where);
        EXPECT_EQ(failure.code(), code);
        EXPECT_EQ(failure.fileName(), file);
    }
}

template <class Act> void expectNullHandle(Act act) {
    try {
        act();
        FAIL() << "nothing thrown";
    } catch (const Exception& failure) {
        EXPECT_EQ(failure.where(), "operator->");
        EXPECT_EQ(failure.code(), 1);
    }
}

/// The least that a source can be: three operations over a text that repeats, in deliveries of at most `piece` bytes.
class Least : public MediaInImpl {
public:
    Least(std::string unit, unsigned long length, unsigned int piece)
        : m_unit(std::move(unit)),
          m_length(length),
          m_piece(piece) {}

    [[nodiscard]] bool atEnd() const override { return m_position == m_length; }
    [[nodiscard]] int peek() const override { return atEnd() ? -1 : static_cast<unsigned char>(at(m_position)); }
    using MediaInImpl::read;
    int read(unsigned char* out, unsigned int length) override {
        const auto count = std::min<unsigned long>({length, m_piece, m_length - m_position});
        for (unsigned long i = 0; i < count; ++i) {
            out[i] = static_cast<unsigned char>(at(m_position++));
        }
        return static_cast<int>(count);
    }

private:
    [[nodiscard]] char at(unsigned long position) const { return m_unit[position % m_unit.size()]; }

    std::string m_unit;
    unsigned long m_length;
    unsigned int m_piece;
    unsigned long m_position = 0;
};

MediaIn least(const std::string& text, unsigned int piece = UINT_MAX) {
    return MediaIn(makeReference<Least, MediaInImpl>(text.empty() ? "x" : text, text.size(), piece));
}

TEST(MediaIn, NullHandlesThrow) {
    MediaIn in;
    MediaOut out;
    Buffer buffer;
    std::string text;
    unsigned char byte = 0;
    expectNullHandle([&] { static_cast<void>(in.atEnd()); });
    expectNullHandle([&] { static_cast<void>(in.peek()); });
    expectNullHandle([&] { in.readline(buffer); });
    expectNullHandle([&] { in.read(buffer, 1); });
    expectNullHandle([&] { in.read(buffer); });
    expectNullHandle([&] { in.read(text); });
    expectNullHandle([&] { in.read(&byte, 1); });
    expectNullHandle([&] { static_cast<void>(in.tell()); });
    expectNullHandle([&] { in.setpos(0); });
    expectNullHandle([&] { in.write(out); });
    expectNullHandle([&] { out.write(buffer); });
    expectNullHandle([&] { out.write(&byte, 1); });
    expectNullHandle([&] { out.end(); });
    expectNullHandle([&] { out.characterSet("utf-8"); });
    expectNullHandle([&] { static_cast<void>(out.tell()); });
    expectNullHandle([&] { out.setpos(0); });
}

/// The place of a virtual operation in its table, as the C++ ABI of Linux keeps it in a pointer to member.
template <class Member> long slotOf(Member member) {
    long raw[2] = {};
    static_assert(sizeof member == sizeof raw);
    std::memcpy(raw, &member, sizeof raw);
    return (raw[0] - 1) / static_cast<long>(sizeof(void*));
}

TEST(MediaInImpl, OperationsKeepTheirSlots) {
    // The first two are the destructor's.
    EXPECT_EQ(slotOf(&MediaInImpl::atEnd), 2);
    EXPECT_EQ(slotOf(&MediaInImpl::peek), 3);
    EXPECT_EQ(slotOf(&MediaInImpl::readline), 4);
    EXPECT_EQ(slotOf<int (MediaInImpl::*)(Buffer&, unsigned int)>(&MediaInImpl::read), 5);
    EXPECT_EQ(slotOf<int (MediaInImpl::*)(Buffer&)>(&MediaInImpl::read), 6);
    EXPECT_EQ(slotOf<int (MediaInImpl::*)(std::string&)>(&MediaInImpl::read), 7);
    EXPECT_EQ(slotOf<int (MediaInImpl::*)(unsigned char*, unsigned int)>(&MediaInImpl::read), 8);
    EXPECT_EQ(slotOf(&MediaInImpl::tell), 9);
    EXPECT_EQ(slotOf(&MediaInImpl::setpos), 10);
    EXPECT_EQ(slotOf(&MediaInImpl::write), 11);
}

TEST(MediaOutImpl, OperationsKeepTheirSlots) {
    EXPECT_EQ(slotOf<void (MediaOutImpl::*)(const Buffer&)>(&MediaOutImpl::write), 2);
    EXPECT_EQ(slotOf<void (MediaOutImpl::*)(const unsigned char*, unsigned int)>(&MediaOutImpl::write), 3);
    EXPECT_EQ(slotOf(&MediaOutImpl::end), 4);
    EXPECT_EQ(slotOf(&MediaOutImpl::characterSet), 5);
    EXPECT_EQ(slotOf(&MediaOutImpl::tell), 6);
    EXPECT_EQ(slotOf(&MediaOutImpl::setpos), 7);
}

class Deliveries : public testing::TestWithParam<unsigned int> {};

TEST_P(Deliveries, ReadWithLengthZeroReadsAll) {
    std::string text;
    for (int i = 0; i < 20'000; ++i) {
        text += static_cast<char>(i * 7);
    }
    auto in = least(text, GetParam());
    Buffer out = bufferOf("old");
    EXPECT_EQ(in.read(out, 0), 20'000);
    EXPECT_EQ(textOf(out), text);
    EXPECT_EQ(in.read(out, 0), 0);
    EXPECT_EQ(out.length(), 0U);
}

TEST_P(Deliveries, ReadOfALengthIsShortOnlyAtTheEnd) {
    auto in = least("abcdefghij", GetParam());
    Buffer out;
    EXPECT_EQ(in.read(out, 4), 4);
    EXPECT_EQ(textOf(out), "abcd");
    EXPECT_EQ(in.read(out, 4), 4);
    EXPECT_EQ(textOf(out), "efgh");
    EXPECT_EQ(in.read(out, 4), 2);
    EXPECT_EQ(textOf(out), "ij");
    EXPECT_EQ(in.read(out, 4), 0);
    EXPECT_EQ(textOf(out), "");
}

TEST_P(Deliveries, ReadFillsTheCapacity) {
    auto in = least("abcdefghij", GetParam());
    Buffer out(4, 1);
    EXPECT_EQ(in.read(out), 4);
    EXPECT_EQ(textOf(out), "abcd");
    Buffer none;
    EXPECT_EQ(in.read(none), 6) << "no capacity: all that is left";
    EXPECT_EQ(textOf(none), "efghij");
}

TEST_P(Deliveries, ReadIntoATextReplacesIt) {
    const std::string text(40'000, 'x');
    auto in = least(text, GetParam());
    std::string out = "old";
    EXPECT_EQ(in.read(out), 40'000);
    EXPECT_EQ(out, text);
    EXPECT_EQ(in.read(out), 0);
    EXPECT_EQ(out, "");
}

TEST_P(Deliveries, ReadlineGivesLinesWithTheirEnds) {
    const std::string longLine(1000, 'y');
    auto in = least("one\r\n\n" + longLine + "\n" + std::string(255, 'z') + "\nlast", GetParam());
    Buffer line;
    std::vector<std::string> lines;
    while (in.readline(line)) {
        lines.push_back(textOf(line));
    }
    EXPECT_EQ(lines,
              (std::vector<std::string>{"one\r\n", "\n", longLine + "\n", std::string(255, 'z') + "\n", "last"}));
    EXPECT_EQ(line.length(), 0U);
}

TEST_P(Deliveries, WriteCopiesAllAndDoesNotEnd) {
    const std::string text(50'000, 'w');
    auto in = least(text, GetParam());
    MemoryMediaOut out;
    EXPECT_EQ(&in.write(out), &out);
    EXPECT_EQ(textOf(out.content()), text);
    EXPECT_FALSE(out.ended());
}

INSTANTIATE_TEST_SUITE_P(Pieces, Deliveries, testing::Values(1U, 7U, 4096U, UINT_MAX),
                         [](const auto& test) { return "Of" + std::to_string(test.param); });

TEST(MediaIn, WriteOfALongStreamAsksForSmallPieces) {
    struct Long : MediaInImpl {
        [[nodiscard]] bool atEnd() const override { return left == 0; }
        [[nodiscard]] int peek() const override { return atEnd() ? -1 : 'x'; }
        using MediaInImpl::read;
        int read(unsigned char* out, unsigned int length) override {
            largest = std::max(largest, length);
            const auto count = std::min<unsigned long>(length, left);
            std::memset(out, 'x', count);
            left -= count;
            return static_cast<int>(count);
        }
        unsigned long left = 6'000'000'000;
        unsigned int largest = 0;
    };
    MediaIn in(makeReference<Long, MediaInImpl>());
    NullMediaOut out;
    in.write(out);
    EXPECT_EQ(out.tell(), 6'000'000'000UL);
    EXPECT_LE(dynamic_cast<Long&>(*in).largest, 65'536U);
}

TEST(MediaIn, ReadTakesMemoryForWhatArrivesNotForWhatIsAnnounced) {
    auto in = least("abc");
    Buffer out;
    EXPECT_EQ(in.read(out, 0x7FFFFFFF), 3);
    EXPECT_EQ(textOf(out), "abc");
    EXPECT_LE(out.size(), 65'536U);
}

TEST(MediaIn, ReadRefusesMoreThanAnIntCounts) {
    /// Says that it delivers without touching memory, so that the test needs none.
    struct Endless : MediaInImpl {
        explicit Endless(unsigned long length) : left(length) {}
        [[nodiscard]] bool atEnd() const override { return left == 0; }
        [[nodiscard]] int peek() const override { return atEnd() ? -1 : 0; }
        using MediaInImpl::read;
        int read(unsigned char* /*out*/, unsigned int length) override {
            const auto count = std::min<unsigned long>(length, left);
            left -= count;
            return static_cast<int>(count);
        }
        unsigned long left;
    };
    Buffer out(INT_MAX, 0);
    MediaIn most(makeReference<Endless, MediaInImpl>(2'147'483'647UL));
    EXPECT_EQ(most.read(out, 0), INT_MAX);
    out.length(0);
    MediaIn more(makeReference<Endless, MediaInImpl>(2'147'483'648UL));
    expectMediaFailure([&] { more.read(out, 0); }, "MediaInImpl::read", 4, "Media");
}

TEST(MediaIn, ReadUsesTheCapacityItIsGiven) {
    auto in = least("abcdef");
    Buffer out(6, 0);
    const auto* memory = out.data();
    EXPECT_EQ(in.read(out, 0), 6);
    EXPECT_EQ(out.data(), memory);
    EXPECT_EQ(out.size(), 6U);
}

TEST(MediaIn, ReadLeavesNoOldBytesPastTheLength) {
    auto in = least("abc");
    Buffer out = bufferOf("0123456789");
    EXPECT_EQ(in.read(out, 0), 3);
    EXPECT_EQ(out.length(), 3U);
    EXPECT_EQ(out.size(), 10U);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(out.data()), 10), std::string("abc\0\0\0\0\0\0\0", 10));
}

TEST(MediaIn, ReadIntoABorrowingBufferLeavesTheLenderAlone) {
    const std::string lent = "0123456789";
    auto in = least("abc");
    Buffer out(lent.data(), 10, true);
    EXPECT_EQ(in.read(out, 0), 3);
    EXPECT_EQ(textOf(out), "abc");
    EXPECT_EQ(lent, "0123456789");
}

TEST(MediaIn, ASourceWithoutPositionsSaysSo) {
    auto in = least("abc");
    expectMediaFailure([&] { static_cast<void>(in.tell()); }, "MediaInImpl::tell", 4, "Media");
    expectMediaFailure([&] { in.setpos(1); }, "MediaInImpl::setpos", 4, "Media");
}

TEST(MediaIn, WhatAStreamThrowsPassesThrough) {
    struct Failing : Least {
        Failing() : Least("x", 10, 1) {}
        int read(unsigned char* /*out*/, unsigned int /*length*/) override { throw std::string("mine"); }
        using Least::read;
    };
    MediaIn in(makeReference<Failing, MediaInImpl>());
    Buffer buffer;
    std::string text;
    NullMediaOut out;
    EXPECT_THROW(in.read(buffer, 0), std::string);
    EXPECT_THROW(in.read(text), std::string);
    EXPECT_THROW(in.readline(buffer), std::string);
    EXPECT_THROW(in.write(out), std::string);
}

TEST(MediaIn, WhatArrivedBeforeAStreamThrewIsKept) {
    struct Breaking : Least {
        Breaking() : Least("abc", 100, 3) {}
        using Least::read;
        int read(unsigned char* out, unsigned int length) override {
            if (tripped++ == 2) {
                throw std::string("mine");
            }
            return Least::read(out, length);
        }
        int tripped = 0;
    };
    Buffer buffer = bufferOf("old and longer");
    EXPECT_THROW(MediaIn(makeReference<Breaking, MediaInImpl>()).read(buffer, 0), std::string);
    EXPECT_EQ(textOf(buffer), "abcabc");
    std::string text = "old";
    EXPECT_THROW(MediaIn(makeReference<Breaking, MediaInImpl>()).read(text), std::string);
    EXPECT_EQ(text, "abcabc");
}

TEST(MediaIn, HandlesShareTheStream) {
    auto in = least("abc");
    MediaIn copy(in);
    unsigned char byte = 0;
    EXPECT_EQ(copy.read(&byte, 1), 1);
    EXPECT_EQ(in.peek(), 'b');
    EXPECT_EQ(in->referenceCount(), 2);
}

/// The least that a sink can be.
class LeastOut : public MediaOutImpl {
public:
    using MediaOutImpl::write;
    void write(const unsigned char* data, unsigned int length) override {
        text.append(reinterpret_cast<const char*>(data), length);
    }
    std::string text;
};

TEST(MediaOut, TheLeastSinkGetsBuffersAndIgnoresTheRest) {
    MediaOut out(makeReference<LeastOut, MediaOutImpl>());
    out.write(bufferOf("abc"));
    out.write(reinterpret_cast<const unsigned char*>("def"), 3);
    out.characterSet("utf-8");
    out.end();
    out.end();
    EXPECT_EQ(dynamic_cast<LeastOut&>(*out).text, "abcdef");
    expectMediaFailure([&] { static_cast<void>(out.tell()); }, "MediaOutImpl::tell", 4, "Media");
    expectMediaFailure([&] { out.setpos(1); }, "MediaOutImpl::setpos", 4, "Media");
}

/// A sink that notes every call.
class Noting : public MediaOutImpl {
public:
    using MediaOutImpl::write;
    void write(const unsigned char* data, unsigned int length) override {
        calls.push_back("write " + std::string(reinterpret_cast<const char*>(data), length));
    }
    void end() override { calls.emplace_back("end"); }
    void characterSet(const std::string& name) override { calls.push_back("characterSet " + name); }
    std::vector<std::string> calls;
};

struct Target {
    MediaOut out{makeReference<Noting, MediaOutImpl>()};
    [[nodiscard]] const std::vector<std::string>& calls() const { return dynamic_cast<Noting&>(*out).calls; }
};

using Calls = std::vector<std::string>;

TEST(MediaOutDecorator, ForwardsAndEndsItsTarget) {
    const Target target;
    MediaOutDecorator decorator(makeReference<MediaOutDecoratorImpl, MediaOutImpl>(target.out));
    decorator.characterSet("latin1");
    decorator.write(bufferOf("a"));
    decorator.write(reinterpret_cast<const unsigned char*>("b"), 1);
    decorator.end();
    EXPECT_EQ(target.calls(), (Calls{"characterSet latin1", "write a", "write b", "end"}));
}

TEST(MediaOutDecorator, AttachChangesTheTargetAndDetachLetsGo) {
    const Target first;
    const Target second;
    MediaOutDecorator decorator(makeReference<MediaOutDecoratorImpl, MediaOutImpl>());
    expectNullHandle([&] { decorator.write(bufferOf("lost")); });
    decorator.attach(first.out);
    decorator.write(bufferOf("1"));
    decorator.attach(second.out);
    decorator.write(bufferOf("2"));
    EXPECT_EQ(first.out->referenceCount(), 1);
    EXPECT_EQ(second.out->referenceCount(), 2);
    decorator.detach();
    EXPECT_EQ(second.out->referenceCount(), 1);
    expectNullHandle([&] { decorator.end(); });
    expectNullHandle([&] { decorator.characterSet("utf-8"); });
    EXPECT_EQ(first.calls(), Calls{"write 1"});
    EXPECT_EQ(second.calls(), Calls{"write 2"});
}

TEST(MediaOutDecorator, AttachAndDetachWantADecorator) {
    const Target target;
    MediaOutDecorator foreign(makeReference<LeastOut, MediaOutImpl>());
    expectMediaFailure([&] { foreign.attach(target.out); }, "MediaException", 1, "MediaOutDecorator");
    expectMediaFailure([&] { foreign.detach(); }, "MediaException", 1, "MediaOutDecorator");
    MediaOutDecorator null;
    expectMediaFailure([&] { null.attach(target.out); }, "MediaException", 1, "MediaOutDecorator");
    expectMediaFailure([&] { null.detach(); }, "MediaException", 1, "MediaOutDecorator");
}

TEST(MediaOutDecorator, CannotBeItsOwnTarget) {
    MediaOutDecorator decorator(makeReference<MediaOutDecoratorImpl, MediaOutImpl>());
    expectMediaFailure([&] { decorator.attach(decorator); }, "MediaOutDecorator::attach", 4, "MediaOutDecorator");
}

TEST(MediaOutDecorator, CopiesAndAssignmentsShareTheBody) {
    const Target target;
    MediaOutDecorator decorator(makeReference<MediaOutDecoratorImpl, MediaOutImpl>());
    MediaOutDecorator copy(decorator);
    MediaOutDecorator assigned;
    assigned = decorator;
    copy.attach(target.out);
    assigned.write(bufferOf("x"));
    EXPECT_EQ(target.calls(), Calls{"write x"});
    EXPECT_EQ(decorator->referenceCount(), 3);
}

TEST(MediaOutDecorator, AClassDerivedFromItHandsItsReferenceToMediaOut) {
    class Derived : public MediaOutDecorator {
    public:
        explicit Derived(const MediaOut& target)
            : MediaOut(makeReference<MediaOutDecoratorImpl, MediaOutImpl>(target)) {}
    };
    const Target target;
    Derived derived(target.out);
    MediaOut& asOut = derived;
    asOut.end();
    EXPECT_EQ(target.calls(), Calls{"end"});
}

TEST(MemoryMediaIn, ReadsACopyOfItsBytes) {
    std::string bytes("a\0\xFF", 3);
    Buffer lent(bytes.data(), 3, true);
    MemoryMediaIn in(lent);
    bytes[0] = 'x';
    EXPECT_EQ(in.peek(), 'a');
    std::string out;
    EXPECT_EQ(in.read(out), 3);
    EXPECT_EQ(out, std::string("a\0\xFF", 3));
    EXPECT_TRUE(in.atEnd());
    EXPECT_EQ(in.peek(), -1);
}

TEST(MemoryMediaIn, PeekAnswersBytesAbove127AsPositiveNumbers) {
    EXPECT_EQ(MemoryMediaIn(std::string("\xFF")).peek(), 255);
}

TEST(MemoryMediaIn, KnowsItsPosition) {
    MemoryMediaIn in(std::string("abcdef"));
    unsigned char two[2];
    EXPECT_EQ(in.read(two, 2), 2);
    EXPECT_EQ(in.tell(), 2U);
    in.setpos(5);
    EXPECT_EQ(in.peek(), 'f');
    in.setpos(6);
    EXPECT_TRUE(in.atEnd());
    expectMediaFailure([&] { in.setpos(7); }, "MemoryMediaIn::setpos", 4, "MemoryMedia");
    EXPECT_EQ(in.tell(), 6U);
}

TEST(MemoryMediaIn, ReadlineGivesLines) {
    MemoryMediaIn in(std::string("one\n\nlast"));
    Buffer line;
    EXPECT_TRUE(in.readline(line));
    EXPECT_EQ(textOf(line), "one\n");
    EXPECT_TRUE(in.readline(line));
    EXPECT_EQ(textOf(line), "\n");
    EXPECT_TRUE(in.readline(line));
    EXPECT_EQ(textOf(line), "last");
    EXPECT_FALSE(in.readline(line));
    EXPECT_EQ(line.length(), 0U);
}

TEST(MemoryMediaIn, AnEmptyOneIsAtItsEnd) {
    MemoryMediaIn in{Buffer()};
    unsigned char byte = 0;
    EXPECT_TRUE(in.atEnd());
    EXPECT_EQ(in.read(&byte, 1), 0);
    EXPECT_EQ(in.read(nullptr, 0), 0);
}

TEST(MemoryMediaOut, KeepsWhatItGets) {
    MemoryMediaOut out;
    EXPECT_EQ(out.content().length(), 0U);
    out.write(bufferOf("abc"));
    out.write(nullptr, 0);
    EXPECT_FALSE(out.ended());
    out.end();
    EXPECT_TRUE(out.ended());
    out.write(bufferOf("d"));
    EXPECT_EQ(textOf(out.content()), "abcd");
}

TEST(MemoryMediaOut, TakesItsOwnContentOnceMore) {
    MemoryMediaOut out;
    out.write(Buffer("0123456789", 10, true));
    out.write(out.content());
    out.write(out.content().data(), 3);
    EXPECT_EQ(textOf(out.content()), "01234567890123456789012");
}

TEST(MemoryMediaOut, TakesItsOwnContentOverItself) {
    MemoryMediaOut out;
    out.write(bufferOf("abcdef"));
    out.setpos(2);
    out.write(out.content().data(), 4);
    EXPECT_EQ(textOf(out.content()), "ababcd");
}

TEST(MemoryMediaOut, TakesItsOwnContentOverItselfAndBeyondItsEnd) {
    MemoryMediaOut out;
    out.write(bufferOf("abcdef"));
    out.setpos(4);
    out.write(out.content());
    EXPECT_EQ(textOf(out.content()), "abcdabcdef");
    EXPECT_EQ(out.tell(), 10U);
}

TEST(MemoryMediaOut, WritesOverWhatIsThereFromAnEarlierPosition) {
    MemoryMediaOut out;
    out.write(bufferOf("abcdef"));
    EXPECT_EQ(out.tell(), 6U);
    out.setpos(4);
    out.write(bufferOf("XYZ"));
    EXPECT_EQ(textOf(out.content()), "abcdXYZ");
    out.setpos(0);
    out.write(bufferOf("1"));
    EXPECT_EQ(textOf(out.content()), "1bcdXYZ");
    EXPECT_EQ(out.tell(), 1U);
    expectMediaFailure([&] { out.setpos(8); }, "MemoryMediaOut::setpos", 4, "MemoryMedia");
}

TEST(MemoryMediaOut, ContentWantsItsOwnKindOfStream) {
    MemoryMediaOut out;
    static_cast<MediaOut&>(out) = MediaOut(makeReference<LeastOut, MediaOutImpl>());
    expectMediaFailure([&] { static_cast<void>(out.content()); }, "MemoryMediaOut", 1, "MemoryMedia");
    expectMediaFailure([&] { static_cast<void>(out.ended()); }, "MemoryMediaOut", 1, "MemoryMedia");
}

TEST(NullMediaOut, Counts) {
    NullMediaOut out;
    EXPECT_EQ(out.tell(), 0U);
    out.write(bufferOf("abc"));
    out.end();
    EXPECT_EQ(out.tell(), 3U);
}

} // namespace
