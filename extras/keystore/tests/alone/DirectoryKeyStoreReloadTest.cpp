// Loading anew: what changes, what stays valid, and loads that fail half-way. This program stands in for the calls of
// the system, to make them fail or to change the store while it is read.

#include "../Store.h"
#include "support/Interpose.h"
#include "support/LaterClock.h"
#include "support/Thrown.h"

#include <norvcrypto/CMSSignerMedia.h>

#include <dirent.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <ctime>
#include <functional>
#include <thread>

namespace {

std::function<int(const char*)> s_onOpen;          ///< answers the error to fail with, or 0
std::function<bool(const std::string&)> s_onEntry; ///< whether a listing tells a name
int s_readError = 0;
int s_interruptions = 0; ///< of reading
int s_listError = 0;
long s_sizeError = 0;

} // namespace

extern "C" int openat(int folder, const char* name, int flags, ...) {
    const int error = s_onOpen ? s_onOpen(name) : 0;
    if (error != 0) {
        errno = error;
        return -1;
    }
    return norvtest::next<&openat>("openat")(folder, name, flags);
}

extern "C" ssize_t read(int file, void* out, std::size_t length) {
    if (s_interruptions > 0) {
        --s_interruptions;
        errno = EINTR;
        return -1;
    }
    if (s_readError != 0) {
        errno = s_readError;
        return -1;
    }
    return norvtest::next<&read>("read")(file, out, length);
}

extern "C" dirent* readdir(DIR* folder) {
    if (s_listError != 0) {
        errno = s_listError;
        return nullptr;
    }
    const int before = errno; // which tells the end from a failure
    dirent* entry = nullptr;
    bool told = true;
    do {
        errno = before;
        entry = norvtest::next<&readdir>("readdir")(folder);
        told = entry == nullptr || !s_onEntry || s_onEntry(entry->d_name);
    } while (!told);
    return entry;
}

extern "C" int fstat(int file, struct stat* status) {
    const int result = norvtest::next<&fstat>("fstat")(file, status);
    if (S_ISREG(status->st_mode)) {
        status->st_size += s_sizeError;
    }
    return result;
}

namespace {

using namespace keystoretesting;
using norvtest::detailOf;
using norvtest::During;
using norvtest::thrownBy;
using testing::ElementsAre;
using testing::IsEmpty;

class DirectoryKeyStoreReloadTest : public DirectoryKeyStoreTest {
protected:
    /// While it lives, what is read was always just written, and is read again: however long the machine takes from one to the other.
    struct JustWritten {
        const During<std::time_t> earlier{norvtest::secondsAhead, -60};
    };

    void TearDown() override {
        s_onOpen = nullptr;
        s_onEntry = nullptr;
        DirectoryKeyStoreTest::TearDown();
    }
    /// The reason for which a reload fails; the store still serves "a" afterwards.
    static std::string reloadFailure(const RefDirectoryKeyStore& store) {
        const auto before = store->contents();
        const auto thrown = thrownBy([&] { store->reload(); });
        norvtest::expectFailure(thrown, "DirectoryKeyStore::reload", 4, "DirectoryKeyStore");
        s_onOpen = nullptr;
        EXPECT_EQ(store->contents(), before);
        EXPECT_EQ(signerFor(store, "x@a.example"), "a");
        const auto& detail = detailOf(thrown);
        return detail.substr(detail.rfind("/: ") + 3);
    }
};

TEST_F(DirectoryKeyStoreReloadTest, SeesWhatCameWentAndChanged) {
    m_store.add("a", "*@a.example\n");
    m_store.add("b", "*@b.example\n");
    const auto store = open(Reading::ahead);
    m_store.remove("a");
    m_store.add("b", "*@bb.example\n");
    m_store.add("c", "*@c.example\n");
    EXPECT_EQ(signerFor(store, "x@a.example"), "a");
    EXPECT_EQ(signerFor(store, "x@c.example"), "nobody");
    store->reload();
    EXPECT_EQ(signerFor(store, "x@a.example"), "nobody");
    EXPECT_EQ(signerFor(store, "x@b.example"), "nobody");
    EXPECT_EQ(signerFor(store, "x@bb.example"), "b");
    EXPECT_EQ(signerFor(store, "x@c.example"), "c");
    EXPECT_THAT(foldersOf(store), ElementsAre("b", "c"));
}

TEST_F(DirectoryKeyStoreReloadTest, ProblemsAreThoseOfTheLastLoad) {
    m_store.folder("a");
    const auto store = open();
    EXPECT_THAT(problemsOf(store), ElementsAre("a/cert.pem: is missing"));
    m_store.add("a", "*@a.example\n");
    store->reload();
    EXPECT_THAT(problemsOf(store), IsEmpty());
}

TEST_F(DirectoryKeyStoreReloadTest, WhatWasHandedOutStaysValid) {
    m_store.add("a", "*@a.example\n");
    auto store = open();
    const auto pair = store->findSigningKey(address("x@a.example"));
    const auto explanation = store->explain(address("x@a.example"), DirectoryKeyStore::Purpose::signing);
    m_store.remove("a");
    store->reload();
    store = RefDirectoryKeyStore();
    sign(pair);
    ASSERT_EQ(explanation.matches.size(), 1U);
    EXPECT_EQ(explanation.contents->identities.at(explanation.matches[0].place.identity).folder, "a");
}

TEST_F(DirectoryKeyStoreReloadTest, ALinkToTheStoreIsFollowedAnewByEachLoad) {
    m_store.add(".1/a", "*@a.example\n", identity("old"));
    m_store.add(".2/a", "*@a.example\n", identity("new"));
    std::filesystem::create_directory_symlink(".1", m_store.path(".now"));
    const RefDirectoryKeyStore store(m_store.path(".now"));
    EXPECT_EQ(signerFor(store, "x@a.example"), "old");
    std::filesystem::create_directory_symlink(".2", m_store.path(".next"));
    std::filesystem::rename(m_store.path(".next"), m_store.path(".now"));
    store->reload();
    EXPECT_EQ(signerFor(store, "x@a.example"), "new");
}

TEST_F(DirectoryKeyStoreReloadTest, WhenItFailsAsAWholeTheOldContentServesOn) {
    m_store.add("a", "*@a.example\n");
    const auto store = open(Reading::ahead);
    m_store.folder(".", 0777);
    EXPECT_EQ(reloadFailure(store), "everybody may write it (mode 0777); chmod o-w takes that away");
    m_store.remove("");
    EXPECT_EQ(reloadFailure(store), "cannot be opened: No such file or directory");
    m_store.folder(".");
    store->reload();
    EXPECT_EQ(signerFor(store, "x@a.example"), "nobody");
}

// Going on would take every identity away that nothing is wrong with.
TEST_F(DirectoryKeyStoreReloadTest, WhenDescriptorsOrMemoryRunOutItFailsAsAWhole) {
    const JustWritten justWritten;
    m_store.add("a", "*@a.example\n");
    const auto store = open(Reading::ahead);
    for (const int error : {EMFILE, ENFILE, ENOMEM}) {
        const auto reason = std::generic_category().message(error);
        s_onOpen = [error](const char* name) { return std::string(name) == "key.pem" ? error : 0; };
        EXPECT_EQ(reloadFailure(store), "cannot be opened: " + reason);
        s_onOpen = [error](const char* name) { return std::string(name) == "." ? error : 0; };
        EXPECT_EQ(reloadFailure(store), "cannot be listed: " + reason);
    }
}

TEST_F(DirectoryKeyStoreReloadTest, WhenTheDirectoryCannotBeListedToItsEndItFailsAsAWhole) {
    m_store.add("a", "*@a.example\n");
    const auto store = open();
    const During<int> failing(s_listError, EIO);
    EXPECT_EQ(reloadFailure(store), "cannot be listed: Input/output error");
}

// The new folder comes where the listing was already, and the old one goes before the listing comes to it.
TEST_F(DirectoryKeyStoreReloadTest, AFolderThatTakesThePlaceOfAnotherDuringTheListingIsNotMissed) {
    const auto who = identity("a");
    m_store.add("a", "*@a.example\n", who);
    int changes = 0;
    s_onEntry = [&](const std::string& name) {
        if (name != "a") {
            return true;
        }
        ++changes;
        m_store.add("b", "*@a.example\n", who);
        m_store.remove("a");
        return false;
    };
    const auto store = open();
    EXPECT_EQ(changes, 1);
    EXPECT_THAT(foldersOf(store), ElementsAre("b"));
    EXPECT_EQ(signerFor(store, "x@a.example"), "a");
}

TEST_F(DirectoryKeyStoreReloadTest, ADirectoryThatGrowsAllTheTimeIsListedFourTimes) {
    m_store.add("a", "*@a.example\n");
    int listings = 0;
    s_onEntry = [&](const std::string& name) {
        if (name == "a") {
            m_store.folder("new" + std::to_string(++listings));
        }
        return true;
    };
    const auto store = open();
    EXPECT_EQ(listings, 4);
    EXPECT_EQ(signerFor(store, "x@a.example"), "a");
}

// What changes within the resolution of the file system's clock leaves no other trace.
TEST_F(DirectoryKeyStoreReloadTest, ADirectoryThatWasJustChangedIsListedUntilTwoListingsAreTheSame) {
    const JustWritten justWritten;
    int listings = 0;
    int hidden = 0; // listings that do not tell "b"
    s_onEntry = [&](const std::string& name) {
        listings += name == "." ? 1 : 0;
        if (name == "b" && hidden > 0) {
            --hidden;
            return false;
        }
        return true;
    };
    m_store.folder(".");
    const auto store = open();
    EXPECT_EQ(listings, 2) << "of a store without anybody, too";
    m_store.add("a", "*@a.example\n");
    m_store.add("b", "*@b.example\n");
    listings = 0;
    store->reload();
    EXPECT_EQ(listings, 2);
    listings = 0;
    hidden = 1;
    store->reload();
    EXPECT_EQ(listings, 3);
    EXPECT_THAT(foldersOf(store), ElementsAre("a", "b"));
}

TEST_F(DirectoryKeyStoreReloadTest, AFileThatCannotBeReadToItsEndIsReported) {
    const JustWritten justWritten;
    m_store.add("a", "*@a.example\n");
    const auto store = open(Reading::ahead);
    {
        const During<int> failing(s_readError, EIO);
        store->reload();
    }
    EXPECT_THAT(problemsOf(store), ElementsAre("a/cert.pem: cannot be read: Input/output error"));
}

TEST_F(DirectoryKeyStoreReloadTest, ReadingThatASignalInterruptsGoesOn) {
    m_store.add("a", "*@a.example\n");
    s_interruptions = 3;
    const auto store = open();
    EXPECT_EQ(s_interruptions, 0);
    EXPECT_THAT(problemsOf(store), IsEmpty());
}

TEST_F(DirectoryKeyStoreReloadTest, AFileThatGrowsOrShrinksWhileItIsReadIsReported) {
    const JustWritten justWritten;
    m_store.add("a", "*@a.example\n");
    const auto store = open(Reading::ahead);
    for (const long difference : {1L, -1L}) {
        const During<long> changing(s_sizeError, difference);
        store->reload();
        EXPECT_THAT(problemsOf(store), ElementsAre("a/cert.pem: changed while it was read"));
    }
}

TEST_F(DirectoryKeyStoreReloadTest, FoldersAndFilesThatVanishDuringTheLoadAreReportedAndTheOthersServe) {
    const JustWritten justWritten;
    for (const char* name : {"a", "b", "c"}) {
        m_store.add(name, "*@" + std::string(name) + ".example\n");
    }
    const auto store = open(Reading::ahead);
    s_onOpen = [this](const char* name) {
        if (std::string(name) == "a") { // between the listing and the reading
            m_store.remove("b");
            m_store.remove("c/cert.pem");
        }
        return 0;
    };
    store->reload();
    EXPECT_THAT(problemsOf(store),
                ElementsAre("b: cannot be opened: No such file or directory", "c/cert.pem: is missing"));
    EXPECT_EQ(signerFor(store, "x@a.example"), "a");
}

// Or one that began earlier could end later, and take the newer content away.
TEST_F(DirectoryKeyStoreReloadTest, OfSeveralReloadsOneRunsAtATime) {
    m_store.add("a", "*@a.example\n");
    const auto store = open();
    std::atomic<int> running{0};
    std::atomic<bool> together{false};
    s_onOpen = [&](const char* name) {
        if (std::string(name) == "a") {
            together = ++running > 1 || together;
            for (int turn = 0; turn < 1000; ++turn) {
                std::this_thread::yield();
            }
            --running;
        }
        return 0;
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] { store->reload(); });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_FALSE(together);
    EXPECT_EQ(signerFor(store, "x@a.example"), "a");
}

TEST_F(DirectoryKeyStoreReloadTest, ValidityIsJudgedWhenALookUpComes) {
    using norvauthority::Time;
    m_store.add("a", "*\n", identity("a", {.notAfter = Time::fromNow(1000)}));
    m_store.add("b", "*\n", identity("b", {.notBefore = Time::fromNow(1000)}));
    const auto store = open();
    EXPECT_EQ(signerFor(store, "x@a.example"), "a");
    const During<std::time_t> later(norvtest::secondsAhead, 2000);
    EXPECT_EQ(signerFor(store, "x@a.example"), "b");
}

TEST_F(DirectoryKeyStoreReloadTest, TheFirstMomentIsInsideAndTheLastIsNot) {
    using norvauthority::Time;
    constexpr std::time_t start = 4102444800; // 2100
    m_store.add("a", "*\n", identity("a", {.notBefore = Time::at(start), .notAfter = Time::at(start + 10)}));
    const auto store = open();
    const auto fitnessAt = [&](std::time_t moment) {
        const During<std::time_t> later(norvtest::secondsAhead, moment - time(nullptr));
        return store->explain(address("x@a.example"), DirectoryKeyStore::Purpose::signing).matches.at(0).fitness;
    };
    EXPECT_EQ(fitnessAt(start - 5), DirectoryKeyStore::Fitness::outOfValidity);
    EXPECT_EQ(fitnessAt(start + 5), DirectoryKeyStore::Fitness::fit);
    EXPECT_EQ(fitnessAt(start + 10), DirectoryKeyStore::Fitness::outOfValidity);
}

TEST_F(DirectoryKeyStoreReloadTest, ABoundThatIsNoTimeDoesNotBound) {
    using norvauthority::Time;
    m_store.add("a", "*\n", identity("a", {.notBefore = Time::utc("no time"), .notAfter = Time::generalized("x")}));
    EXPECT_THAT(explained(open(), "x@a.example", DirectoryKeyStore::Purpose::signing), ElementsAre("a: *: fit *"));
}

} // namespace
