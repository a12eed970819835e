// Meant for the thread sanitizer: mails written and read in several threads with the same keys, material and options.
#include "../Mails.h"
#include "support/Threads.h"

#include <norvcrypto-smime/SMimeWriter.h>

using namespace smimetest;
using interop::alice;
using interop::bob;

/// GLib hands memory from thread to thread under locks of its own, which the sanitizer does not see in a library that was built without
/// it. Calls from our code are looked at all the same.
extern "C" const char* __tsan_default_suppressions() { // NOLINT: the sanitizer's name for it
    return "called_from_lib:libglib-2.0.so\n"
           "called_from_lib:libgobject-2.0.so\n"
           "called_from_lib:libgmime-3.0.so\n";
}

TEST(SMimeConcurrency, ThreadsWriteAndReadWithTheSameOptions) {
    const Keys keys({&bob()});
    SMime::SignOptions signing;
    signing.signers.emplace_back(
        NVX509::KeyCertificatePair(norvtest::privateKeyOf(alice().key), x509testing::read(alice()), {}));
    SMime::EncryptOptions encrypting;
    encrypting.certificates.push_back(x509testing::read(bob()));
    encrypting.certificates.front()->warm();
    signing.signers.front().pair->certificate->warm();
    SMime::ReadOptions reading;
    reading.keys = &keys;
    std::atomic<int> good{0};
    norvtest::together([&](int /*number*/) {
        for (int turn = 0; turn < 3; ++turn) {
            Norvane::MemoryMediaOut sent;
            SMime::signAndEncrypt(Norvane::MemoryMediaIn(fieldsOfAlice + plainEntity), signing, encrypting, sent);
            Norvane::MemoryMediaOut content;
            const Answer answer = SMime::read(Norvane::MemoryMediaIn(sent.content()), content, reading);
            good += answer.verdict == Verdict::signatureGood ? 1 : 0;
        }
    });
    EXPECT_EQ(good, 3 * norvtest::threadCount);
}
