// Meant for the thread sanitizer: writers of several threads for the same recipients.
#include "support/EnvelopeWriting.h"
#include "support/Threads.h"

using namespace cmstest;

TEST(EnvelopeWriterConcurrency, ThreadsEncryptForTheSameRecipients) {
    const std::vector<Addressee> people = addressees();
    const std::vector<CMS::EnvelopeRecipient> recipients = recipientsOf(people);
    const Bytes body = bodyOf(20000);
    std::atomic<int> good{0};
    norvtest::together([&](int number) {
        for (int turn = 0; turn < 3; ++turn) {
            const Bytes message = written(recipients, static_cast<CMS::ContentCipher>((number + turn) % 7), {}, body);
            good += opened(message, people.front()) == body ? 1 : 0;
        }
    });
    EXPECT_EQ(good, 3 * norvtest::threadCount);
}
