// Meant for the thread sanitizer: a reader for each thread, with keys, certificates and a lookup that they share.
#include "../Reading.h"
#include "support/SignedMessages.h"
#include "support/Threads.h"

#include <norvcrypto/CMSSignedReader.h>

using namespace cmstest;

TEST(StreamReadersConcurrency, ThreadsOpenWithTheSameKeys) {
    const auto both = [](CMS_ContentInfo* structure) {
        toCertificate(alice())(structure);
        toCertificate(bob(), CMS_USE_KEYID)(structure);
    };
    const std::vector<Bytes> messages{madeByOpenssl(EVP_aes_256_cbc(), both), madeByOpenssl(EVP_aes_256_gcm(), both)};
    const CMS::KeyListLookup keys({pairOf(bob())});
    const NVX509::KeyCertificatePair pair = pairOf(alice());
    std::atomic<int> good{0};
    norvtest::together([&](int number) {
        for (int turn = 0; turn < 4; ++turn) {
            const Bytes& message = messages[static_cast<std::size_t>(number + turn) % 2];
            const Opening named = [&](Reader& reader) { return reader.open(keys); };
            const Opening chosen = [&](Reader& reader) { // the elements of a set are sorted
                const bool first = reader.recipients().front().identifier()->names(certificateOf(alice()));
                return reader.open(reader.recipients()[first ? 0 : 1], pair);
            };
            const Opening& open = turn < 2 ? named : chosen;
            good += outcomeOf(message, turn % 2 == 0 ? From::memory : From::stream, open).body == bodyOf(1000) ? 1 : 0;
        }
    });
    EXPECT_EQ(good, 4 * norvtest::threadCount);
}

TEST(StreamReadersConcurrency, ThreadsJudgeWithTheSameCertificate) {
    const Bytes content = bodyOf(3000);
    const Bytes structure = signedMessage({&identities().rsa}, {"SHA256"}, content, 0);
    const auto certificate = certificateOf(identities().rsa);
    std::atomic<int> good{0};
    norvtest::together([&](int) {
        CMS::SignedReader message(Norvane::MemoryMediaIn(bufferOf(structure)));
        Norvane::MemoryMediaOut out;
        message.write(out);
        const auto& signer = message.signers().front();
        good += message.isValid(signer, certificate) &&
                        message.verdict(signer).verdict == CMS::SignatureVerdict::good &&
                        message.certificates().size() == 1
                    ? 1
                    : 0;
    });
    EXPECT_EQ(good, norvtest::threadCount);
}
