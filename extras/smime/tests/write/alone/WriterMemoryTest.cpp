// What a mail costs beside its streams, on its way out and back in: the same memory, however long it is.
#include "../Generated.h"
#include "../Writing.h"

#include <norvcmsg/SwapBufferMediaOut.h>
#include <norvcrypto-smime/SMimeReader.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <malloc.h>
#include <new>

namespace {

std::atomic<std::size_t> s_live{0};
std::atomic<std::size_t> s_most{0};

void* taken(void* memory) {
    if (memory != nullptr) {
        const std::size_t now = s_live += malloc_usable_size(memory);
        std::size_t most = s_most;
        while (now > most && !s_most.compare_exchange_weak(most, now)) {
        }
    }
    return memory;
}
void release(void* memory) {
    if (memory != nullptr) {
        s_live -= malloc_usable_size(memory);
        std::free(memory);
    }
}
void* countedMalloc(std::size_t length, const char* /*file*/, int /*line*/) {
    return taken(std::malloc(length));
}
void* countedRealloc(void* memory, std::size_t length, const char* /*file*/, int /*line*/) {
    const std::size_t before = memory == nullptr ? 0 : malloc_usable_size(memory);
    void* const moved = std::realloc(memory, length);
    if (moved != nullptr) {
        s_live -= before;
    }
    return taken(moved);
}
void countedFree(void* memory, const char* /*file*/, int /*line*/) {
    release(memory);
}

// Possible only before OpenSSL's first allocation.
const bool s_counting = CRYPTO_set_mem_functions(countedMalloc, countedRealloc, countedFree) == 1;

void* allocate(std::size_t length) {
    if (void* memory = std::malloc(length == 0 ? 1 : length)) {
        return taken(memory);
    }
    throw std::bad_alloc();
}

} // namespace

void* operator new(std::size_t length) {
    return allocate(length);
}
void* operator new[](std::size_t length) {
    return allocate(length);
}
void* operator new(std::size_t length, const std::nothrow_t& /*never throws*/) noexcept {
    return taken(std::malloc(length == 0 ? 1 : length)); // std::stable_sort
}
void operator delete(void* memory, const std::nothrow_t& /*never throws*/) noexcept {
    release(memory);
}
void operator delete(void* memory) noexcept {
    release(memory);
}
void operator delete[](void* memory) noexcept {
    release(memory);
}
void operator delete(void* memory, std::size_t /*length*/) noexcept {
    release(memory);
}
void operator delete[](void* memory, std::size_t /*length*/) noexcept {
    release(memory);
}

namespace {

using namespace smimetest;

/// The most memory that wrapping a mail of a length takes at any moment.
std::size_t mostFor(std::uint64_t length, bool returns, const std::vector<SMime::Wrapping>& shells) {
    NullMediaOut out;
    const MediaIn mail = generated(length, returns);
    const std::size_t before = s_live;
    s_most = before;
    SMime::wrap(mail, shells, out);
    return s_most - before;
}

TEST(SmimeWriterMemoryTest, IsTheSameForEveryLength) {
    ASSERT_TRUE(s_counting);
    for (const auto& shells :
         {std::vector<SMime::Wrapping>{signedBy({&person("alice")}), encryptedFor({&person("bob")})},
          std::vector<SMime::Wrapping>{opaquelySignedBy(person("alice"))}}) {
        for (const bool returns : {true, false}) {
            mostFor(1000, returns, shells); // what is made once
            const std::size_t little = mostFor(std::uint64_t{1} << 18U, returns, shells);
            const std::size_t much = mostFor(std::uint64_t{1} << 22U, returns, shells);
            EXPECT_GT(little, std::size_t{1} << 15U) << "something is not counted";
            EXPECT_LT(little, std::size_t{1} << 20U);
            EXPECT_LT(much, little + 4096);
        }
    }
}

/// The most that reading takes at any moment, and the answer.
std::pair<std::size_t, SMime::Answer> mostForReading(const SwapBufferMediaOut& mail, MediaOut& content,
                                                     SMime::ReadOptions options = {}) {
    const CMS::KeyListLookup keys({pairOf(person("bob"))});
    options.keys = &keys;
    const std::size_t before = s_live;
    s_most = before;
    SMime::Answer answer = SMime::read(mail.in(), content, options);
    return {s_most - before, answer};
}

TEST(SmimeWriterMemoryTest, AnAttachmentOfFiftyMegabytesGoesOutAndComesBack) {
    ASSERT_TRUE(s_counting);
    const std::string header = "Content-Type: application/octet-stream\r\nContent-Transfer-Encoding: base64\r\n\r\n";
    const std::string place = (std::filesystem::temp_directory_path() / "fifty-XXXXXX").string();
    for (const std::uint64_t length : {std::uint64_t{1} << 10U, std::uint64_t{50} << 20U}) {
        SwapBufferMediaOut mail(0x10000, place.c_str());
        const MediaIn in = generated(length, true);
        const std::size_t before = s_live;
        s_most = before;
        SMime::signAndEncrypt(in, signedBy({&person("alice")}), encryptedFor({&person("bob")}), mail);
        EXPECT_LT(s_most - before, std::size_t{1} << 20U);
        EXPECT_GT(mail.length(), length * 4 / 3); // base64 once more

        NullMediaOut content;
        const auto [most, answer] = mostForReading(mail, content);
        EXPECT_EQ(answer.verdict, SMime::Verdict::signatureGood) << answer.detail;
        ASSERT_EQ(answer.layers.size(), 2U);
        // All of it, lines of 63 letters with CRLF: what was signed fits.
        EXPECT_EQ(content.tell(), header.size() + length + length / 64);
        EXPECT_LT(most, std::size_t{1} << 20U);
    }
}

/// What is kept until it was found authentic, or its layer was read to its end, lies in files: each kind of layer within
/// another, with all that the answer can tell.
TEST(SmimeWriterMemoryTest, WhatHasToBeKeptIsNotKeptInMemory) {
    ASSERT_TRUE(s_counting);
    const std::string place = (std::filesystem::temp_directory_path() / "kept-XXXXXX").string();
    SMime::EncryptOptions authenticated = encryptedFor({&person("bob")});
    authenticated.cipher = CMS::ContentCipher::aes256Gcm;
    const std::vector<SMime::Wrapping> shells{opaquelySignedBy(person("alice")), authenticated,
                                              signedBy({&person("carol")})};
    SMime::ReadOptions keeping;
    keeping.keepSignatures = true;
    keeping.wholeMessage = true;
    keeping.listParts = true;
    keeping.explain = true;
    for (const SMime::ReadOptions& options : {SMime::ReadOptions(), keeping}) {
        std::vector<std::size_t> most;
        for (const std::uint64_t length : {std::uint64_t{1} << 10U, std::uint64_t{1} << 18U, std::uint64_t{1} << 22U}) {
            SwapBufferMediaOut mail(0x10000, place.c_str());
            SMime::wrap(generated(length, true), shells, mail);
            NullMediaOut content;
            const auto [taken, answer] = mostForReading(mail, content, options);
            EXPECT_EQ(answer.verdict, SMime::Verdict::signatureGood) << answer.detail;
            EXPECT_EQ(answer.layers.size(), 3U);
            EXPECT_GT(content.tell(), length);
            most.push_back(taken);
        }
        EXPECT_LT(most[1], std::size_t{1} << 20U);
        EXPECT_LT(most[2], most[1] + 4096);
    }
}

} // namespace
