// What a process and its child have in common after a fork, and what they must not have.

#include "support/Cms.h"
#include "support/TemporaryFolder.h"

#include <norvcmsg/File.h>
#include <norvcrypto/CMSEnvelopeWriter.h>
#include <norvcrypto/Crypto.h>
#include <norvcrypto/Encryption.h>
#include <norvcrypto/Hasher.h>

#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <set>
#include <string>
#include <utility>

namespace {

namespace CMS = Norvane::Crypto::CMS;
using Norvane::Crypto::Hasher;
using Norvane::Crypto::IntializationVectorGenerator;

/// What the work says in a child, which leaves without going through what its parent left on the stack.
std::string inChild(const std::function<std::string()>& work) {
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    const pid_t child = fork();
    if (child == 0) {
        const std::string text = work();
        _exit(::write(ends[1], text.data(), text.size()) == static_cast<ssize_t>(text.size()) ? 0 : 1);
    }
    close(ends[1]);
    std::string text;
    char piece[4096];
    for (ssize_t count = 0; (count = ::read(ends[0], piece, sizeof piece)) > 0;) {
        text.append(piece, static_cast<std::size_t>(count));
    }
    close(ends[0]);
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    return text;
}

std::string textOf(const Norvane::Buffer& buffer) {
    return {reinterpret_cast<const char*>(buffer.data()), buffer.length()};
}

std::string digestOfAbc() {
    Hasher hasher(Hasher::SHA256);
    hasher.update(reinterpret_cast<const unsigned char*>("abc"), 3);
    hasher.finalize();
    return textOf(hasher.digest());
}

std::string vector() {
    return textOf(IntializationVectorGenerator::generateIV(16));
}

/// An envelope of an empty body, which a writer that nobody used gives.
std::string ended(CMS::EnvelopeWriter& writer) {
    Norvane::MemoryMediaOut target;
    writer.attach(target);
    writer.end();
    return textOf(target.content());
}

CMS::EnvelopeWriter begun(const CMS::EnvelopeRecipient& recipient) {
    CMS::EnvelopeOptions options;
    options.cipher = CMS::ContentCipher::aes256Gcm;
    return CMS::EnvelopeWriter({recipient}, options);
}

// The first one: nothing has started in this process.
TEST(ForkTest, TheFirstStartMayBeInAChild) {
    const auto work = [] {
        Norvane::Crypto::initialize();
        return digestOfAbc() + vector();
    };
    const std::string first = inChild(work);
    const std::string second = inChild(work);
    const std::string own = work();
    ASSERT_EQ(first.size(), 48U);
    // FIPS 180-4, the digest of "abc"
    EXPECT_EQ(first.substr(0, 4), "\xba\x78\x16\xbf");
    EXPECT_EQ(second.substr(0, 32), first.substr(0, 32));
    EXPECT_EQ(own.substr(0, 32), first.substr(0, 32));
    const std::set<std::string> vectors{first.substr(32), second.substr(32), own.substr(32)};
    EXPECT_EQ(vectors.size(), 3U);
}

TEST(ForkTest, ParentAndChildHaveRandomNumbersOfTheirOwn) {
    Norvane::Crypto::initialize();
    std::set<std::string> vectors{vector()}; // the generator has a state from here on
    const auto work = [] { return vector() + vector(); };
    const std::string all = inChild(work) + inChild(work) + work();
    ASSERT_EQ(all.size(), 96U);
    for (std::size_t at = 0; at < all.size(); at += 16) {
        vectors.insert(all.substr(at, 16));
    }
    EXPECT_EQ(vectors.size(), 7U);
}

TEST(ForkTest, MessagesThatAreBegunAfterwardsHaveKeysOfTheirOwn) {
    Norvane::Crypto::initialize();
    const CMS::EnvelopeRecipient recipient(cmstest::certificateOf(cmstest::identities().rsa));
    CMS::EnvelopeWriter warm = begun(recipient);
    ended(warm);
    const auto work = [&] {
        CMS::EnvelopeWriter writer = begun(recipient);
        return ended(writer);
    };
    const std::string child = inChild(work);
    const std::string own = work();
    ASSERT_GT(child.size(), 40U);
    ASSERT_GT(own.size(), 40U);
    // The tag, which an empty body has for a content key and nonce, not the recipient, who is encrypted for at random.
    EXPECT_NE(child.substr(child.size() - 40), own.substr(own.size() - 40));
}

// Which is why a message is one process's.
TEST(ForkTest, AMessageThatWasBegunBeforeHasOneContentKeyInBothDeliberately) {
    Norvane::Crypto::initialize();
    CMS::EnvelopeWriter writer = begun(CMS::EnvelopeRecipient(cmstest::certificateOf(cmstest::identities().rsa)));
    const auto work = [&] { return ended(writer); };
    const std::string child = inChild(work);
    ASSERT_FALSE(child.empty());
    EXPECT_EQ(child, work());
}

TEST(ForkTest, WhatAFileCollectsIsWrittenOnce) {
    const norvtest::TemporaryFolder folder;
    const std::string path = folder.path("file");
    auto out = std::make_unique<Norvane::FileMediaOut>(Norvane::File::Path(path));
    (*out)->write(reinterpret_cast<const unsigned char*>("collected"), 9);
    inChild([&] {
        out.reset(); // a child that unwinds its stack, or ends by exit
        return std::string("let go");
    });
    (*out)->end();
    std::ifstream in(path, std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "collected");
}

// A child that goes on with a file is the one that writes it: its parent may have left already.
TEST(ForkTest, AChildGoesOnWithAFile) {
    const norvtest::TemporaryFolder folder;
    const std::string path = folder.path("file");
    inChild([&] {
        // Left as it is, as by a program that goes into the background.
        auto* const out = new Norvane::FileMediaOut(Norvane::File::Path(path));
        (*out)->write(reinterpret_cast<const unsigned char*>("one "), 4);
        return inChild([&] {
            (*out)->write(reinterpret_cast<const unsigned char*>("two"), 3);
            delete out;
            return std::string("let go");
        });
    });
    std::ifstream in(path, std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "one two");
}

} // namespace
