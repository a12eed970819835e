// What opening, look-ups and reloads of large stores read and decode, counted; and stores that change or are meant to hurt while
// they are read. This program stands in for the calls of the system and of OpenSSL.

#include "../Store.h"
#include "support/Interpose.h"
#include "support/LaterClock.h"
#include "support/Thrown.h"

#include <norvcmsg/Logger.h>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <openssl/x509.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <ctime>
#include <functional>
#include <map>
#include <mutex>

namespace {

std::mutex s_mutex;
std::map<std::string, int> s_opened; ///< by the last part of the name
int s_reads = 0;
std::atomic<int> s_decoded{0};
int s_statError = 0;    ///< of keys
int s_commonFlags = -1; ///< with which everything was opened
int s_folderFlags = -1; ///< with which the folder x was
std::function<void(const std::string&)> s_onOpen;

} // namespace

extern "C" int openat(int folder, const char* name, int flags, ...) {
    const std::string whole = name;
    {
        const std::lock_guard<std::mutex> lock(s_mutex);
        ++s_opened[whole.substr(whole.rfind('/') + 1)];
        s_commonFlags &= whole == "." ? ~0 : flags;
        s_folderFlags &= whole == "x" ? flags : ~0;
    }
    if (s_onOpen) {
        s_onOpen(whole);
    }
    return norvtest::next<&openat>("openat")(folder, name, flags);
}

extern "C" int fstatat(int folder, const char* name, struct stat* status, int flags) {
    if (s_statError != 0 && std::string(name).ends_with("key.pem")) {
        errno = s_statError;
        return -1;
    }
    return norvtest::next<&fstatat>("fstatat")(folder, name, status, flags);
}

extern "C" ssize_t read(int file, void* out, std::size_t length) {
    ++s_reads;
    return norvtest::next<&read>("read")(file, out, length);
}

extern "C" X509* d2i_X509(X509** out, const unsigned char** in, long length) {
    ++s_decoded;
    return norvtest::next<&d2i_X509>("d2i_X509")(out, in, length);
}

namespace {

using namespace keystoretesting;
using norvtest::detailOf;
using norvtest::During;
using norvtest::thrownBy;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::UnorderedElementsAre;
using Counts = std::map<std::string, int>;
using Purpose = DirectoryKeyStore::Purpose;

class DirectoryKeyStoreWorkTest : public DirectoryKeyStoreTest {
protected:
    void TearDown() override {
        s_onOpen = nullptr;
        DirectoryKeyStoreTest::TearDown();
    }

    static bool isFile(const std::string& name) {
        const auto files = {"owners.txt", "cert.pem", "chain.pem", "passphrase", "key.pem"};
        return std::find(files.begin(), files.end(), name) != files.end();
    }
    /// The files that `work` opens, by name; without folders.
    template <class Work> Counts openedBy(Work work) {
        s_opened.clear();
        s_reads = 0;
        s_decoded = 0;
        work();
        Counts files = s_opened;
        for (auto one = files.begin(); one != files.end();) {
            one = isFile(one->first) ? std::next(one) : files.erase(one);
        }
        return files;
    }

    /// p0 to p39, each with an address and a serial number of its own under one authority, and a key identifier.
    void addPeople() {
        const auto root = identity("root");
        for (int i = 0; i < people; ++i) {
            const std::string number = std::to_string(i);
            CertificateRequest request{.issuer = &root};
            request.subjectKeyIdentifierValue = {0x77, static_cast<unsigned char>(i)};
            m_store.add("p" + number, "p" + number + "@example.com\n", identity("p" + number, request));
        }
    }

    static constexpr int people = 40;
    /// As if all files had been written long ago.
    const During<std::time_t> m_later{norvtest::secondsAhead, 100};
};

TEST_F(DirectoryKeyStoreWorkTest, OpeningReadsThePatternsAlone) {
    addPeople();
    EXPECT_THAT(openedBy([&] { static_cast<void>(open()); }), ElementsAre(Pair("owners.txt", people)));
    EXPECT_EQ(s_reads, people);
    EXPECT_EQ(s_decoded, 0);
}

// Whoever may write a folder could put any pattern in it.
TEST_F(DirectoryKeyStoreWorkTest, NothingIsReadOfAFolderThatEverybodyMayWrite) {
    m_store.add("x", "x@example.com\n");
    m_store.folder("x", 0777);
    EXPECT_THAT(openedBy([&] { EXPECT_EQ(signerFor(open(), "x@example.com"), "nobody"); }), IsEmpty());
}

TEST_F(DirectoryKeyStoreWorkTest, SigningReadsOneIdentityAndOnce) {
    addPeople();
    const auto store = open();
    const auto sign = [&] { EXPECT_EQ(signerFor(store, "p7@example.com"), "p7"); };
    EXPECT_THAT(openedBy(sign), UnorderedElementsAre(Pair("cert.pem", 1), Pair("chain.pem", 1), Pair("passphrase", 1),
                                                     Pair("key.pem", 1)));
    EXPECT_EQ(s_decoded, 1);
    EXPECT_THAT(openedBy(sign), IsEmpty());
    EXPECT_EQ(s_decoded, 0);
}

TEST_F(DirectoryKeyStoreWorkTest, EncryptionReadsTheCertificateAlone) {
    addPeople();
    const auto store = open();
    EXPECT_THAT(openedBy([&] { EXPECT_EQ(recipientFor(store, "p7@example.com"), "p7"); }),
                ElementsAre(Pair("cert.pem", 1)));
    EXPECT_THAT(openedBy([&] {
                    const auto found = store->search(address("p7@example.com"), Purpose::encryption);
                    ASSERT_TRUE(found);
                    EXPECT_EQ(found->folder, "p7");
                    EXPECT_TRUE(found->isValid);
                    EXPECT_TRUE(found->pair->key.isNull());
                }),
                IsEmpty());
}

TEST_F(DirectoryKeyStoreWorkTest, AnIdentityThatIsNotFitOrBeatenCostsNoKey) {
    m_store.add("a", "*@example.com\n", identity("a", {.keyUsage = 0x20}));
    m_store.add("b", "anna@example.com\n", identity("b"));
    const auto store = open();
    EXPECT_EQ(openedBy([&] { EXPECT_EQ(signerFor(store, "anna@example.com"), "b"); })["key.pem"], 1);
    EXPECT_EQ(openedBy([&] { EXPECT_EQ(signerFor(store, "bert@example.com"), "nobody"); })["key.pem"], 0);
}

// For the first message each certificate is read, and not decoded; for the next nothing is.
TEST_F(DirectoryKeyStoreWorkTest, NamesOfRecipientsAreFoundWithoutDecodingTheOtherCertificates) {
    addPeople();
    m_store.add("partner", "*@partner.example\n", identity("partner"), false);
    const auto names = open()->contents()->identities;
    const auto store = open();
    const auto find = [&](std::size_t at) {
        const auto& certificate = names.at(at).certificate;
        EXPECT_EQ(who(store->find(certificate->issuer(), certificate->serialNumber())), names.at(at).folder);
    };
    EXPECT_THAT(openedBy([&] { find(11); }), UnorderedElementsAre(Pair("cert.pem", people + 1), Pair("chain.pem", 1),
                                                                  Pair("passphrase", 1), Pair("key.pem", 1)));
    EXPECT_EQ(s_decoded, 1);
    EXPECT_EQ(openedBy([&] { find(12); })["cert.pem"], 1);
    EXPECT_EQ(s_decoded, 1);
    openedBy([&] {
        const unsigned char identifier[] = {0x77, 30};
        const auto found = store->searchKeyIdentifier(Norvane::Buffer(identifier, sizeof identifier, false));
        ASSERT_TRUE(found);
        EXPECT_EQ(found->folder, "p30");
        EXPECT_FALSE(found->pair->key.isNull());
        const unsigned char other[] = {0x77, people};
        EXPECT_FALSE(store->searchKeyIdentifier(Norvane::Buffer(other, sizeof other, false)));
    });
    EXPECT_EQ(s_decoded, 1);
}

// Numbers are each authority's own.
TEST_F(DirectoryKeyStoreWorkTest, OfOneSerialNumberOnlyTheOneOfTheIssuerIsDecoded) {
    std::vector<norvauthority::Identity> all;
    for (const char* name : {"a", "b", "c", "d", "e"}) {
        all.push_back(identity(name, {.serial = "77", .ca = true})); // signed by itself, with a critical extension
        m_store.add(name, "", all.back());
    }
    const auto certificate = x509testing::read(all.back());
    const auto store = open();
    openedBy([&] { EXPECT_EQ(who(store->find(certificate->issuer(), certificate->serialNumber())), "e"); });
    EXPECT_EQ(s_decoded, 1);
}

// A link that somebody puts in the place of what was listed is not followed, and no program that is started meanwhile gets a file.
TEST_F(DirectoryKeyStoreWorkTest, NothingIsOpenedThroughALinkOrForOtherPrograms) {
    const auto who = identity("x");
    m_store.add("x", "x@example.com\n", who);
    const auto certificate = x509testing::read(who);
    s_commonFlags = s_folderFlags = -1;
    openedBy([&] {
        const auto store = open();
        EXPECT_EQ(keystoretesting::who(store->find(certificate->issuer(), certificate->serialNumber())), "x");
    });
    EXPECT_NE(s_commonFlags, -1);
    EXPECT_EQ(s_commonFlags & O_NOFOLLOW, O_NOFOLLOW);
    EXPECT_EQ(s_commonFlags & O_CLOEXEC, O_CLOEXEC);
    EXPECT_NE(s_folderFlags, -1);
    EXPECT_EQ(s_folderFlags & O_DIRECTORY, O_DIRECTORY);
}

// A daemon may have closed its standard input: descriptor 0 is one like any other.
TEST_F(DirectoryKeyStoreWorkTest, DescriptorZeroIsOneLikeAnyOther) {
    m_store.add("x", "x@example.com\n");
    const auto withoutInput = [](const auto& work) {
        const int kept = dup(0);
        close(0);
        work();
        if (kept >= 0) {
            dup2(kept, 0);
            close(kept);
        }
    };
    withoutInput([&] { EXPECT_EQ(signerFor(open(), "x@example.com"), "x"); }); // the store
    const auto first = open();
    withoutInput([&] { EXPECT_EQ(signerFor(first, "x@example.com"), "x"); }); // a folder in it
    withoutInput([&] {                                                        // a file
        s_onOpen = [](const std::string& name) {
            if (name == "x/owners.txt") {
                close(0);
            }
        };
        EXPECT_EQ(dup2(1, 0), 0);
        EXPECT_EQ(signerFor(open(), "x@example.com"), "x");
    });
}

TEST_F(DirectoryKeyStoreWorkTest, CertificatesAreReadWithoutKeys) {
    addPeople();
    const auto authority = identity("authority");
    m_store.file("p3/chain.pem", authority.certificate.pem());
    m_store.add("partner", "*@partner.example\n", identity("partner"), false);
    // A key that nobody can open, and one of somebody else, take no certificate away; a folder that is refused does.
    m_store.file("p4/key.pem", "no key\n");
    m_store.file("p5/key.pem", norvtest::storedKeyPem("bob"));
    m_store.folder("p6", 0777);
    const auto store = open();
    std::vector<std::string> names;
    const Counts files = openedBy([&] {
        for (const auto& certificate : store->certificates()) {
            names.push_back(who(certificate));
        }
    });
    EXPECT_THAT(files, UnorderedElementsAre(Pair("cert.pem", people), Pair("chain.pem", people)));
    ASSERT_EQ(names.size(), static_cast<std::size_t>(people) + 1); // p6 is not used, partner is
    EXPECT_EQ(names.front(), "p0");
    EXPECT_EQ(names.at(names.size() - 2), "partner");
    EXPECT_EQ(names.back(), "authority"); // behind all others
    EXPECT_EQ(std::count(names.begin(), names.end(), "p6"), 0);
    EXPECT_EQ(std::count(names.begin(), names.end(), "p4"), 1);
    EXPECT_EQ(std::count(names.begin(), names.end(), "p5"), 1);
    EXPECT_EQ(openedBy([&] { EXPECT_EQ(signerFor(store, "p7@example.com"), "p7"); })["key.pem"], 1);
}

TEST_F(DirectoryKeyStoreWorkTest, AReloadReadsWhatChangedAlone) {
    addPeople();
    const auto store = open();
    const auto seven = store->findSigningKey(address("p7@example.com"));
    EXPECT_EQ(recipientFor(store, "p8@example.com"), "p8");
    EXPECT_THAT(openedBy([&] { store->reload(); }), IsEmpty());
    EXPECT_EQ(s_reads, 0);
    EXPECT_THAT(openedBy([&] { EXPECT_EQ(store->findSigningKey(address("p7@example.com")), seven); }), IsEmpty());
    EXPECT_THAT(openedBy([&] { EXPECT_EQ(recipientFor(store, "p8@example.com"), "p8"); }), IsEmpty());

    m_store.add("p9", "nine@example.com\n");
    m_store.add("new", "new@example.com\n");
    m_store.remove("p10");
    norvtest::secondsAhead += 1000;
    EXPECT_THAT(openedBy([&] { store->reload(); }), ElementsAre(Pair("owners.txt", 2)));
    EXPECT_EQ(signerFor(store, "nine@example.com"), "p9");
    EXPECT_EQ(signerFor(store, "new@example.com"), "new");
    EXPECT_EQ(signerFor(store, "p10@example.com"), "nobody");
    EXPECT_EQ(store->findSigningKey(address("p7@example.com")), seven);
}

// Each of the files by itself, written in place or anew.
TEST_F(DirectoryKeyStoreWorkTest, AReloadSeesEveryFileThatChanges) {
    const auto first = identity("first");
    m_store.add("x", "x@example.com\n", first);
    m_store.file("x/chain.pem", identity("Root").certificate.pem());
    const auto store = open();
    const auto chainOf = [&] { return store->findSigningKey(address("x@example.com"))->chain; };
    EXPECT_EQ(who(chainOf().front()), "Root");
    const auto reload = [&] {
        norvtest::secondsAhead += 1000;
        store->reload();
    };
    long moment = 0;
    const auto write = [&](const std::string& name, const std::string& content) {
        m_store.file(name, content);
        const timespec time{.tv_sec = ++moment, .tv_nsec = 0}; // whatever the file system's clock counts by
        const timespec times[] = {time, time};
        ASSERT_EQ(utimensat(AT_FDCWD, m_store.path(name).c_str(), times, 0), 0);
    };
    write("x/chain.pem", identity("Other").certificate.pem());
    EXPECT_EQ(who(chainOf().front()), "Root") << "before the reload";
    reload();
    EXPECT_EQ(who(chainOf().front()), "Other");
    m_store.remove("x/chain.pem");
    reload();
    EXPECT_THAT(chainOf(), IsEmpty());
    write("x/cert.pem", identity("second").certificate.pem());
    reload();
    EXPECT_EQ(signerFor(store, "x@example.com"), "second");
    write("x/key.pem", sharedKey().encryptedPem("open sesame"));
    reload();
    EXPECT_EQ(signerFor(store, "x@example.com"), "nobody");
    write("x/passphrase", "open sesame");
    reload();
    EXPECT_EQ(signerFor(store, "x@example.com"), "second");
    write("x/passphrase", "open sesamE");
    reload();
    EXPECT_EQ(signerFor(store, "x@example.com"), "nobody");
    write("x/passphrase", "open sesame");
    chmod(m_store.path("x/passphrase").c_str(), 0644);
    reload();
    EXPECT_EQ(signerFor(store, "x@example.com"), "nobody") << "the mode counts too";
    chmod(m_store.path("x/passphrase").c_str(), 0600);
    reload();
    EXPECT_EQ(signerFor(store, "x@example.com"), "second");
    write("x/owners.txt", "y@example.com\n");
    reload();
    EXPECT_EQ(signerFor(store, "y@example.com"), "second");
    EXPECT_EQ(signerFor(store, "x@example.com"), "nobody");
}

// The index was made from one certificate and the look-up by address read the next one, in the same file.
TEST_F(DirectoryKeyStoreWorkTest, NamesThatWereReadBeforeTheCertificateAreReadAgainByAReload) {
    const auto old = identity("old");
    const auto renewed = identity("renewed");
    m_store.add("x", "x@example.com\n", old);
    const auto store = open();
    const auto named = [&](const norvauthority::Identity& whose) {
        const auto certificate = x509testing::read(whose);
        return who(store->find(certificate->issuer(), certificate->serialNumber()));
    };
    EXPECT_EQ(named(renewed), "nobody");
    m_store.file("x/cert.pem", renewed.certificate.pem());
    const timespec times[] = {{.tv_sec = 1, .tv_nsec = 0}, {.tv_sec = 1, .tv_nsec = 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, m_store.path("x/cert.pem").c_str(), times, 0), 0);
    EXPECT_EQ(recipientFor(store, "x@example.com"), "renewed");
    norvtest::secondsAhead += 1000;
    store->reload();
    EXPECT_EQ(named(renewed), "renewed");
    EXPECT_EQ(named(old), "nobody");
}

TEST_F(DirectoryKeyStoreWorkTest, AKeyThatCannotBeExaminedForAMomentIsNotTakenForNone) {
    const auto whose = identity("x");
    m_store.add("x", "x@example.com\n", whose);
    const auto store = open();
    const auto certificate = x509testing::read(whose);
    const auto found = [&] { return who(store->find(certificate->issuer(), certificate->serialNumber())); };
    {
        const During<int> failing(s_statError, EIO);
        EXPECT_EQ(found(), "x");
    }
    store->reload();
    EXPECT_EQ(found(), "x");
}

// A second change in the same tick of the file system's clock leaves the times as they are.
TEST_F(DirectoryKeyStoreWorkTest, WhatWasWrittenJustBeforeItWasReadIsReadAgain) {
    const During<std::time_t> now(norvtest::secondsAhead, -60); // however long the machine takes in between
    m_store.add("x", "x@example.com\n");
    const auto store = open();
    EXPECT_EQ(signerFor(store, "x@example.com"), "x");
    EXPECT_THAT(openedBy([&] { store->reload(); }), ElementsAre(Pair("owners.txt", 1)));
}

TEST_F(DirectoryKeyStoreWorkTest, WhatCouldNotBeUsedIsReadAgainByAReloadAndLoggedOnceByEach) {
    m_store.add("x", "x@example.com\n");
    chmod(m_store.path("x/key.pem").c_str(), 0644);
    const auto store = open();
    auto sink = std::make_shared<Norvane::RecordingLogSink>();
    Norvane::Logger::instance(false).sink(sink);
    EXPECT_THAT(problemsOf(store), testing::SizeIs(1)) << "whoever asks for the problems is told them";
    EXPECT_THAT(sink->records(), IsEmpty());
    EXPECT_EQ(signerFor(store, "x@example.com"), "nobody");
    EXPECT_EQ(signerFor(store, "x@example.com"), "nobody");
    ASSERT_EQ(sink->records().size(), 1U);
    EXPECT_EQ(sink->records()[0].event, 0x3000062U);
    EXPECT_THAT(
        sink->records()[0].fields,
        ElementsAre("x", "key.pem", "others than its owner may use it (mode 0644); chmod 600 makes it private"));
    EXPECT_THAT(openedBy([&] { store->reload(); }), IsEmpty());
    EXPECT_EQ(openedBy([&] { EXPECT_EQ(signerFor(store, "x@example.com"), "nobody"); })["key.pem"], 1);
    EXPECT_EQ(sink->records().size(), 2U);
    Norvane::Logger::instance(false).sink(nullptr);
}

TEST_F(DirectoryKeyStoreWorkTest, ACertificateThatCannotBeUsedIsLoggedOnceToWhoCouldHaveUsedIt) {
    m_store.add("x", "x@example.com\n");
    m_store.file("x/cert.pem", "nothing", 0644);
    const auto store = open();
    auto sink = std::make_shared<Norvane::RecordingLogSink>();
    Norvane::Logger::instance(false).sink(sink);
    EXPECT_THAT(problemsOf(store), ElementsAre("x/cert.pem: holds no certificate in PEM form"));
    EXPECT_THAT(sink->records(), IsEmpty());
    EXPECT_EQ(recipientFor(store, "x@example.com"), "nobody");
    EXPECT_EQ(recipientFor(store, "x@example.com"), "nobody");
    EXPECT_EQ(signerFor(store, "x@example.com"), "nobody");
    ASSERT_EQ(sink->records().size(), 1U);
    EXPECT_EQ(sink->records()[0].event, 0x3000062U);
    EXPECT_THAT(sink->records()[0].fields, ElementsAre("x", "cert.pem", "holds no certificate in PEM form"));
    Norvane::Logger::instance(false).sink(nullptr);
}

// What nobody asked for before it changed is not taken for what was listed: its patterns may be others.
TEST_F(DirectoryKeyStoreWorkTest, AFolderThatChangedBeforeItWasReadIsListedAnewWithTheWholeStore) {
    for (const char* name : {"a", "b", "c"}) {
        m_store.add(name, std::string(name) + "@example.com\n");
    }
    const auto store = open();
    EXPECT_EQ(signerFor(store, "a@example.com"), "a");
    m_store.remove("a");
    m_store.file("b/owners.txt", "# once c's\nc@example.com\n");
    m_store.remove("c");
    m_store.add("d", "b@example.com\n");
    EXPECT_EQ(signerFor(store, "a@example.com"), "a") << "was read, and stays";
    EXPECT_EQ(signerFor(store, "b@example.com"), "d");
    EXPECT_EQ(signerFor(store, "c@example.com"), "b");
    EXPECT_EQ(signerFor(store, "a@example.com"), "nobody");
}

TEST_F(DirectoryKeyStoreWorkTest, AKeyAndItsCertificateThatAreReplacedBetweenTwoLookUpsAreReadTogether) {
    m_store.add("x", "x@example.com\n", identity("old"));
    const auto store = open();
    EXPECT_EQ(recipientFor(store, "x@example.com"), "old");
    const auto root = identity("root");
    const auto renewed = identity("new", {.key = norvauthority::Key::ec(), .issuer = &root});
    m_store.file("x/cert.pem", renewed.certificate.pem());
    m_store.file("x/key.pem", renewed.key.pkcs8Pem());
    EXPECT_EQ(signerFor(store, "x@example.com"), "new") << "and not nobody, for want of a key that belongs to it";
}

TEST_F(DirectoryKeyStoreWorkTest, AStoreThatNeverComesToRestIsGivenUp) {
    m_store.add("x", "x@example.com\n");
    const auto store = open();
    const auto who = identity("x");
    int changes = 0;
    s_onOpen = [&](const std::string& name) {
        if (name == "x") { // opened to read its certificate
            std::filesystem::rename(m_store.path("x"), m_store.path(".x" + std::to_string(++changes)));
            m_store.add("x", "x@example.com\n", who);
        }
    };
    const auto thrown = thrownBy([&] { static_cast<void>(store->findSigningKey(address("x@example.com"))); });
    EXPECT_EQ(changes, 16);
    norvtest::expectFailure(thrown, "DirectoryKeyStore::find", 4, "DirectoryKeyStore");
    EXPECT_THAT(detailOf(thrown), testing::EndsWith(": changes again and again while it is read"));
    s_onOpen = nullptr;
    EXPECT_EQ(signerFor(store, "x@example.com"), "x");
}

TEST_F(DirectoryKeyStoreWorkTest, AStoreThatIsGoneFailsForWhatWasNotReadAndServesOnWhatWas) {
    m_store.add("x", "x@example.com\n");
    m_store.add("y", "y@example.com\n");
    const auto store = open();
    EXPECT_EQ(signerFor(store, "x@example.com"), "x");
    const auto elsewhere = std::filesystem::path(m_store.path()).parent_path().parent_path() / "elsewhere";
    std::filesystem::rename(m_store.path(), elsewhere);
    EXPECT_EQ(recipientFor(store, "y@example.com"), "y") << "the directory is open, wherever it is";
    std::filesystem::remove_all(elsewhere);
    EXPECT_EQ(signerFor(store, "x@example.com"), "x");
    const auto thrown = thrownBy([&] { static_cast<void>(store->findSigningKey(address("y@example.com"))); });
    norvtest::expectFailure(thrown, "DirectoryKeyStore::find", 4, "DirectoryKeyStore");
}

TEST_F(DirectoryKeyStoreWorkTest, WhatIsReadAheadIsNotLookedAtAgain) {
    addPeople();
    m_store.folder("empty");
    const auto store = open(Reading::ahead);
    const auto certificate = store->findEncryptionCertificate(address("p3@example.com"));
    std::filesystem::remove_all(m_store.path());
    EXPECT_THAT(openedBy([&] {
                    EXPECT_EQ(signerFor(store, "p7@example.com"), "p7");
                    EXPECT_EQ(who(store->find(certificate->issuer(), certificate->serialNumber())), "p3");
                    EXPECT_EQ(store->contents()->identities.size(), static_cast<std::size_t>(people));
                    EXPECT_EQ(explained(store, "p9@example.com", Purpose::signing).size(), 1U);
                }),
                IsEmpty());
}

// Reading ahead tries three times, and leaves what does not come to rest to who asks for it.
TEST_F(DirectoryKeyStoreWorkTest, AFolderThatGoesOnChangingIsReadAheadThreeTimes) {
    m_store.add("x", "x@example.com\n");
    const auto who = identity("x");
    int changes = 0;
    s_onOpen = [&](const std::string& name) {
        if (name == "x") { // opened to read its certificate
            std::filesystem::rename(m_store.path("x"), m_store.path(".x" + std::to_string(++changes)));
            m_store.add("x", "x@example.com\n", who);
        }
    };
    const auto store = open(Reading::ahead);
    EXPECT_EQ(changes, 3);
    s_onOpen = nullptr;
    EXPECT_EQ(signerFor(store, "x@example.com"), "x");
}

// What was written in place is read again, and what is listed of its folder stays.
TEST_F(DirectoryKeyStoreWorkTest, AFileThatWasWrittenInPlaceCostsOneReading) {
    m_store.add("x", "x@example.com\n");
    m_store.add("y", "y@example.com\n");
    const auto store = open();
    EXPECT_EQ(signerFor(store, "x@example.com"), "x");
    m_store.file("x/cert.pem", identity("renewed").certificate.pem());
    const timespec times[] = {{.tv_sec = 1, .tv_nsec = 0}, {.tv_sec = 1, .tv_nsec = 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, m_store.path("x/cert.pem").c_str(), times, 0), 0);
    norvtest::secondsAhead += 1000;
    EXPECT_THAT(openedBy([&] { store->reload(); }), IsEmpty());
    EXPECT_THAT(openedBy([&] { EXPECT_EQ(recipientFor(store, "x@example.com"), "renewed"); }),
                ElementsAre(Pair("cert.pem", 1)));
    EXPECT_THAT(openedBy([&] { store->reload(); }), IsEmpty());
}

// Hostile

TEST_F(DirectoryKeyStoreWorkTest, FilesOfFourGibibytesAreRefusedUnread) {
    m_store.add("x", "*\n");
    m_store.add("y", "*@y.example\n");
    for (const char* name : {"x/owners.txt", "y/key.pem", "y/chain.pem", "y/passphrase"}) {
        m_store.file(name, "");
        if (truncate(m_store.path(name).c_str(), off_t{4} << 30U) != 0) {
            GTEST_SKIP() << "no files of that size here";
        }
    }
    s_reads = 0;
    const auto store = open();
    EXPECT_EQ(s_reads, 1);
    EXPECT_THAT(problemsOf(store),
                ElementsAre("x/owners.txt: is larger than 1 MiB", "y/chain.pem: is larger than 1 MiB",
                            "y/passphrase: is larger than 1 MiB", "y/key.pem: is larger than 1 MiB"));
    EXPECT_EQ(recipientFor(store, "a@y.example"), "y");
}

// The folder is one when it is listed, and a link when its patterns are opened.
TEST_F(DirectoryKeyStoreWorkTest, PatternsThatWereReadThroughALinkLeadNowhere) {
    m_store.add("x", "anna@example.com\n", identity("honest"));
    m_store.add("../elsewhere", "*\n", identity("mallory"));
    s_onOpen = [&](const std::string& name) {
        if (name == "x/owners.txt") {
            s_onOpen = nullptr;
            std::filesystem::rename(m_store.path("x"), m_store.path(".x"));
            std::filesystem::create_directory_symlink("../elsewhere", m_store.path("x"));
        }
    };
    const auto store = open();
    EXPECT_EQ(signerFor(store, "otto@example.com"), "nobody");
    EXPECT_THAT(problemsOf(store), ElementsAre("x: is a symbolic link, which is not followed"));
}

TEST_F(DirectoryKeyStoreWorkTest, APatternFileThatBecomesAFifoHoldsNothingUp) {
    m_store.add("x", "anna@example.com\n");
    m_store.add("y", "*\n");
    const auto store = open();
    for (const char* name : {"x/owners.txt", "x/cert.pem"}) {
        m_store.remove(name);
        ASSERT_EQ(mkfifo(m_store.path(name).c_str(), 0600), 0);
    }
    EXPECT_EQ(signerFor(store, "anna@example.com"), "y");
    EXPECT_THAT(problemsOf(store), ElementsAre("x/cert.pem: is no regular file"));
}

// One folder goes while the others are listed, one cannot be used, and nearly none has a certificate.
TEST_F(DirectoryKeyStoreWorkTest, AHundredThousandFolders) {
    if (access("/dev/shm", W_OK) == 0) {
        setenv("TMPDIR", "/dev/shm", 1);
    }
    const Store folders;
    unsetenv("TMPDIR");
    constexpr int number = 100'000;
    const auto path = [&](int i) { return folders.path("f" + std::to_string(i)); };
    for (int i = 0; i < number; ++i) {
        ASSERT_EQ(mkdir(path(i).c_str(), 0755), 0);
    }
    folders.add("f500", "anna@example.com\n", identity("anna"));
    folders.add("f600", "anna@example.com\n", identity("later"));
    folders.add("f700", "*\n", identity("everybody"));
    folders.folder("f800", 0777);
    bool removed = false;
    s_onOpen = [&](const std::string& name) {
        if (!removed && name == "f50000/owners.txt") {
            removed = rmdir(path(99'999).c_str()) == 0;
        }
    };
    const RefDirectoryKeyStore store(folders.path());
    EXPECT_TRUE(removed);
    s_onOpen = nullptr;
    EXPECT_EQ(openedBy([&] { EXPECT_EQ(signerFor(store, "anna@example.com"), "anna"); })["cert.pem"], 1);
    EXPECT_EQ(s_decoded, 1);
    EXPECT_EQ(signerFor(store, "otto@example.com"), "everybody");
    const auto found = store->explain(address("anna@example.com"), Purpose::signing);
    ASSERT_EQ(found.matches.size(), 3U);
    EXPECT_EQ(found.contents->identities.size(), 3U);
    EXPECT_THAT(found.contents->problems, testing::SizeIs(2)) << "the one that is gone, and the one that all may write";
    EXPECT_THAT(openedBy([&] { store->reload(); }), IsEmpty());
}

} // namespace
