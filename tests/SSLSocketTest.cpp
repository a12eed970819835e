// SSL sockets as their users see them: both ends in one process, over loopback.

#include "support/Slots.h"
#include "support/Thrown.h"
#include "support/Tls.h"

#include <cerrno>
#include <type_traits>

using namespace Norvane;
using namespace Norvane::Crypto::NVSSL;
using namespace tlstesting;
using norvtest::errorQueueIsEmpty;
using norvtest::expectFailure;
using norvtest::thrownBy;

namespace {

class SSLSocketTest : public TlsTest {};

TEST_F(SSLSocketTest, BytesGoBothWays) {
    Connection both = connected();
    EXPECT_EQ(5, send(both.client, "hello"));
    EXPECT_EQ("hello", receive(both.server));
    EXPECT_EQ(6, send(both.server, "world!"));
    EXPECT_EQ("world!", receive(both.client));
    EXPECT_TRUE(errorQueueIsEmpty());
}

} // namespace
