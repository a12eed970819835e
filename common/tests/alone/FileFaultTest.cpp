// Failures of the system that no file provokes at will: this executable's calls are the ones that the library makes.

#include "support/TemporaryFolder.h"

#include <norvcmsg/Exception.h>
#include <norvcmsg/File.h>
#include <norvcmsg/SwapBufferMediaOut.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace {

/// What goes wrong in this thread, while it is not all zero.
struct Faults {
    int interruptions = 0;      ///< how many calls that move bytes are interrupted before each that is not
    std::size_t mostAtOnce = 0; ///< how many bytes a call moves at most
    int goodReads = 0;          ///< how many reads go well before the error
    int readError = 0;
    bool writesNothing = false; ///< writes move no byte and tell no reason
    int writeError = 0;
    int closeError = 0;
    int statError = 0;
    int unlinkError = 0;
    bool everyFileHasAName = false; ///< as on file systems that know no others
};

Faults s_faults;
int s_interrupted = 0;
int s_preads = 0;

template <class Function> Function next(const char* name) {
    return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

/// Moves bytes with `call(length)`, unless a fault comes in between.
template <class Call> ssize_t move(int error, std::size_t length, Call call) {
    if (s_interrupted < s_faults.interruptions) {
        ++s_interrupted;
        errno = EINTR;
        return -1;
    }
    s_interrupted = 0;
    if (error != 0) {
        errno = error;
        return -1;
    }
    return call(s_faults.mostAtOnce == 0 ? length : std::min(length, s_faults.mostAtOnce));
}

} // namespace

extern "C" ssize_t read(int file, void* out, std::size_t length) {
    static const auto real = next<ssize_t (*)(int, void*, std::size_t)>("read");
    const int error = s_faults.goodReads > 0 ? 0 : s_faults.readError;
    s_faults.goodReads -= error == 0 && s_interrupted == s_faults.interruptions ? 1 : 0;
    return move(error, length, [=](std::size_t most) { return real(file, out, most); });
}

extern "C" ssize_t pread(int file, void* out, std::size_t length, off_t offset) {
    static const auto real = next<ssize_t (*)(int, void*, std::size_t, off_t)>("pread");
    ++s_preads;
    return move(s_faults.readError, length, [=](std::size_t most) { return real(file, out, most, offset); });
}

extern "C" ssize_t write(int file, const void* data, std::size_t length) {
    static const auto real = next<ssize_t (*)(int, const void*, std::size_t)>("write");
    if (s_faults.writesNothing) {
        return 0;
    }
    return move(s_faults.writeError, length, [=](std::size_t most) { return real(file, data, most); });
}

extern "C" ssize_t pwrite(int file, const void* data, std::size_t length, off_t offset) {
    static const auto real = next<ssize_t (*)(int, const void*, std::size_t, off_t)>("pwrite");
    return move(s_faults.writeError, length, [=](std::size_t most) { return real(file, data, most, offset); });
}

extern "C" int close(int file) {
    static const auto real = next<int (*)(int)>("close");
    const int result = real(file);
    if (s_faults.closeError != 0) {
        errno = s_faults.closeError;
        return -1;
    }
    return result;
}

extern "C" int fstat(int file, struct stat* status) noexcept {
    static const auto real = next<int (*)(int, struct stat*)>("fstat");
    if (s_faults.statError != 0) {
        errno = s_faults.statError;
        return -1;
    }
    return real(file, status);
}

extern "C" int unlink(const char* path) noexcept {
    static const auto real = next<int (*)(const char*)>("unlink");
    if (s_faults.unlinkError != 0) {
        errno = s_faults.unlinkError;
        return -1;
    }
    return real(path);
}

extern "C" int open(const char* path, int flags, ...) {
    static const auto real = next<int (*)(const char*, int, ...)>("open");
    std::va_list more;
    va_start(more, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(more, mode_t) : 0;
    va_end(more);
    if (s_faults.everyFileHasAName && (flags & O_TMPFILE) == O_TMPFILE) {
        errno = EOPNOTSUPP;
        return -1;
    }
    return real(path, flags, mode);
}

namespace {

using Norvane::Buffer;
using Norvane::File;
using Norvane::FileMediaIn;
using Norvane::FileMediaOut;
using Norvane::MediaException;
using Norvane::SwapBufferMediaOut;

class FileFaults : public testing::Test {
protected:
    void TearDown() override { clear(); }
    static void clear() {
        s_faults = Faults();
        s_interrupted = 0;
    }
    [[nodiscard]] File::Path path(const std::string& name) const { return m_folder.path(name); }

    const norvtest::TemporaryFolder m_folder;
};

const std::string s_text = [] {
    std::string text(200'000, '\0');
    for (std::size_t i = 0; i < text.size(); ++i) {
        text[i] = static_cast<char>(i % 251);
    }
    return text;
}();

Buffer textBuffer() {
    return {s_text.data(), static_cast<unsigned int>(s_text.size()), true};
}

/// Room for `length` bytes.
unsigned char* piece(std::size_t length) {
    static std::vector<unsigned char> room;
    room.resize(length);
    return room.data();
}

/// Where and why `act` fails.
template <class Act> std::string failureOf(Act act) {
    try {
        act();
    } catch (const MediaException& failure) {
        const auto& reason = std::get<std::string>(failure.parameters().at(0));
        return failure.where() + reason.substr(reason.rfind(':'));
    }
    return "none";
}

TEST_F(FileFaults, InterruptionsAndShortCountsLoseNoByte) {
    s_faults.interruptions = 2;
    s_faults.mostAtOnce = 30'000;
    FileMediaOut out(path("file"));
    out.write(textBuffer());
    out.write(Buffer("end", 3, true));
    out.end();
    std::string all;
    FileMediaIn(path("file")).read(all);
    EXPECT_EQ(all, s_text + "end");
    Buffer atOnce(300'000, 0);
    EXPECT_EQ(FileMediaIn(path("file")).read(atOnce), 200'003);
    SwapBufferMediaOut swap(10, path("swapXXXXXX").asString().c_str());
    swap.write(textBuffer());
    swap.in().read(all);
    EXPECT_EQ(all, s_text);
}

TEST_F(FileFaults, AnErrorOfReadingIsToldByEveryWayToRead) {
    FileMediaOut(path("file")).write(textBuffer());
    s_faults.readError = EIO;
    FileMediaIn in(path("file"));
    Buffer large(300'000, 0);
    Buffer small(10, 0);
    EXPECT_EQ(failureOf([&] { in.read(large); }), "FileMediaIn::read: Input/output error");
    EXPECT_EQ(failureOf([&] { in.read(small); }), "FileMediaIn::read: Input/output error");
    EXPECT_EQ(failureOf([&] { static_cast<void>(in.peek()); }), "FileMediaIn::read: Input/output error");
    EXPECT_EQ(failureOf([&] { static_cast<void>(in.atEnd()); }), "FileMediaIn::read: Input/output error");
    clear();
    std::string all;
    in.read(all);
    EXPECT_EQ(all, s_text) << "nothing was skipped";
}

class BrokenAfterSomeBytes : public FileFaults, public testing::WithParamInterface<unsigned int> {};

TEST_P(BrokenAfterSomeBytes, IsNoEndAndLosesNoByte) {
    FileMediaOut(path("file")).write(textBuffer());
    FileMediaIn in(path("file"));
    s_faults = {.mostAtOnce = 1000, .goodReads = 3, .readError = ECONNRESET};
    std::string piece(GetParam(), '\0');
    std::string all;
    const auto read = [&] {
        const auto count = in.read(reinterpret_cast<unsigned char*>(piece.data()), GetParam());
        all.append(piece, 0, static_cast<std::size_t>(count));
        return count;
    };
    while (all.size() < 3000) {
        ASSERT_GT(read(), 0);
    }
    EXPECT_EQ(failureOf(read), "FileMediaIn::read: Connection reset by peer");
    EXPECT_EQ(failureOf([&] { static_cast<void>(in.atEnd()); }), "FileMediaIn::read: Connection reset by peer");
    clear();
    while (read() > 0) {
    }
    EXPECT_EQ(all, s_text);
}

INSTANTIATE_TEST_SUITE_P(Pieces, BrokenAfterSomeBytes, testing::Values(1U, 7U, 1000U, 4096U, 65'536U, 200'000U));

TEST_F(FileFaults, AnErrorAfterSomeBytesIsToldThoughTheSystemTellsItOnce) {
    FileMediaOut(path("file")).write(Buffer(s_text.data(), 3000, true));
    FileMediaIn in(path("file"));
    Buffer buffer(200'000, 0);
    s_faults = {.mostAtOnce = 1000, .goodReads = 3, .readError = ECONNRESET};
    EXPECT_EQ(in.read(piece(200'000), 200'000), 3000);
    clear();
    EXPECT_EQ(failureOf([&] { in.read(buffer); }), "FileMediaIn::read: Connection reset by peer");
    EXPECT_TRUE(in.atEnd());
    in.setpos(0);
    s_faults = {.mostAtOnce = 1000, .goodReads = 3, .readError = ECONNRESET};
    EXPECT_EQ(failureOf([&] { in.read(buffer, 200'000); }), "FileMediaIn::read: Connection reset by peer");
    EXPECT_EQ(buffer.length(), 3000U) << "what arrived before";
    in.setpos(0);
    s_faults = {.mostAtOnce = 1000, .goodReads = 3, .readError = ECONNRESET};
    EXPECT_EQ(in.read(piece(200'000), 200'000), 3000);
    clear();
    in.setpos(0);
    EXPECT_EQ(in.peek(), 0) << "a new position is a new start";
}

TEST_F(FileFaults, AWriteThatTakesNothingIsAFailure) {
    FileMediaOut out(path("file"));
    out.write(Buffer("abc", 3, true));
    s_faults.writesNothing = true;
    EXPECT_EQ(failureOf([&] { out.end(); }), "FileMediaOut::end: Input/output error");
}

TEST_F(FileFaults, AFileThatCannotBeExaminedIsNotRead) {
    FileMediaOut(path("file")).end();
    s_faults.statError = EOVERFLOW;
    EXPECT_EQ(failureOf([&] { FileMediaIn in(path("file")); }), "FileMediaIn: Value too large for defined data type");
}

TEST_F(FileFaults, AnErrorOfClosingIsToldByEnd) {
    FileMediaOut out(path("file"));
    out.write(textBuffer());
    s_faults.closeError = EDQUOT;
    EXPECT_EQ(failureOf([&] { out.end(); }), "FileMediaOut::end: Disk quota exceeded");
    clear();
    EXPECT_NO_THROW(out.end());
}

TEST_F(FileFaults, AnInterruptedCloseIsNoError) {
    FileMediaOut out(path("file"));
    s_faults.closeError = EINTR;
    EXPECT_NO_THROW(out.end());
}

TEST_F(FileFaults, ASwapFileNeverHasANameWhereThatCanBe) {
    const int probe = ::open(path("").asString().c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
    if (probe < 0) {
        GTEST_SKIP() << "this file system knows no files without a name";
    }
    ::close(probe);
    SwapBufferMediaOut swap(0, path("swapXXXXXX").asString().c_str());
    s_faults.unlinkError = EBUSY; // nothing is there to be unlinked
    swap.write(textBuffer());
    EXPECT_TRUE(swap.isSwapped());
}

TEST_F(FileFaults, ASwapFileLosesItsNameWhereItHasToHaveOne) {
    s_faults.everyFileHasAName = true;
    SwapBufferMediaOut swap(0, path("swapXXXXXX").asString().c_str());
    swap.write(textBuffer());
    EXPECT_TRUE(swap.isSwapped());
    EXPECT_TRUE(std::filesystem::is_empty(path("").asString()));
    std::string all;
    auto in = swap.in();
    in.read(all);
    EXPECT_EQ(all, s_text);
}

TEST_F(FileFaults, ASwapFileThatKeepsItsNameIsNotUsed) {
    s_faults.everyFileHasAName = true;
    SwapBufferMediaOut swap(0, path("swapXXXXXX").asString().c_str());
    s_faults.unlinkError = EBUSY;
    EXPECT_EQ(failureOf([&] { swap.write(textBuffer()); }), "SwapBufferMediaOut::write: Device or resource busy");
    EXPECT_FALSE(swap.isSwapped());
    EXPECT_EQ(swap.length(), 0U);
}

TEST_F(FileFaults, ErrorsOfASwapFileAreTold) {
    SwapBufferMediaOut swap(0, path("swapXXXXXX").asString().c_str());
    swap.write(textBuffer());
    s_faults.writeError = ENOSPC;
    EXPECT_EQ(failureOf([&] { swap.write(textBuffer()); }), "SwapBufferMediaOut::write: No space left on device");
    s_faults.readError = EIO;
    auto in = swap.in();
    std::string all;
    EXPECT_EQ(failureOf([&] { in.read(all); }), "SwapBufferMediaOut::read: Input/output error");
    clear();
    in.read(all);
    EXPECT_EQ(all, s_text);
}

TEST_F(FileFaults, LinesOfASwappedBufferAskTheSystemOnceForEachKibibyte) {
    SwapBufferMediaOut swap(0, path("swapXXXXXX").asString().c_str());
    const std::string text = std::string(75, 'l') + '\n' + std::string(10000, 'l') + '\n';
    swap.write(Buffer(text.data(), static_cast<unsigned int>(text.size()), true));
    auto in = swap.in();
    Buffer line;
    s_preads = 0;
    EXPECT_TRUE(in.readline(line));
    EXPECT_EQ(line.length(), 76U);
    EXPECT_LE(s_preads, 1);
    EXPECT_TRUE(in.readline(line));
    EXPECT_EQ(line.length(), 10001U);
    EXPECT_LE(s_preads, 12);
}

} // namespace
