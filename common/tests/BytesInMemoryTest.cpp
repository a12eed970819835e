#include <norvcmsg/BytesInMemory.h>

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <fstream>
#include <string>

namespace {

using Norvane::Buffer;
using Norvane::BytesInMemory;
using Norvane::File;
using Norvane::MappedFileMediaIn;
using Norvane::MediaException;
using Norvane::MediaIn;
using Norvane::MemoryMediaIn;
using Norvane::MemoryMediaOut;

/// A folder that goes with its object.
class Folder {
public:
    Folder() {
        std::string name = testing::TempDir() + "bytesXXXXXX";
        EXPECT_NE(::mkdtemp(name.data()), nullptr);
        m_path = name;
    }
    ~Folder() {
        static_cast<void>(::unlink(file().c_str()));
        static_cast<void>(::rmdir(m_path.c_str()));
    }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    [[nodiscard]] const std::string& path() const { return m_path; }
    [[nodiscard]] std::string file() const { return m_path + "/file"; }
    void fill(const std::string& content) const { std::ofstream(file(), std::ios::binary) << content; }

private:
    std::string m_path;
};

BytesInMemory* memoryOf(const MediaIn& in) {
    return dynamic_cast<BytesInMemory*>(in.operator->());
}

std::string restOf(const BytesInMemory& bytes) {
    return {reinterpret_cast<const char*>(bytes.rest()), bytes.left()};
}

std::string failureOf(const std::string& path) {
    try {
        const MappedFileMediaIn in{File::Path(path)};
    } catch (const MediaException& exception) {
        return exception.asString();
    }
    return "nothing thrown";
}

} // namespace

TEST(BytesInMemory, MemorySourcesLendTheirBytesFromTheirPosition) {
    const MemoryMediaIn in(std::string("abcdef"));
    BytesInMemory* bytes = memoryOf(in);
    ASSERT_NE(bytes, nullptr);
    EXPECT_EQ(restOf(*bytes), "abcdef");
    bytes->skip(2);
    EXPECT_EQ(in.tell(), 2U);
    EXPECT_EQ(in.peek(), 'c');
    EXPECT_EQ(restOf(*bytes), "cdef");
    bytes->skip(4);
    EXPECT_TRUE(in.atEnd());
    EXPECT_EQ(bytes->left(), 0U);
}

TEST(BytesInMemory, MappedFilesAreReadLikeAnySource) {
    const Folder folder;
    folder.fill("one\ntwo\nthree");
    MappedFileMediaIn in{File::Path(folder.file())};
    EXPECT_EQ(in.peek(), 'o');
    Buffer line;
    EXPECT_TRUE(in.readline(line));
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(line.data()), line.length()), "one\n");
    EXPECT_EQ(restOf(*memoryOf(in)), "two\nthree");
    std::array<unsigned char, 4> two{};
    EXPECT_EQ(in.read(two.data(), 4), 4);
    EXPECT_EQ(in.tell(), 8U);
    EXPECT_EQ(in.read(two.data(), 4), 4);
    EXPECT_EQ(in.read(two.data(), 4), 1);
    EXPECT_EQ(in.read(two.data(), 4), 0);
    EXPECT_TRUE(in.atEnd());
    EXPECT_EQ(in.peek(), -1);
    in.setpos(4);
    MemoryMediaOut rest;
    in.write(rest);
    EXPECT_EQ(rest.content().length(), 9U);
    EXPECT_THROW(in.setpos(14), MediaException);
    in.setpos(13);
    EXPECT_TRUE(in.atEnd());
}

TEST(BytesInMemory, TheBytesStayWhenTheFileIsReplaced) {
    const Folder folder;
    folder.fill("before");
    const MappedFileMediaIn in{File::Path(folder.file())};
    ASSERT_EQ(::unlink(folder.file().c_str()), 0);
    folder.fill("another");
    EXPECT_EQ(restOf(*memoryOf(in)), "before");
}

TEST(BytesInMemory, AnEmptyFileIsASourceWithoutBytes) {
    const Folder folder;
    folder.fill("");
    const MappedFileMediaIn in{File::Path(folder.file())};
    EXPECT_TRUE(in.atEnd());
    EXPECT_EQ(memoryOf(in)->left(), 0U);
    unsigned char none = 0;
    EXPECT_EQ(MediaIn(in).read(&none, 1), 0);
}

TEST(BytesInMemory, WhatIsNoRegularFileIsRefusedAndNamed) {
    const Folder folder;
    EXPECT_NE(failureOf(folder.path()).find(folder.path() + ": not a regular file"), std::string::npos);
    EXPECT_NE(failureOf(folder.file()).find(folder.file()), std::string::npos);
    EXPECT_NE(failureOf(folder.file()).find("No such file"), std::string::npos);
    ASSERT_EQ(::mkfifo(folder.file().c_str(), 0600), 0);
    EXPECT_NE(failureOf(folder.file()).find("not a regular file"), std::string::npos) << "without waiting for a writer";
}
