// Watches what is wiped: this executable's explicit_bzero is the one that the library calls.

#include <norvcmsg/Buffer.h>
#include <norvcmsg/SwapBufferMediaOut.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

namespace {

/// What the memory held when it was wiped.
std::vector<std::string> s_wiped;

} // namespace

extern "C" void explicit_bzero(void* memory, std::size_t length) noexcept {
    s_wiped.emplace_back(static_cast<const char*>(memory), length);
    std::memset(memory, 0, length);
}

namespace {

using Norvane::Buffer;
using testing::Test;

class BufferWipe : public Test {
protected:
    void SetUp() override { s_wiped.clear(); }

    static Buffer key(const std::string& text) {
        Buffer buffer(text.data(), static_cast<unsigned int>(text.size()), false);
        buffer.protect();
        return buffer;
    }
};

using Wiped = std::vector<std::string>;

TEST_F(BufferWipe, WhenAProtectedBufferGoes) {
    { const Buffer buffer = key("secret"); }
    EXPECT_EQ(s_wiped, Wiped{"secret"});
}

TEST_F(BufferWipe, TheWholeCapacityNotOnlyTheLength) {
    {
        Buffer buffer = key("secret");
        buffer.length(1);
    }
    EXPECT_EQ(s_wiped, Wiped{"secret"});
}

TEST_F(BufferWipe, EveryCopy) {
    {
        const Buffer buffer = key("secret");
        const Buffer copy(buffer);
        Buffer assigned;
        assigned = buffer;
    }
    EXPECT_EQ(s_wiped, (Wiped{"secret", "secret", "secret"}));
}

TEST_F(BufferWipe, TheOldMemoryWhenItGrows) {
    Buffer buffer = key("secret");
    buffer.length(100);
    EXPECT_EQ(s_wiped, Wiped{"secret"});
    s_wiped.clear();
    buffer.append(Buffer("x", 1, true));
    ASSERT_EQ(s_wiped.size(), 1U);
    EXPECT_EQ(s_wiped[0].substr(0, 6), "secret");
    EXPECT_EQ(s_wiped[0].size(), 100U);
}

TEST_F(BufferWipe, TheOldBytesWhenOthersAreAssigned) {
    Buffer buffer = key("secret");
    buffer = Buffer("other", 5, false);
    EXPECT_EQ(s_wiped, Wiped{"secret"});
}

TEST_F(BufferWipe, OnceWhenMoved) {
    {
        Buffer buffer = key("secret");
        const Buffer moved(std::move(buffer));
        EXPECT_TRUE(s_wiped.empty());
    }
    EXPECT_EQ(s_wiped, Wiped{"secret"});
}

TEST_F(BufferWipe, WhatWasDecodedFromProtectedText) {
    {
        const Buffer text = key("Zm9v");
        Buffer decoded;
        ASSERT_TRUE(text.decodeBase64(decoded));
    }
    EXPECT_EQ(s_wiped, (Wiped{"foo", "Zm9v"}));
}

TEST_F(BufferWipe, WhatWasDecodedBeforeATextTurnsOutWrong) {
    Buffer decoded;
    EXPECT_FALSE(key("Zm9vZg").decodeBase64(decoded));
    ASSERT_EQ(s_wiped.size(), 2U);
    EXPECT_EQ(s_wiped[0].substr(0, 3), "foo");
}

TEST_F(BufferWipe, NotTheBytesOfALender) {
    const std::string lent = "secret";
    {
        Buffer buffer(lent.data(), 6, true);
        buffer.protect();
    }
    EXPECT_TRUE(s_wiped.empty());
    EXPECT_EQ(lent, "secret");
}

TEST_F(BufferWipe, NotWhatIsNoKey) {
    { const Buffer buffer("plain", 5, false); }
    EXPECT_TRUE(s_wiped.empty());
}

TEST_F(BufferWipe, WhatASwapBufferHasInMemory) {
    {
        Norvane::SwapBufferMediaOut out(6, "/nonexistent/swapXXXXXX");
        out.write(Buffer("secret", 6, true));
        EXPECT_TRUE(s_wiped.empty());
    }
    EXPECT_EQ(s_wiped, Wiped{"secret"});
}

TEST_F(BufferWipe, WhatASwapBufferHadInMemoryAsSoonAsItIsInItsFile) {
    Norvane::SwapBufferMediaOut out(6, (testing::TempDir() + "swapXXXXXX").c_str());
    out.write(Buffer("secret", 6, true));
    out.write(Buffer("s", 1, true));
    EXPECT_TRUE(out.isSwapped());
    EXPECT_EQ(s_wiped, Wiped{"secret"});
}

} // namespace
