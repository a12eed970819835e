#include "support/BioCalls.h"
#include "support/Interpose.h"
#include "support/Streams.h"
#include "support/TemporaryFolder.h"
#include "support/Thrown.h"

#include <norvcrypto/BIO.h>

#include <openssl/bio.h>
#include <openssl/err.h>

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <type_traits>
#include <utility>

namespace {

bool s_memBufFails = false;

} // namespace

extern "C" {

BIO* BIO_new_mem_buf(const void* bytes, int length) {
    if (s_memBufFails) {
        norvtest::failIn("BIO_new_mem_buf", ERR_LIB_BIO, BIO_R_INVALID_ARGUMENT, "bss_mem.c");
        return nullptr;
    }
    return norvtest::next<&BIO_new_mem_buf>("BIO_new_mem_buf")(bytes, length);
}
}

namespace {

using Norvane::Buffer;
using Norvane::Crypto::FileBIO;
using Norvane::Crypto::MemoryBIO;
using norvtest::bufferOf;
using norvtest::CountingFrees;
using norvtest::During;
using norvtest::textOf;

static_assert(!std::is_copy_constructible_v<MemoryBIO> && !std::is_copy_assignable_v<MemoryBIO>);
static_assert(!std::is_copy_constructible_v<FileBIO> && !std::is_copy_assignable_v<FileBIO>);

/// What the conversion answers.
std::string readBack(MemoryBIO& bio) {
    const Buffer bytes = bio;
    return textOf(bytes);
}

std::string readThroughOpenSsl(BIO* bio) {
    char bytes[64];
    const int count = BIO_read(bio, bytes, sizeof bytes);
    return count > 0 ? std::string(bytes, static_cast<std::size_t>(count)) : std::string();
}

class Files : public testing::Test {
protected:
    std::string path(const std::string& name) const { return m_folder.path(name); }

private:
    const norvtest::TemporaryFolder m_folder;
};

TEST(MemoryBio, NothingWrittenConvertsToAnEmptyBuffer) {
    MemoryBIO bio;
    EXPECT_EQ(readBack(bio), "");
}

TEST(MemoryBio, TheFirstReadingThatIsNotEmptyIsKeptForGood) {
    MemoryBIO bio;
    EXPECT_EQ(BIO_write(bio, "abc", 3), 3);
    EXPECT_EQ(readBack(bio), "abc");
    EXPECT_EQ(BIO_write(bio, "def", 3), 3);
    EXPECT_EQ(readBack(bio), "abc");
}

TEST(MemoryBio, AnEmptyReadingFixesNothing) {
    MemoryBIO bio;
    EXPECT_EQ(readBack(bio), "");
    EXPECT_EQ(BIO_write(bio, "abc", 3), 3);
    EXPECT_EQ(readBack(bio), "abc");
}

TEST(MemoryBio, ReadingBackDoesNotDrainTheBio) {
    MemoryBIO bio;
    EXPECT_EQ(BIO_write(bio, "abc", 3), 3);
    EXPECT_EQ(readBack(bio), "abc");
    EXPECT_EQ(readThroughOpenSsl(bio), "abc");
}

TEST(MemoryBio, TheConstConversionDoesNotLookAtTheBio) {
    MemoryBIO bio;
    EXPECT_EQ(BIO_write(bio, "abc", 3), 3);
    const Buffer before = std::as_const(bio);
    EXPECT_EQ(textOf(before), "");
    EXPECT_EQ(readBack(bio), "abc");
    const Buffer after = std::as_const(bio);
    EXPECT_EQ(textOf(after), "abc");
}

TEST(MemoryBio, OverABufferItReadsAndConvertsToThoseBytes) {
    MemoryBIO bio(bufferOf("12345"));
    EXPECT_EQ(readThroughOpenSsl(bio), "12345");
    EXPECT_EQ(readBack(bio), "12345");
}

TEST(MemoryBio, OverABufferItIsReadOnly) {
    MemoryBIO bio(bufferOf("12345"));
    EXPECT_LE(BIO_write(bio, "6", 1), 0);
    ERR_clear_error();
    EXPECT_EQ(readBack(bio), "12345");
}

TEST(MemoryBio, OverAnEmptyBufferItIsThereAndEmpty) {
    MemoryBIO bio{Buffer()};
    EXPECT_NE(static_cast<BIO*>(bio), nullptr);
    EXPECT_EQ(readThroughOpenSsl(bio), "");
    EXPECT_EQ(readBack(bio), "");
    EXPECT_TRUE(norvtest::errorQueueIsEmpty());
}

TEST(MemoryBio, OwnsItsBytesWhateverBecomesOfTheBufferItWasBuiltOver) {
    std::string memory = "12345";
    MemoryBIO bio(Buffer(memory.data(), 5, true));
    memory = "xxxxx";
    EXPECT_EQ(readThroughOpenSsl(bio), "12345");
    EXPECT_EQ(readBack(bio), "12345");
}

TEST(MemoryBio, TheCacheOutlivesChangesOfTheBiosMemory) {
    MemoryBIO bio;
    BIO_write(bio, "abc", 3);
    readBack(bio);
    const std::string much(100000, 'x'); // makes the BIO move its memory
    BIO_write(bio, much.data(), static_cast<int>(much.size()));
    EXPECT_EQ(readBack(bio), "abc");
}

TEST(MemoryBio, KeepsBytesOfAnyValue) {
    MemoryBIO bio;
    EXPECT_EQ(BIO_write(bio, "a\0b", 3), 3);
    EXPECT_EQ(readBack(bio), std::string("a\0b", 3));
}

TEST(MemoryBio, ProtectionPassesToWhatIsReadBack) {
    MemoryBIO written;
    written.protect();
    BIO_write(written, "key", 3);
    const Buffer bytes = written;
    EXPECT_TRUE(bytes.isProtected());
    EXPECT_EQ(textOf(bytes), "key");

    Buffer secret = bufferOf("key");
    secret.protect();
    MemoryBIO over(secret);
    const Buffer copy = over;
    EXPECT_TRUE(copy.isProtected());

    MemoryBIO plain(bufferOf("text"));
    const Buffer open = plain;
    EXPECT_FALSE(open.isProtected());
}

TEST(MemoryBio, ProtectingKeepsABioOverABufferReadable) {
    MemoryBIO bio(bufferOf("12345"));
    bio.protect();
    EXPECT_EQ(readThroughOpenSsl(bio), "12345");
}

TEST(MemoryBio, WithoutABioThrowsWithoutADetailAndLeavesTheQueueAlone) {
    ERR_raise(ERR_LIB_BIO, BIO_R_NULL_PARAMETER);
    const auto thrown = [] {
        const During<bool> failing(norvtest::bioNewFails, true);
        return norvtest::thrownBy([] { const MemoryBIO bio; });
    }();
    norvtest::expectFailure(thrown, "Crypto::MemoryBIO", 4, "BIO");
    EXPECT_TRUE(thrown.parameters().empty());
    EXPECT_FALSE(thrown.hasCause());
    EXPECT_NE(ERR_peek_error(), 0U);
    ERR_clear_error();
}

TEST(MemoryBio, WithoutABioOverABufferThrowsWithTheErrorsAndEmptiesTheQueue) {
    const auto thrown = [] {
        const During<bool> failing(s_memBufFails, true);
        return norvtest::thrownBy([] { const MemoryBIO bio(bufferOf("12345")); });
    }();
    norvtest::expectFailure(thrown, "Crypto::MemoryBIO", 4, "BIO");
    EXPECT_EQ(norvtest::detailOf(thrown),
              "MemoryBIO:  0x1000007d: BIO routines / BIO_new_mem_buf / invalid argument; ");
    EXPECT_TRUE(norvtest::errorQueueIsEmpty());
}

TEST(MemoryBio, RefusesLengthsThatOpenSslWouldTakeForATextToMeasure) {
    // Nothing of the announced bytes is there: they must not even be copied.
    const Buffer announced("x", 0x80000000U, true);
    const auto thrown = norvtest::thrownBy([&] { const MemoryBIO bio(announced); });
    norvtest::expectFailure(thrown, "Crypto::MemoryBIO", 4, "BIO");
    EXPECT_EQ(norvtest::detailOf(thrown),
              "MemoryBIO:  0x1000007d: BIO routines / BIO_new_mem_buf / invalid argument; ");
    EXPECT_TRUE(norvtest::errorQueueIsEmpty());
}

TEST(MemoryBio, FreesItsBioExactlyOnce) {
    CountingFrees frees;
    const BIO* written = nullptr;
    const BIO* over = nullptr;
    {
        MemoryBIO one;
        MemoryBIO two(bufferOf("12345"));
        written = one;
        over = two;
        EXPECT_EQ(frees.total(), 0);
    }
    EXPECT_EQ(frees.of(written), 1);
    EXPECT_EQ(frees.of(over), 1);
    EXPECT_EQ(frees.total(), 2);
}

TEST(MemoryBio, IsABodyWhoseCountStartsAtOne) {
    const MemoryBIO bio;
    EXPECT_EQ(bio.referenceCount(), 1);
}

TEST_F(Files, ReadsAFile) {
    std::ofstream(path("file")) << "content";
    FileBIO bio(Norvane::File::Path(path("file")), "r");
    EXPECT_EQ(readThroughOpenSsl(bio), "content");
}

TEST_F(Files, WritesAFile) {
    {
        FileBIO bio(Norvane::File::Path(path("written")), "wb");
        EXPECT_EQ(BIO_write(bio, "content", 7), 7);
    }
    std::string content;
    std::ifstream(path("written")) >> content;
    EXPECT_EQ(content, "content");
}

TEST_F(Files, AMissingFileThrowsWithTheMemoryBiosPrefix) {
    const auto thrown = norvtest::thrownBy([&] { const FileBIO bio(Norvane::File::Path(path("missing")), "r"); });
    norvtest::expectFailure(thrown, "Crypto::FileBIO", 4, "BIO");
    EXPECT_EQ(norvtest::detailOf(thrown),
              "MemoryBIO:  0x80000002: system library / BIO_new_file / No such file or directory; "
              "0x10000080: BIO routines / BIO_new_file / no such file; ");
    EXPECT_TRUE(norvtest::errorQueueIsEmpty());
}

TEST_F(Files, APathWithAnEmbeddedNulOpensNoOtherFile) {
    std::ofstream(path("file")) << "content";
    const Norvane::File::Path cut(path("file") + std::string("\0.pem", 5));
    const auto thrown = norvtest::thrownBy([&] { const FileBIO bio(cut, "r"); });
    norvtest::expectFailure(thrown, "Crypto::FileBIO", 4, "BIO");
    EXPECT_EQ(norvtest::detailOf(thrown), "MemoryBIO:  0x1000007d: BIO routines / BIO_new_file / invalid argument; ");
    EXPECT_TRUE(norvtest::errorQueueIsEmpty());
}

TEST_F(Files, ABadModeThrows) {
    std::ofstream(path("file")) << "content";
    const auto thrown = norvtest::thrownBy([&] { const FileBIO bio(Norvane::File::Path(path("file")), "no mode"); });
    norvtest::expectFailure(thrown, "Crypto::FileBIO", 4, "BIO");
    EXPECT_TRUE(norvtest::detailOf(thrown).starts_with("MemoryBIO:  0x80000016: system library / "));
    EXPECT_TRUE(norvtest::errorQueueIsEmpty());
}

TEST_F(Files, AFileWithoutPermissionThrows) {
    std::ofstream(path("file")) << "content";
    chmod(path("file").c_str(), 0);
    const bool isRoot = geteuid() == 0; // who may open everything
    if (isRoot && seteuid(65534) != 0) {
        GTEST_SKIP() << "root, and cannot become anybody else";
    }
    const auto thrown = norvtest::thrownBy([&] { const FileBIO bio(Norvane::File::Path(path("file")), "r"); });
    if (isRoot) {
        ASSERT_EQ(seteuid(0), 0);
    }
    norvtest::expectFailure(thrown, "Crypto::FileBIO", 4, "BIO");
    EXPECT_TRUE(norvtest::detailOf(thrown).starts_with("MemoryBIO:  0x8000000d: system library / "));
}

TEST_F(Files, ADirectoryOpenedForWritingThrows) {
    const auto thrown = norvtest::thrownBy([&] { const FileBIO bio(Norvane::File::Path(path("")), "w"); });
    norvtest::expectFailure(thrown, "Crypto::FileBIO", 4, "BIO");
    EXPECT_TRUE(norvtest::detailOf(thrown).starts_with("MemoryBIO:  0x80000015: system library / "));
    EXPECT_TRUE(norvtest::errorQueueIsEmpty());
}

TEST(FileBio, AnEmptyPathGivesNoBioAndNoError) {
    CountingFrees frees;
    {
        FileBIO bio(Norvane::File::Path(""), "r");
        EXPECT_EQ(static_cast<BIO*>(bio), nullptr);
    }
    EXPECT_EQ(frees.total(), 0);
    EXPECT_TRUE(norvtest::errorQueueIsEmpty());
}

TEST_F(Files, TheBioIsFreedExactlyOnce) {
    std::ofstream(path("file")) << "content";
    CountingFrees frees;
    const BIO* opened = nullptr;
    {
        FileBIO bio(Norvane::File::Path(path("file")), "r");
        opened = bio;
    }
    EXPECT_EQ(frees.of(opened), 1);
    EXPECT_EQ(frees.total(), 1);
}

} // namespace
