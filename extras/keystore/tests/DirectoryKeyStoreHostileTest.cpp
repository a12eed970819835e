// Stores and addresses that are meant to hurt, and large ones.

#include "Store.h"

#include <gmock/gmock.h>
#include <unistd.h>

using namespace keystoretesting;
using testing::IsEmpty;
using Purpose = DirectoryKeyStore::Purpose;

namespace {

class DirectoryKeyStoreHostileTest : public DirectoryKeyStoreTest {};

/// Where there is a file system in memory, the store lies there: disks take long to remove many folders.
struct InMemory {
    InMemory() {
        if (access("/dev/shm", W_OK) == 0) {
            setenv("TMPDIR", "/dev/shm", 1);
        }
    }
    ~InMemory() { unsetenv("TMPDIR"); }
    InMemory(const InMemory&) = delete;
    InMemory& operator=(const InMemory&) = delete;
};

TEST_F(DirectoryKeyStoreHostileTest, TenThousandFoldersOfWhichOneInTwentyServes) {
    const InMemory inMemory;
    const Store folders;
    folders.add("person-0", "*@*\n", identity("shared"), false);
    for (int i = 1; i < 10000; ++i) {
        const std::string folder = "person-" + std::to_string(i);
        ASSERT_EQ(mkdir(folders.path(folder).c_str(), 0755), 0);
        if (i % 20 == 0) { // one certificate for all: it is the number that counts
            ASSERT_EQ(link(folders.path("person-0/cert.pem").c_str(), folders.path(folder + "/cert.pem").c_str()), 0);
            folders.file(folder + "/owners.txt", folder + "@example.com\n");
        }
    }
    const RefDirectoryKeyStore store(folders.path());
    EXPECT_EQ(store->contents()->identities.size(), 500U);
    EXPECT_EQ(store->contents()->problems.size(), 9500U);
    const auto explanation = store->explain(address("person-7780@example.com"), Purpose::encryption);
    ASSERT_EQ(explanation.matches.size(), 2U);
    EXPECT_EQ(explanation.contents->identities[explanation.matches[0].place.identity].folder, "person-7780");
    EXPECT_EQ(explanation.winner, 0U);
}

TEST_F(DirectoryKeyStoreHostileTest, PatternsOfTenThousandCharactersAreAnsweredFor) {
    std::string stars;
    std::string marks;
    for (int i = 0; i < 5000; ++i) {
        stars += "*a";
        marks += "?a";
    }
    m_store.add("x", stars + "\n" + marks + "*\n*" + marks + "b\n" + std::string(10000, '*') + "\n" +
                         std::string(10000, 'a') + "\n" + std::string(10000, '?') + "\n*a*a*a*a*a*a*a*a*b\n");
    const auto store = open();
    EXPECT_THAT(problemsOf(store), IsEmpty());
    const std::string longest =
        std::string(64, 'a') + "@" + std::string(61, 'a') + "." + std::string(61, 'a') + "." + std::string(61, 'a');
    ASSERT_FALSE(address(longest).isNull());
    EXPECT_THAT(explained(store, longest, Purpose::signing),
                testing::ElementsAre("x: " + std::string(10000, '*') + ": fit *"));
}

TEST_F(DirectoryKeyStoreHostileTest, AnAddressOfTenThousandCharactersIsNoAddress) {
    m_store.add("x", "a*\n");
    EXPECT_EQ(signerFor(open(), std::string(10000, 'a') + "@example.com"), "nobody");
}

TEST_F(DirectoryKeyStoreHostileTest, GarbageInEveryFileIsReportedAndNothingElseHappens) {
    unsigned int state = 20261120;
    const auto garbage = [&state](std::size_t length) {
        std::string bytes;
        while (bytes.size() < length) {
            state = state * 1664525U + 1013904223U;
            bytes.push_back(static_cast<char>(state >> 24U));
        }
        return bytes;
    };
    const auto good = identity("good");
    m_store.add("good", "*\n", good);
    const std::vector<std::string> files = {"cert.pem", "chain.pem", "key.pem", "owners.txt"};
    for (int round = 0; round < 12; ++round) {
        for (const auto& broken : files) {
            m_store.add("x", "*@x.example\n", good);
            std::string content = broken == "key.pem" ? good.key.pkcs8Pem() : good.certificate.pem();
            if (round % 3 == 0) {
                content = garbage(1U + static_cast<unsigned int>(round) * 97U);
            } else { // a proper file with a few bytes overwritten, inside its base64
                content.replace(60U + static_cast<unsigned int>(round) * 8U, 3,
                                garbage(3) + (round % 3 == 1 ? "\n" : ""));
            }
            m_store.file("x/" + broken, content);
            const auto store = open();
            EXPECT_EQ(signerFor(store, "a@good.example"), "good");
            bool isReported = false;
            for (const auto& problem : store->contents()->problems) {
                EXPECT_EQ(problem.folder, "x");
                isReported |= problem.file == broken;
            }
            // A few bytes may leave a file one that can be read, and the one byte of the first round is a pattern.
            EXPECT_TRUE(isReported || round % 3 != 0 || (round == 0 && broken == "owners.txt")) << round << broken;
        }
    }
}

TEST_F(DirectoryKeyStoreHostileTest, FilesCutAnywhereAreReportedOrServe) {
    const auto good = identity("good");
    const std::string pem = good.certificate.pem();
    const std::string key = good.key.pkcs8Pem();
    m_store.add("x", "*\n", good);
    for (std::size_t length = 0; length + 2 < pem.size(); length += 7) { // the end of the last line is no loss
        m_store.file("x/cert.pem", pem.substr(0, length));
        EXPECT_THAT(foldersOf(open()), IsEmpty()) << length;
    }
    m_store.file("x/cert.pem", pem);
    for (std::size_t length = 0; length + 2 < key.size(); length += 7) {
        m_store.file("x/key.pem", key.substr(0, length));
        EXPECT_EQ(signerFor(open(), "a@x.example"), "nobody") << length;
    }
}

} // namespace
