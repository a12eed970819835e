// Files and folders that are open.

#include <norvcmsg/FileDescriptor.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <utility>

using namespace Norvane;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class FileDescriptorTest : public testing::Test {
protected:
    FileDescriptorTest() {
        std::string name = (std::filesystem::temp_directory_path() / "norvcmsg-XXXXXX").string();
        m_path = mkdtemp(name.data());
    }
    ~FileDescriptorTest() override { std::filesystem::remove_all(m_path); }

    [[nodiscard]] std::string path(const std::string& name) const { return m_path + "/" + name; }
    void write(const std::string& name, const std::string& text) const { std::ofstream(path(name)) << text; }
    [[nodiscard]] FileDescriptor openFile(const std::string& name) const {
        return FileDescriptor(::open(path(name).c_str(), O_RDONLY | O_CLOEXEC));
    }
    [[nodiscard]] struct stat statusOf(const std::string& name) const {
        struct stat status {};
        EXPECT_EQ(lstat(path(name).c_str(), &status), 0);
        return status;
    }

    std::string m_path;
};

bool isOpen(int number) {
    return fcntl(number, F_GETFD) >= 0;
}

TEST_F(FileDescriptorTest, ClosesWhatItOwns) {
    int number = -1;
    {
        FileDescriptor folder = openFile(".");
        number = folder.get();
        const FileDescriptor other = std::move(folder);
        EXPECT_TRUE(isOpen(number));
        EXPECT_EQ(other.get(), number);
        EXPECT_TRUE(other.isOpen());
    }
    EXPECT_FALSE(isOpen(number));
    FileDescriptor released = openFile(".");
    number = released.release();
    EXPECT_FALSE(released.isOpen());
    EXPECT_EQ(released.close(), 0) << "there is nothing to close";
    EXPECT_TRUE(isOpen(number));
    EXPECT_EQ(FileDescriptor(number).close(), 0);
    EXPECT_FALSE(isOpen(number));
}

TEST_F(FileDescriptorTest, NamesComeInTheOrderOfTheirBytesWithoutDots) {
    for (const char* name : {"b", "a", "B", ".hidden", "\xC3\xA4", "aa"}) {
        write(name, "");
    }
    const FileDescriptor folder = openFile(".");
    for (int time = 0; time < 2; ++time) { // the second one begins at the start too
        const FolderNames listed = namesIn(folder);
        EXPECT_EQ(listed.error, 0);
        EXPECT_THAT(listed.names, ElementsAre("B", "a", "aa", "b", "\xC3\xA4"));
    }
}

TEST_F(FileDescriptorTest, WhatIsNoFolderIsNotListed) {
    write("a", "");
    EXPECT_EQ(namesIn(openFile("a")).error, ENOTDIR);
    EXPECT_EQ(namesIn(FileDescriptor()).error, EBADF);
    EXPECT_THAT(namesIn(FileDescriptor()).names, IsEmpty());
}

TEST_F(FileDescriptorTest, ReadsAWholeFileOfTheSizeThatWasTold) {
    for (const std::string& text : {std::string(), std::string("a"), std::string(100'000, 'x')}) {
        write("a", text);
        const auto size = static_cast<unsigned int>(text.size());
        const FileContent content = readWhole(openFile("a"), size, false);
        EXPECT_EQ(content.error, 0);
        EXPECT_FALSE(content.changed);
        EXPECT_EQ(std::string(reinterpret_cast<const char*>(content.bytes.data()), content.bytes.length()), text);
        EXPECT_TRUE(readWhole(openFile("a"), size + 1, false).changed);
        if (size > 0) {
            EXPECT_TRUE(readWhole(openFile("a"), size - 1, true).changed);
        }
    }
    EXPECT_EQ(readWhole(openFile("."), 10, false).error, EISDIR);
}

TEST_F(FileDescriptorTest, AStateTellsEveryChange) {
    write("a", "one");
    const FileState before(statusOf("a"));
    EXPECT_EQ(FileState(statusOf("a")), before);
    EXPECT_FALSE(before < before);

    const auto differs = [&](const FileState& other) {
        EXPECT_NE(other, before);
        EXPECT_NE(other < before, before < other);
    };
    write("b", "one");
    differs(FileState(statusOf("b")));
    FileState changed = before;
    for (std::int64_t* const part : {&changed.size, &changed.modifiedSeconds, &changed.modifiedNanoseconds,
                                     &changed.changedSeconds, &changed.changedNanoseconds}) {
        ++*part;
        differs(changed);
        --*part;
    }
    chmod(path("a").c_str(), 0600);
    chmod(path("b").c_str(), 0640);
    EXPECT_NE(FileState(statusOf("a")).mode, FileState(statusOf("b")).mode);
    struct timespec times[] = {{1, 5}, {1, 7}};
    ASSERT_EQ(utimensat(AT_FDCWD, path("a").c_str(), times, 0), 0);
    EXPECT_EQ(FileState(statusOf("a")).modifiedNanoseconds, 7);
}

TEST_F(FileDescriptorTest, WhatWasJustWrittenIsNotSettled) {
    FileState state;
    state.modifiedSeconds = 1000;
    state.changedSeconds = 1000;
    EXPECT_FALSE(state.isSettled(1000));
    EXPECT_FALSE(state.isSettled(1002));
    EXPECT_TRUE(state.isSettled(1003));
    state.changedSeconds = 1001; // a program set the other one back
    EXPECT_FALSE(state.isSettled(1003));
    EXPECT_FALSE(state.isSettled(900)) << "a time to come";
}

} // namespace
