// Failures that cannot be provoked from outside: random bytes that are none.
#include "../Writing.h"

#include "support/Interpose.h"

#include <openssl/rand.h>

#include <cstring>

namespace {

enum class Random : int { real, none, zeros };
Random s_random = Random::real;

} // namespace

extern "C" int RAND_bytes(unsigned char* bytes, int count) {
    switch (s_random) {
    case Random::none:
        return 0;
    case Random::zeros:
        std::memset(bytes, 0, static_cast<std::size_t>(count));
        return 1;
    case Random::real:
        break;
    }
    return norvtest::next<&RAND_bytes>("RAND_bytes")(bytes, count);
}

namespace {

using namespace smimetest;

TEST(SmimeWriterFaultsTest, SignsNothingWithoutRandomBytes) {
    const norvtest::During none(s_random, Random::none);
    EXPECT_EQ(refusalOf("Subject: x\n\ny\n", {signedBy({&person("alice")})}),
              "there are no random bytes for a boundary");
}

TEST(SmimeWriterFaultsTest, UsesNoBoundaryThatStandsInTheMessage) {
    const norvtest::During zeros(s_random, Random::zeros);
    const std::string boundary = "=_aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa";
    EXPECT_THAT(wrapped("Subject: x\n\n --" + boundary + "\n", {signedBy({&person("alice")})}),
                testing::HasSubstr("boundary=\"" + boundary + '"'));
    for (const char* const more : {"", "\n", "--\r\n", "b\n"}) {
        EXPECT_EQ(refusalOf("Subject: x\n\ny\n--" + boundary + more, {signedBy({&person("alice")})}),
                  "a boundary that was made at random stands in the message: try again");
    }
}

} // namespace
