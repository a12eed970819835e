#include "support/TemporaryFolder.h"

#include <norvcmsg/Exception.h>
#include <norvcmsg/SwapBufferMediaOut.h>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Norvane::Buffer;
using Norvane::MediaException;
using Norvane::MediaIn;
using Norvane::MediaOut;
using Norvane::NullMediaOut;
using Norvane::SwapBufferMediaOut;

class SwapBuffer : public testing::Test {
protected:
    /// The descriptors that are open on files of this test's folder.
    [[nodiscard]] std::vector<std::string> openFiles() const {
        std::vector<std::string> open;
        for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
            std::error_code gone;
            const auto target = fs::read_symlink(entry, gone).string();
            if (target.find(m_folder.path()) == 0) {
                open.push_back(entry.path());
            }
        }
        return open;
    }

    const norvtest::TemporaryFolder m_folder;
    const std::string m_template = m_folder.path("swapXXXXXX");
};

void put(SwapBufferMediaOut& out, const std::string& text) {
    out.write(Buffer(text.data(), static_cast<unsigned int>(text.size()), true));
}

std::string readAll(const SwapBufferMediaOut& out) {
    std::string text;
    out.in().read(text);
    return text;
}

std::string longText(std::size_t length) {
    std::string text(length, '\0');
    for (std::size_t i = 0; i < length; ++i) {
        text[i] = static_cast<char>(i % 251);
    }
    return text;
}

TEST_F(SwapBuffer, IsEmptyAtFirstAndTouchesNoFile) {
    const SwapBufferMediaOut out(10, "/nonexistent/swapXXXXXX");
    EXPECT_EQ(out.length(), 0U);
    EXPECT_FALSE(out.isSwapped());
    EXPECT_EQ(readAll(out), "");
    EXPECT_TRUE(out.in().atEnd());
    EXPECT_EQ(out.in().peek(), -1);
}

TEST_F(SwapBuffer, StaysInMemoryUpToItsLimit) {
    SwapBufferMediaOut out(6, m_template.c_str());
    put(out, "abc");
    put(out, "def");
    EXPECT_FALSE(out.isSwapped());
    EXPECT_TRUE(openFiles().empty());
    EXPECT_EQ(readAll(out), "abcdef");
}

TEST_F(SwapBuffer, SpillsWithTheFirstByteBeyond) {
    SwapBufferMediaOut out(6, m_template.c_str());
    put(out, "abcdef");
    put(out, "g");
    EXPECT_TRUE(out.isSwapped());
    put(out, "hi");
    EXPECT_EQ(out.length(), 9U);
    EXPECT_EQ(out.tell(), 9U);
    EXPECT_EQ(readAll(out), "abcdefghi");
}

TEST_F(SwapBuffer, ALimitOfZeroSpillsAtOnceButNotForNothing) {
    SwapBufferMediaOut out(0, m_template.c_str());
    out.write(nullptr, 0);
    EXPECT_FALSE(out.isSwapped());
    put(out, "a");
    EXPECT_TRUE(out.isSwapped());
    EXPECT_EQ(readAll(out), "a");
}

TEST_F(SwapBuffer, TheFileHasNoNameAndIsItsOwnersAlone) {
    const auto mask = ::umask(0);
    SwapBufferMediaOut out(1, m_template.c_str());
    put(out, "secret");
    ::umask(mask);
    EXPECT_TRUE(fs::is_empty(m_folder.path()));
    const auto open = openFiles();
    ASSERT_EQ(open.size(), 1U);
    struct stat status {};
    ASSERT_EQ(::stat(open[0].c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
    EXPECT_EQ(status.st_nlink, 0U);
    EXPECT_EQ(status.st_size, 6);
}

TEST_F(SwapBuffer, TheFileIsNotHandedToOtherPrograms) {
    SwapBufferMediaOut out(1, m_template.c_str());
    put(out, "secret");
    const auto open = openFiles();
    ASSERT_EQ(open.size(), 1U);
    EXPECT_EQ(std::system(("test ! -e /proc/self/fd/" + fs::path(open[0]).filename().string()).c_str()), 0);
}

TEST_F(SwapBuffer, TheFileGoesWithTheLastHandle) {
    {
        MediaIn in;
        {
            SwapBufferMediaOut out(1, m_template.c_str());
            put(out, "abc");
            const SwapBufferMediaOut copy(out);
            in = copy.in();
        }
        EXPECT_EQ(openFiles().size(), 1U);
        std::string text;
        EXPECT_EQ(in.read(text), 3) << "a source keeps the bytes alive";
        EXPECT_EQ(text, "abc");
    }
    EXPECT_TRUE(openFiles().empty());
}

TEST_F(SwapBuffer, CopiesShareTheBytes) {
    SwapBufferMediaOut out(4, m_template.c_str());
    SwapBufferMediaOut copy(out);
    SwapBufferMediaOut assigned(1, m_template.c_str());
    assigned = out;
    put(out, "ab");
    put(copy, "cd");
    put(assigned, "ef");
    EXPECT_EQ(readAll(out), "abcdef");
    EXPECT_EQ(readAll(copy), "abcdef");
    EXPECT_EQ(openFiles().size(), 1U);
}

TEST_F(SwapBuffer, EverySourceHasAPositionOfItsOwn) {
    for (const unsigned int limit : {100U, 2U}) {
        SwapBufferMediaOut out(limit, m_template.c_str());
        put(out, "abcdef");
        auto first = out.in();
        auto second = out.in();
        unsigned char two[2];
        EXPECT_EQ(first.read(two, 2), 2);
        EXPECT_EQ(first.peek(), 'c');
        EXPECT_EQ(second.peek(), 'a');
        EXPECT_EQ(first.tell(), 2U);
        second.setpos(5);
        EXPECT_EQ(second.read(two, 2), 1);
        EXPECT_TRUE(second.atEnd());
        EXPECT_THROW(second.setpos(7), MediaException);
    }
}

TEST_F(SwapBuffer, ASourceSeesWhatIsWrittenLaterAcrossTheSpill) {
    SwapBufferMediaOut out(4, m_template.c_str());
    put(out, "abc");
    auto in = out.in();
    std::string text;
    EXPECT_EQ(in.read(text), 3);
    EXPECT_TRUE(in.atEnd());
    put(out, "def");
    EXPECT_TRUE(out.isSwapped());
    EXPECT_FALSE(in.atEnd());
    EXPECT_EQ(in.read(text), 3);
    EXPECT_EQ(text, "def");
}

TEST_F(SwapBuffer, KeepsLongContentByteForByte) {
    const auto text = longText(1'000'000);
    SwapBufferMediaOut out(65'536, m_template.c_str());
    for (std::size_t i = 0; i < text.size(); i += 10'007) {
        put(out, text.substr(i, 10'007));
    }
    out.end();
    EXPECT_TRUE(out.isSwapped());
    EXPECT_EQ(readAll(out), text);
    NullMediaOut sink;
    auto in = out.in();
    in.write(sink);
    EXPECT_EQ(sink.tell(), 1'000'000U);
}

/// Checks what `act` throws.
template <class Act> void expectFailure(Act act, const std::string& detail, int error) {
    try {
        act();
        FAIL() << "nothing thrown";
    } catch (const MediaException& failure) {
        EXPECT_EQ(failure.where(), "SwapBufferMediaOut::write");
        EXPECT_EQ(failure.code(), 4);
        EXPECT_EQ(failure.fileName(), "SwapBufferMediaOut");
        ASSERT_EQ(failure.parameters().size(), 2U);
        EXPECT_EQ(std::get<std::string>(failure.parameters()[0]), detail);
        EXPECT_EQ(std::get<int>(failure.parameters()[1]), error);
    }
}

TEST_F(SwapBuffer, IsReadByLinesOfAnyLength) {
    std::vector<std::string> lines;
    for (const std::size_t length : {0, 1, 75, 0, 1022, 1023, 1024, 1025, 2047, 2048, 5000}) {
        lines.push_back(std::string(length, 'l') + '\n');
    }
    lines.emplace_back(1024, 'e'); // without an end
    for (const unsigned int limit : {0U, 100000U}) {
        SwapBufferMediaOut out(limit, m_template.c_str());
        for (const std::string& line : lines) {
            put(out, line);
        }
        MediaIn in = out.in();
        Buffer line("before", 6, true);
        unsigned long position = 0;
        for (const std::string& expected : lines) {
            EXPECT_TRUE(in.readline(line));
            EXPECT_EQ(std::string(reinterpret_cast<const char*>(line.data()), line.length()), expected);
            position += expected.size();
            EXPECT_EQ(in.tell(), position);
        }
        EXPECT_FALSE(in.readline(line));
        EXPECT_TRUE(line.empty());
        EXPECT_TRUE(in.atEnd());
    }
}

TEST_F(SwapBuffer, AFolderThatIsNotThereIsTold) {
    SwapBufferMediaOut out(3, "/nonexistent/swapXXXXXX");
    put(out, "abc");
    expectFailure([&] { put(out, "d"); },
                  "cannot make a temporary file from /nonexistent/swapXXXXXX: No such file or directory", ENOENT);
    EXPECT_EQ(readAll(out), "abc") << "what was written before stays";
    EXPECT_EQ(out.length(), 3U);
}

TEST_F(SwapBuffer, AFolderThatCannotBeWrittenIsTold) {
    if (::geteuid() == 0) {
        // Root writes everywhere but where the kernel says no.
        SwapBufferMediaOut out(0, "/proc/swapXXXXXX");
        expectFailure([&] { put(out, "a"); },
                      "cannot make a temporary file from /proc/swapXXXXXX: No such file or directory", ENOENT);
        return;
    }
    fs::permissions(m_folder.path(), fs::perms::owner_read | fs::perms::owner_exec);
    SwapBufferMediaOut out(0, m_template.c_str());
    expectFailure([&] { put(out, "a"); }, "cannot make a temporary file from " + m_template + ": Permission denied",
                  EACCES);
    fs::permissions(m_folder.path(), fs::perms::owner_all);
}

TEST_F(SwapBuffer, AWrongTemplateIsTold) {
    SwapBufferMediaOut wrong(0, "/tmp/noplaceholder");
    expectFailure([&] { put(wrong, "a"); }, "cannot make a temporary file from /tmp/noplaceholder: Invalid argument",
                  EINVAL);
    SwapBufferMediaOut null(0, nullptr);
    expectFailure([&] { put(null, "a"); }, "cannot make a temporary file from : Invalid argument", EINVAL);
}

TEST_F(SwapBuffer, AFullDiskIsToldAndLeavesWhatWasWritten) {
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
    const rlimit small{1000, before.rlim_max};
    const auto handler = ::signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
    const auto detail = "cannot write the temporary file from " + m_template + ": File too large";
    {
        // The spill itself fails: the bytes stay in memory and the file goes.
        SwapBufferMediaOut out(2000, m_template.c_str());
        const auto text = longText(2000);
        put(out, text);
        expectFailure([&] { put(out, "x"); }, detail, EFBIG);
        EXPECT_FALSE(out.isSwapped());
        EXPECT_TRUE(openFiles().empty());
        EXPECT_EQ(readAll(out), text);
    }
    {
        // A later write fails: the next one goes where it would have gone.
        SwapBufferMediaOut out(0, m_template.c_str());
        put(out, std::string(900, 'a'));
        expectFailure([&] { put(out, std::string(200, 'b')); }, detail, EFBIG);
        EXPECT_EQ(out.length(), 900U);
        EXPECT_EQ(readAll(out), std::string(900, 'a'));
        put(out, "c");
        EXPECT_EQ(readAll(out), std::string(900, 'a') + "c");
    }
    ::setrlimit(RLIMIT_FSIZE, &before);
    ::signal(SIGXFSZ, handler);
}

TEST_F(SwapBuffer, StartsAfreshForEveryHandleOnceCleared) {
    for (const unsigned int limit : {1000U, 10U}) {
        SwapBufferMediaOut out(limit, m_template.c_str());
        const SwapBufferMediaOut shared(out);
        put(out, longText(100));
        MediaIn reader = out.in();
        reader.setpos(50);
        EXPECT_EQ(out.isSwapped(), limit == 10U);
        out.clear();
        EXPECT_EQ(out.length(), 0U);
        EXPECT_EQ(out.tell(), 0U);
        EXPECT_FALSE(out.isSwapped());
        EXPECT_TRUE(openFiles().empty());
        unsigned char byte = 0;
        EXPECT_TRUE(reader.atEnd());
        EXPECT_EQ(reader.peek(), -1);
        EXPECT_EQ(reader.read(&byte, 1), 0);
        put(out, longText(limit));
        EXPECT_FALSE(out.isSwapped()) << "the limit is the same";
        put(out, "x");
        EXPECT_TRUE(out.isSwapped());
        EXPECT_EQ(readAll(shared), longText(limit) + "x");
    }
}

TEST_F(SwapBuffer, WantsItsOwnKindOfStream) {
    SwapBufferMediaOut out(10, m_template.c_str());
    static_cast<MediaOut&>(out) = NullMediaOut();
    EXPECT_THROW(static_cast<void>(out.in()), MediaException);
    EXPECT_THROW(static_cast<void>(out.length()), MediaException);
    EXPECT_THROW(static_cast<void>(out.isSwapped()), MediaException);
    EXPECT_THROW(out.clear(), MediaException);
    static_cast<MediaOut&>(out) = MediaOut();
    EXPECT_THROW(static_cast<void>(out.in()), MediaException);
}

} // namespace
