// Meant for the thread sanitizer: writers of several threads for the same recipients, and with the same signers.
#include "support/EnvelopeWriting.h"
#include "support/Threads.h"

#include <norvcrypto/CMSSignedWriter.h>

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

TEST(SignedWriterConcurrency, ThreadsSignWithTheSameKeys) {
    CMS::SignedWriter::Options options;
    options.signers.emplace_back(pairOf(identities().rsa));
    options.signers.emplace_back(pairOf(identities().ec));
    const Bytes body = bodyOf(20000);
    std::atomic<int> good{0};
    norvtest::together([&](int /*number*/) {
        for (int turn = 0; turn < 3; ++turn) {
            Norvane::MemoryMediaOut target;
            CMS::SignedWriter writer(options);
            writer.attach(target);
            writeInPieces(writer, body, 3000);
            writer.end();
            const CmsStructure structure = decodedCms(bytesOf(target.content()));
            const Bio out(BIO_new(BIO_s_mem()));
            good += CMS_verify(structure.get(), nullptr, nullptr, nullptr, out.get(),
                               CMS_BINARY | CMS_NO_SIGNER_CERT_VERIFY) == 1 &&
                            contentOf(out.get()) == body
                        ? 1
                        : 0;
        }
    });
    EXPECT_EQ(good, 3 * norvtest::threadCount);
}
