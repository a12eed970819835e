#include "support/TemporaryFolder.h"

#include <norvcmsg/Exception.h>
#include <norvcmsg/File.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <string>
#include <thread>
#include <utility>

namespace {

namespace fs = std::filesystem;
using Norvane::Buffer;
using Norvane::File;
using Norvane::FileMediaIn;
using Norvane::FileMediaOut;
using Norvane::MediaException;

class Files : public testing::Test {
protected:
    [[nodiscard]] std::string path(const std::string& name) const { return m_folder.path(name); }
    [[nodiscard]] std::string with(const std::string& name, const std::string& content) const {
        return m_folder.write(name, content);
    }
    static std::string contentOf(const std::string& path) {
        std::ifstream in(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }

    const norvtest::TemporaryFolder m_folder;
};

using FilePath = Files;
using FileIn = Files;
using FileOut = Files;

/// Checks what `act` throws: where, the reason and the number of the system's error.
template <class Act>
void expectFailure(Act act, const std::string& where, const std::string& path, const std::string& reason, int error) {
    try {
        act();
        FAIL() << "nothing thrown";
    } catch (const MediaException& failure) {
        EXPECT_EQ(failure.where(), where);
        EXPECT_EQ(failure.code(), 4);
        ASSERT_EQ(failure.parameters().size(), 2U);
        EXPECT_EQ(std::get<std::string>(failure.parameters()[0]), path + ": " + reason);
        EXPECT_EQ(std::get<int>(failure.parameters()[1]), error);
    }
}

std::string textOf(const Buffer& buffer) {
    return {reinterpret_cast<const char*>(buffer.data()), buffer.length()};
}

void put(FileMediaOut& out, const std::string& text) {
    out.write(Buffer(text.data(), static_cast<unsigned int>(text.size()), true));
}

/// A text that repeats only after a prime number of bytes, so that misplaced blocks show.
std::string longText(std::size_t length) {
    std::string text(length, '\0');
    for (std::size_t i = 0; i < length; ++i) {
        text[i] = static_cast<char>(i % 251);
    }
    return text;
}

TEST_F(FilePath, TheEmptyPathNamesNothing) {
    const File::Path none;
    EXPECT_TRUE(none.empty());
    EXPECT_EQ(none.asString(), "");
    EXPECT_FALSE(none.exists());
    EXPECT_TRUE(File::Path(std::string()).empty());
}

TEST_F(FilePath, KeepsItsText) {
    const File::Path some(std::string("/a//b/../c"));
    EXPECT_FALSE(some.empty());
    EXPECT_EQ(some.asString(), "/a//b/../c");
    EXPECT_TRUE(some == File::Path(std::string("/a//b/../c")));
    EXPECT_FALSE(some == File::Path());
}

TEST_F(FilePath, ExistsFollowsLinks) {
    const auto file = with("file", "abc");
    fs::create_symlink(file, path("link"));
    fs::create_symlink(path("nowhere"), path("dangling"));
    EXPECT_TRUE(File::Path(file).exists());
    EXPECT_TRUE(File::Path(m_folder.path()).exists());
    EXPECT_TRUE(File::Path(path("link")).exists());
    EXPECT_FALSE(File::Path(path("dangling")).exists());
    EXPECT_FALSE(File::Path(path("nowhere")).exists());
}

TEST_F(FilePath, ANulByteDoesNotHideTheRestOfTheName) {
    const auto file = with("file", "abc");
    const File::Path hidden(file + std::string("\0.pem", 5));
    EXPECT_FALSE(hidden.exists());
    EXPECT_THROW(static_cast<void>(hidden.status(false)), MediaException);
    EXPECT_THROW(FileMediaIn{hidden}, MediaException);
    EXPECT_THROW(FileMediaOut{hidden}, MediaException);
    EXPECT_EQ(contentOf(file), "abc");
}

TEST_F(FilePath, StatusTellsSizeAndKind) {
    const auto file = with("file", "abc");
    fs::permissions(file, fs::perms::owner_read);
    fs::create_symlink(file, path("link"));
    const auto status = File::Path(file).status(false);
    EXPECT_EQ(status.size(), 3U);
    EXPECT_TRUE(status.isRegular());
    EXPECT_FALSE(status.isDirectory());
    EXPECT_FALSE(status.isLink());
    EXPECT_EQ(status.permissions(), 0400U);
    EXPECT_EQ(File::Path(path("link")).status(false).size(), 3U);
    EXPECT_TRUE(File::Path(path("link")).status(true).isLink());
    EXPECT_TRUE(File::Path(m_folder.path()).status(false).isDirectory());
}

TEST_F(FilePath, StatusTellsWhenTheFileChanged) {
    const auto file = with("file", "abc");
    const timespec times[2] = {{0, 0}, {1'700'000'000, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
    EXPECT_EQ(File::Path(file).status(false).modified().asString(), "2023-11-14T22:13:20Z");
}

TEST_F(FilePath, StatusTellsTheNearestTimeWhenTheYearFitsNoField) {
    // In memory, where a file system keeps every second.
    std::string file = "/dev/shm/norvFileXXXXXX";
    const int descriptor = ::mkstemp(file.data());
    ASSERT_GE(descriptor, 0);
    const timespec late[2] = {{0, 0}, {std::numeric_limits<time_t>::max(), 0}};
    const timespec early[2] = {{0, 0}, {std::numeric_limits<time_t>::min(), 0}};
    for (const auto& [times, shown] :
         {std::pair(late, "2147485547-12-31T23:59:59Z"), std::pair(early, "-2147481748-01-01T00:00:00Z")}) {
        ASSERT_EQ(::futimens(descriptor, times), 0);
        EXPECT_EQ(File::Path(file).status(false).modified().asString(), shown);
    }
    ::close(descriptor);
    ::unlink(file.c_str());
}

TEST_F(FilePath, StatusCountsMoreThan32Bits) {
    const auto file = with("large", "");
    fs::resize_file(file, 5'000'000'000);
    EXPECT_EQ(File::Path(file).status(false).size(), 5'000'000'000U);
}

TEST_F(FilePath, StatusOfNothingThrows) {
    expectFailure([&] { static_cast<void>(File::Path(path("nowhere")).status(false)); }, "File::Path::status",
                  path("nowhere"), "No such file or directory", ENOENT);
}

TEST_F(FileIn, ReadsAllBytes) {
    for (const std::size_t length : {0U, 1U, 65'535U, 65'536U, 65'537U, 200'000U}) {
        const auto text = longText(length);
        FileMediaIn in(File::Path(with("file", text)));
        Buffer out;
        EXPECT_EQ(in.read(out, 0), static_cast<int>(length));
        EXPECT_EQ(textOf(out), text);
        EXPECT_TRUE(in.atEnd());
        EXPECT_EQ(in.peek(), -1);
        EXPECT_EQ(in.read(out, 0), 0);
    }
}

TEST_F(FileIn, ReadsInPiecesOfAnySize) {
    const auto text = longText(300'000);
    const auto file = with("file", text);
    for (const unsigned int piece : {1U, 7U, 4096U, 65'535U, 65'536U, 65'537U, 131'072U, 250'000U}) {
        FileMediaIn in(File::Path{file});
        std::string read;
        std::string part(piece, '\0');
        int count = 0;
        while ((count = in.read(reinterpret_cast<unsigned char*>(part.data()), piece)) > 0) {
            read.append(part, 0, static_cast<std::size_t>(count));
            if (static_cast<unsigned int>(count) < piece) {
                EXPECT_TRUE(in.atEnd());
            } else {
                EXPECT_EQ(in.atEnd(), read.size() == text.size());
            }
        }
        EXPECT_EQ(read, text) << piece;
    }
}

TEST_F(FileIn, KnowsItsPosition) {
    FileMediaIn in(File::Path(with("file", longText(100'000))));
    EXPECT_EQ(in.tell(), 0U);
    EXPECT_EQ(in.peek(), 0);
    EXPECT_EQ(in.tell(), 0U);
    Buffer out;
    in.read(out, 70'000);
    EXPECT_EQ(in.tell(), 70'000U);
    in.setpos(251);
    EXPECT_EQ(in.peek(), 0);
    EXPECT_EQ(in.tell(), 251U);
    in.setpos(100'000);
    EXPECT_TRUE(in.atEnd());
    expectFailure([&] { in.setpos(~0UL); }, "FileMediaIn::setpos", path("file"), "Invalid argument", EINVAL);
}

TEST_F(FileIn, ReachesPast32Bits) {
    const auto file = with("large", "");
    fs::resize_file(file, 5'000'000'000);
    std::fstream(file, std::ios::in | std::ios::out | std::ios::binary).seekp(4'999'999'999) << 'z';
    FileMediaIn in(File::Path{file});
    in.setpos(4'999'999'998);
    std::string rest;
    EXPECT_EQ(in.read(rest), 2);
    EXPECT_EQ(rest, std::string("\0z", 2));
    EXPECT_EQ(in.tell(), 5'000'000'000U);
}

TEST_F(FileIn, ReadsLines) {
    FileMediaIn in(File::Path(with("file", "one\ntwo")));
    Buffer line;
    EXPECT_TRUE(in.readline(line));
    EXPECT_EQ(textOf(line), "one\n");
    EXPECT_TRUE(in.readline(line));
    EXPECT_EQ(textOf(line), "two");
    EXPECT_FALSE(in.readline(line));
}

TEST_F(FileIn, FailuresOfOpeningTellTheReason) {
    expectFailure([&] { FileMediaIn(File::Path(path("nowhere"))); }, "FileMediaIn", path("nowhere"),
                  "No such file or directory", ENOENT);
    expectFailure([&] { FileMediaIn(File::Path(m_folder.path())); }, "FileMediaIn", m_folder.path(), "Is a directory",
                  EISDIR);
    expectFailure([&] { FileMediaIn{File::Path()}; }, "FileMediaIn", "", "No such file or directory", ENOENT);
}

TEST_F(FileIn, FailuresOfReadingTellTheReason) {
    // The memory of this process from its first page on, which is never mapped.
    FileMediaIn in(File::Path(std::string("/proc/self/mem")));
    Buffer out;
    expectFailure([&] { in.read(out, 10); }, "FileMediaIn::read", "/proc/self/mem", "Input/output error", EIO);
}

TEST_F(FileIn, ReadsAPipeAsItsBytesComeThroughInterruptions) {
    const auto pipe = path("pipe");
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    struct sigaction action {};
    action.sa_handler = [](int) {};
    struct sigaction before {};
    ASSERT_EQ(::sigaction(SIGUSR1, &action, &before), 0); // without SA_RESTART
    const auto reader = ::pthread_self();
    std::thread writer([&] {
        std::ofstream out(pipe, std::ios::binary);
        for (int i = 0; i < 50; ++i) {
            ::pthread_kill(reader, SIGUSR1);
            out << "abcd" << std::flush;
        }
    });
    {
        FileMediaIn in(File::Path{pipe});
        EXPECT_EQ(in.peek(), 'a');
        std::string text;
        EXPECT_EQ(in.read(text), 200);
        EXPECT_EQ(text.substr(0, 8), "abcdabcd");
        EXPECT_THROW(static_cast<void>(in.tell()), MediaException);
        EXPECT_THROW(in.setpos(0), MediaException);
    }
    writer.join();
    ::sigaction(SIGUSR1, &before, nullptr);
}

TEST_F(FileIn, DescriptorsAreClosedWithTheLastHandle) {
    const auto open = [] { return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator()); };
    const auto before = open();
    {
        const FileMediaIn in(File::Path(with("file", "abc")));
        const FileMediaIn copy(in); // NOLINT(performance-unnecessary-copy-initialization)
        FileMediaOut out(File::Path(path("out")));
        EXPECT_EQ(open(), before + 2);
        EXPECT_THROW(FileMediaIn(File::Path(m_folder.path())), MediaException);
        EXPECT_EQ(open(), before + 2);
        out.end();
        EXPECT_EQ(open(), before + 1);
    }
    EXPECT_EQ(open(), before);
}

TEST_F(FileOut, WritesAllBytes) {
    for (const std::size_t piece : {1U, 7U, 65'535U, 65'536U, 65'537U, 200'000U}) {
        const auto text = longText(200'000);
        FileMediaOut out(File::Path(path("file")));
        for (std::size_t i = 0; i < text.size(); i += piece) {
            put(out, text.substr(i, piece));
            EXPECT_EQ(out.tell(), std::min(i + piece, text.size()));
        }
        out.end();
        EXPECT_EQ(contentOf(path("file")), text) << piece;
    }
}

TEST_F(FileOut, EmptiesWhatWasThere) {
    const auto file = with("file", "something longer");
    FileMediaOut out(File::Path{file});
    put(out, "new");
    out.end();
    EXPECT_EQ(contentOf(file), "new");
}

TEST_F(FileOut, ASecondEndDoesNothingAndAWriteAfterItThrows) {
    FileMediaOut out(File::Path(path("file")));
    put(out, "abc");
    out.end();
    out.end();
    try {
        put(out, "def");
        FAIL() << "nothing thrown";
    } catch (const MediaException& failure) {
        EXPECT_EQ(failure.where(), "FileMediaOut::write");
        EXPECT_EQ(std::get<std::string>(failure.parameters().at(0)), path("file") + ": already ended");
    }
    EXPECT_EQ(contentOf(path("file")), "abc");
}

TEST_F(FileOut, GoingWithoutAnEndWritesWhatItHas) {
    {
        FileMediaOut out(File::Path(path("file")));
        put(out, "abc");
    }
    EXPECT_EQ(contentOf(path("file")), "abc");
}

TEST_F(FileOut, ANewFileHasThePermissionsAskedFor) {
    const auto mask = ::umask(0);
    FileMediaOut(File::Path(path("secret")), 0600).end();
    FileMediaOut(File::Path(path("open"))).end();
    ::umask(mask);
    EXPECT_EQ(File::Path(path("secret")).status(false).permissions(), 0600U);
    EXPECT_EQ(File::Path(path("open")).status(false).permissions(), 0666U);
}

TEST_F(FileOut, PositionsAreKept) {
    FileMediaOut out(File::Path(path("file")));
    put(out, "abcdef");
    out.setpos(2);
    EXPECT_EQ(out.tell(), 2U);
    put(out, "XY");
    EXPECT_EQ(out.tell(), 4U);
    expectFailure([&] { out.setpos(~0UL); }, "FileMediaOut::setpos", path("file"), "Invalid argument", EINVAL);
    EXPECT_EQ(out.tell(), 4U);
    out.end();
    EXPECT_EQ(contentOf(path("file")), "abXYef");
}

TEST_F(FileOut, FailuresOfOpeningTellTheReason) {
    expectFailure([&] { FileMediaOut(File::Path(path("no/where"))); }, "FileMediaOut", path("no/where"),
                  "No such file or directory", ENOENT);
    expectFailure([&] { FileMediaOut(File::Path(m_folder.path())); }, "FileMediaOut", m_folder.path(), "Is a directory",
                  EISDIR);
}

TEST_F(FileOut, AFullDiskIsToldByWriteAndAgainByEnd) {
    FileMediaOut out(File::Path(std::string("/dev/full")));
    put(out, "collected");
    const auto full = [&] { put(out, std::string(100'000, 'x')); };
    expectFailure(full, "FileMediaOut::write", "/dev/full", "No space left on device", ENOSPC);
    expectFailure(full, "FileMediaOut::write", "/dev/full", "No space left on device", ENOSPC);
    expectFailure([&] { out.setpos(0); }, "FileMediaOut::setpos", "/dev/full", "No space left on device", ENOSPC);
    expectFailure([&] { out.end(); }, "FileMediaOut::end", "/dev/full", "No space left on device", ENOSPC);
    EXPECT_NO_THROW(out.end());
}

TEST_F(FileOut, AFullDiskIsToldByEndWhenAllWasCollected) {
    FileMediaOut out(File::Path(std::string("/dev/full")));
    put(out, "collected");
    expectFailure([&] { out.end(); }, "FileMediaOut::end", "/dev/full", "No space left on device", ENOSPC);
}

TEST_F(FileOut, AFileTooLargeIsTold) {
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
    const rlimit small{100'000, before.rlim_max};
    const auto handler = ::signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
    {
        FileMediaOut out(File::Path(path("file")));
        expectFailure([&] { put(out, std::string(200'000, 'x')); }, "FileMediaOut::write", path("file"),
                      "File too large", EFBIG);
        EXPECT_EQ(out.tell(), 100'000U);
    }
    ::setrlimit(RLIMIT_FSIZE, &before);
    ::signal(SIGXFSZ, handler);
}

} // namespace
