// In a process of its own: nobody has ever made the store here.

#include "support/X509Testing.h"

#include <norvcmsg/Sleep.h>
#include <norvcrypto/KeyStore.h>

#include <functional>
#include <stdexcept>
#include <utility>
#include <vector>

using namespace Norvane;
using namespace Norvane::Crypto::NVX509;
using namespace x509testing;

namespace {

std::vector<std::pair<unsigned int, unsigned int>> pauses;
std::function<void()> duringPause = [] {};

} // namespace

// Stands in for the common library's: the pauses are counted instead of waited for.
void Norvane::pause(unsigned int seconds, unsigned int milliseconds) {
    pauses.emplace_back(seconds, milliseconds);
    duringPause();
}

namespace {

// One test: the store can be made only once for the first time.
TEST(KeyStoreNotReadyTest, ReadersWaitThroughTwentyPausesUntilTheStoreIsMade) {
    const Log log;

    EXPECT_TRUE(RefKeyStore::instance(false, false).isNull());
    EXPECT_EQ(pauses, (std::vector<std::pair<unsigned int, unsigned int>>(20, {0U, 3U})));
    auto records = log.records();
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].event, 0x3000060U);
    EXPECT_EQ(records[0].level, 0);
    EXPECT_EQ(records[0].format, "%s");
    EXPECT_EQ(records[0].fields, (std::vector<std::string>{" "}));

    // Taking away what is not there makes nobody stop waiting.
    pauses.clear();
    EXPECT_TRUE(RefKeyStore::instance(false, true).isNull());
    EXPECT_TRUE(pauses.empty());
    EXPECT_TRUE(RefKeyStore::instance(false, false).isNull());
    EXPECT_EQ(pauses.size(), 20U);

    // An exception on the way is logged and answered by an empty handle.
    duringPause = [] { throw Exception("Interrupted", 4, "test", 77); };
    const auto before = log.records().size();
    EXPECT_TRUE(RefKeyStore::instance(false, false).isNull());
    records = log.records();
    ASSERT_EQ(records.size(), before + 1);
    EXPECT_EQ(records.back().event, 0x3000061U);
    EXPECT_EQ(records.back().level, 0);
    EXPECT_EQ(records.back().format, "%s");
    EXPECT_EQ(records.back().fields, (std::vector<std::string>{Exception("Interrupted", 4, "test", 77).asString()}));

    // Any other exception passes through.
    duringPause = [] { throw std::runtime_error("else"); };
    EXPECT_THROW(RefKeyStore::instance(false, false), std::runtime_error);

    // Made while a reader waits: the reader gets it after that pause.
    pauses.clear();
    duringPause = [] {
        if (pauses.size() == 7) {
            RefKeyStore::instance(true, false);
        }
    };
    const auto last = log.records().size();
    const auto store = RefKeyStore::instance(false, false);
    EXPECT_FALSE(store.isNull());
    EXPECT_EQ(pauses.size(), 7U);
    EXPECT_EQ(log.records().size(), last);

    // From now on nobody waits, even when the store was taken away.
    pauses.clear();
    EXPECT_TRUE(RefKeyStore::instance(false, true).isNull());
    EXPECT_TRUE(RefKeyStore::instance(false, false).isNull());
    EXPECT_TRUE(pauses.empty());
}

} // namespace
