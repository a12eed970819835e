// A message that is read more than once.

#include "write/Source.h"
#include "support/Streams.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace Norvane;
using Norvane::Crypto::SMime::writing::Source;

std::string all(MediaIn in) {
    std::string text;
    in.read(text);
    return text;
}

TEST(SmimeSourceTest, BeginsWhereItsStreamIs) {
    MediaIn in = MemoryMediaIn("junk message");
    in.setpos(5);
    Source source(in, "/nowhere/XXXXXX");
    for (int time = 0; time != 2; ++time) {
        EXPECT_EQ(all(source.fromStart()), "message");
    }
}

/// A stream that knows where it is, and goes nowhere else: bytes are counted as they come.
class CountedImpl : public norvtest::PieceMediaInImpl {
public:
    explicit CountedImpl(std::string text) : PieceMediaInImpl(text, ~0U), m_text(std::move(text)) {}
    using PieceMediaInImpl::read;
    int read(unsigned char* out, unsigned int length) override {
        const int count = PieceMediaInImpl::read(out, length);
        m_at += static_cast<unsigned long>(count);
        return count;
    }
    [[nodiscard]] unsigned long tell() const override { return m_at; }

private:
    std::string m_text;
    unsigned long m_at = 0;
};

TEST(SmimeSourceTest, KeepsWhatItsStreamDoesNotGiveTwice) {
    Source source(MediaIn(makeReference<CountedImpl, MediaInImpl>("message")), "/nowhere/XXXXXX");
    for (int time = 0; time != 2; ++time) {
        EXPECT_EQ(all(source.fromStart()), "message");
    }
}

TEST(SmimeSourceTest, KeepsAFewInMemory) {
    const std::string text(65536, 'x');
    Source source(norvtest::PieceMediaIn(text), "/nowhere/XXXXXX");
    EXPECT_EQ(all(source.fromStart()), text);
    EXPECT_THROW(Source(norvtest::PieceMediaIn(text + 'x'), "/nowhere/XXXXXX"), MediaException);
}

} // namespace
