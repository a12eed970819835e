// The parts of a multipart/digest are messages where nothing else is said (RFC 2046, 5.1.5).
#include "Mails.h"

using namespace smimetest;
using interop::alice;
using testing::ElementsAre;

namespace {

Outcome outcomeOfDigest(const std::string& parts) {
    SMime::ReadOptions options;
    options.listParts = true;
    return outcomeOf(
        fieldsOfAlice + "Content-Type: multipart/digest; boundary=d\r\n\r\n--d\r\n" + parts + "\r\n--d--\r\n", options);
}

TEST(SMimeReadDigest, APartWithoutATypeIsAMessage) {
    const Outcome outcome =
        outcomeOfDigest("Content-ID: <1@b>\r\n\r\nSubject: inner\r\nContent-Type: text/html\r\n\r\nhello");
    EXPECT_THAT(leavesOf(outcome.answer), ElementsAre("1.1.1 text/html \"\" 7bit 5"));
    EXPECT_THAT(layersOf(outcome.answer), ElementsAre("forwarded 1.1 good"));
}

TEST(SMimeReadDigest, APartWithATypeIsThat) {
    const Outcome outcome = outcomeOfDigest("Content-Type: text/plain\r\n\r\nSubject: inner\r\n\r\nhello");
    EXPECT_THAT(leavesOf(outcome.answer), ElementsAre("1.1 text/plain \"\" 7bit 23"));
    EXPECT_THAT(layersOf(outcome.answer), ElementsAre());
}

TEST(SMimeReadDigest, PartsWithinAPartAreTexts) {
    const Outcome outcome =
        outcomeOfDigest("Content-Type: multipart/mixed; boundary=m\r\n\r\n--m\r\n\r\nhello\r\n--m--\r\n");
    EXPECT_THAT(leavesOf(outcome.answer), ElementsAre("1.1.1 text/plain \"\" 7bit 5"));
}

// Whoever forwards a signed mail in a digest signed nothing himself.
TEST(SMimeReadDigest, ASignedMessageInItIsForwarded) {
    const Outcome outcome = outcomeOfDigest("\r\n" + fieldsOfAlice +
                                            signedBy(alice(), plainEntity, CMS_BINARY | CMS_CRLFEOL | CMS_DETACHED));
    EXPECT_EQ(outcome.answer.verdict, Verdict::notSMime) << outcome.answer.detail;
    EXPECT_THAT(layersOf(outcome.answer), ElementsAre("forwarded 1.1 good", "multipart-signed 1.1.1 good"));
}

} // namespace
