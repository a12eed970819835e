// In a process of its own: the store is made during the last pause of the first reader.

#include "support/X509Testing.h"

#include <norvcmsg/Sleep.h>
#include <norvcrypto/KeyStore.h>

using namespace Norvane;
using namespace Norvane::Crypto::NVX509;
using namespace x509testing;

namespace {

int pauses = 0;

} // namespace

void Norvane::pause(unsigned int /*seconds*/, unsigned int /*milliseconds*/) {
    if (++pauses == 20) {
        const RefKeyStore another(true); // any store will do, though this one is not the process-wide one
    }
}

namespace {

TEST(KeyStoreLastPauseTest, MadeDuringTheTwentiethPauseIsInTime) {
    const Log log;
    EXPECT_TRUE(RefKeyStore::instance(false, false).isNull()) << "there is no process-wide store";
    EXPECT_EQ(pauses, 20);
    EXPECT_TRUE(log.records().empty()) << "but nobody complains";
    EXPECT_TRUE(RefKeyStore::instance(false, false).isNull());
    EXPECT_EQ(pauses, 20);
}

} // namespace
