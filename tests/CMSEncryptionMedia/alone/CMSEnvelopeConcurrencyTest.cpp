// Meant for the thread sanitizer: streams of several threads over the same certificates, keys and key store.
#include "support/Envelope.h"
#include "support/Threads.h"

using namespace cmstest;

TEST(EnvelopeConcurrency, ThreadsEncryptForTheSameCertificatesAndDecryptFromOneStore) {
    const auto recipients = certificatesOf({&alice(), &bob()});
    for (const auto& recipient : recipients) {
        recipient->warm();
    }
    const auto keys = storeOfKeys({&alice(), &bob()});
    const Bytes body = bodyOf(20000);
    std::atomic<int> good{0};
    norvtest::together([&](int number) {
        for (int turn = 0; turn < 3; ++turn) {
            Norvane::MemoryMediaOut message;
            CMS::EncrypterMediaOut encrypter(number % 2 == 0 ? Crypto::AES_256_CBC : Crypto::DES_EDE3_CBC, recipients);
            encrypter.attach(message);
            writeInPieces(encrypter, body, 3000);
            encrypter.end();
            Norvane::MemoryMediaIn in(message.content());
            Norvane::MemoryMediaOut clear;
            CMS::DecrypterMediaIn decrypter(in, keys);
            decrypter.write(clear);
            good += decrypter.decryptionSucceeded() && bytesOf(clear.content()) == body ? 1 : 0;
        }
    });
    EXPECT_EQ(good, 3 * norvtest::threadCount);
}

TEST(EnvelopeConcurrency, ThreadsDecryptTheSameMessageWithAForeignKey) {
    const Bytes message = encryptedByStream({&alice()}, bodyOf(100));
    const auto keys = storeOfPairs({NVX509::KeyCertificatePair(keyOf(bob()), certificateOf(alice()))});
    const RecordedLog log;
    std::atomic<int> failed{0};
    norvtest::together([&](int /*number*/) {
        PiecewiseIn in(message);
        Norvane::NullMediaOut clear;
        CMS::DecrypterMediaIn decrypter(in, keys);
        decrypter.write(clear);
        failed += static_cast<int>(decrypter.failed().size());
    });
    EXPECT_EQ(failed, norvtest::threadCount);
    EXPECT_EQ(log.records().size(), static_cast<std::size_t>(norvtest::threadCount));
}
