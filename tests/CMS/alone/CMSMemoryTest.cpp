// What happens when there is no memory: every allocation of each operation fails once. The operation throws
// std::bad_alloc, and the sanitizers tell when something is lost or freed twice on the way out.
#include "support/Allocations.h"
#include "support/Envelope.h"
#include "support/HandMadeSigners.h"
#include "support/Pkcs12.h"

#include <norvcrypto/KeyStore.h>

#include <new>

using namespace cmstest;

namespace {

/// How many allocations succeed before one fails; negative: none fails.
long s_left = -1;

void failInTurn(std::size_t /*length*/) {
    if (s_left >= 0 && s_left-- == 0) {
        throw std::bad_alloc();
    }
}

/// Lets the first allocation of `work` fail, then the second one, and so on until all succeed.
template <class Work> void expectEveryShortageThrown(Work work) {
    norvtest::s_beforeAllocation = failInTurn;
    work(); // what is made once and kept is not lost
    long shortages = 0;
    for (bool thrown = true; thrown; ++shortages) {
        ASSERT_LT(shortages, 10000);
        thrown = false;
        s_left = shortages;
        try {
            work();
        } catch (const std::bad_alloc&) {
            thrown = true;
        }
        const bool failed = s_left < 0;
        s_left = -1;
        ASSERT_EQ(thrown, failed) << "a shortage was passed over";
        ASSERT_EQ(ERR_peek_error(), 0UL);
    }
    EXPECT_GT(shortages, 2);
}

const Bytes& structure() {
    static const Bytes made = signedByOpenssl(identities().ec, bodyOf(300), "SHA256", CMS_DETACHED);
    return made;
}

} // namespace

TEST(Shortage, WhileAStructureIsMade) {
    expectEveryShortageThrown([] { const CMS::RefContentInfo made(true); });
}

/// What `ask` answers about a structure when it is asked a second time, the first time without memory for one allocation each.
template <class Ask> void expectWholeAnswersAfterwards(const Bytes& bytes, Ask ask) {
    const auto answered = [&](long shortage) {
        Norvane::MemoryMediaIn in(bufferOf(bytes));
        const CMS::RefContentInfo message(in);
        const CMS::SignedData data = CMS::signedData(message);
        norvtest::s_beforeAllocation = failInTurn;
        s_left = shortage;
        try {
            static_cast<void>(ask(data));
        } catch (const std::bad_alloc&) { // as it should be
        }
        const bool failed = shortage >= 0 && s_left < 0;
        s_left = -1;
        return std::pair(failed, ask(data));
    };
    const auto expected = answered(-1).second;
    long shortage = 0;
    for (bool failed = true; failed; ++shortage) {
        const auto answer = answered(shortage);
        failed = answer.first;
        EXPECT_EQ(answer.second, expected) << "after shortage " << shortage;
    }
    EXPECT_GT(shortage, 2);
}

TEST(Shortage, IsNotRememberedByLists) {
    const Bytes bytes = withSigners(withCertificates(structure(), {alice().certificate.der, bob().certificate.der}), 3);
    expectWholeAnswersAfterwards(bytes, [](const CMS::SignedData& data) { return data.signerInfo().size(); });
    expectWholeAnswersAfterwards(bytes, [](const CMS::SignedData& data) { return data.certificates().size(); });
    expectWholeAnswersAfterwards(
        bytes, [](const CMS::SignedData& data) { return data.certificates().front()->extensions().size(); });
}

TEST(Shortage, WhileAStructureIsDecodedAndLookedAt) {
    expectEveryShortageThrown([] {
        const PiecewiseIn source(structure());
        Norvane::MediaIn in(source);
        const CMS::RefContentInfo message(in);
        const CMS::SignedData data = CMS::signedData(message);
        static_cast<void>(data.version());
        static_cast<void>(data.contentInfo());
        static_cast<void>(data.certificates());
        for (const auto& signer : data.signerInfo()) {
            static_cast<void>(signer.issuerAndSerialNumber().issuer().asString());
            static_cast<void>(signer.issuerAndSerialNumber().serialNumber());
            static_cast<void>(signer.digestAlgorithm().asString());
        }
    });
}

TEST(Shortage, WhileASignatureIsChecked) {
    const Bytes body = bodyOf(300);
    const auto certificate = certificateOf(identities().ec);
    expectEveryShortageThrown([&] {
        const Received received(structure());
        if (!received.accepts(body, certificate)) {
            ADD_FAILURE();
        }
    });
}

TEST(Shortage, WhileABodyIsSigned) {
    const Bytes body = bodyOf(5000);
    const auto pair = pairOf(identities().ec, {certificateOf(identities().authority)});
    expectEveryShortageThrown([&] {
        Norvane::MemoryMediaOut target;
        CMS::SignerMediaOut signer(Crypto::Hasher::SHA256, pair);
        signer.attach(target);
        signer.write(body.data(), 5000);
        signer.write(body.data(), 5000);
        signer.end();
    });
}

TEST(Shortage, WhileABodyIsEncrypted) {
    const Bytes body = bodyOf(5000);
    const auto recipients = certificatesOf({&alice(), &bob()});
    expectEveryShortageThrown([&] {
        const struct QueueCleared {
            ~QueueCleared() { ERR_clear_error(); } // ending leaves an entry
        } cleared;
        Norvane::MemoryMediaOut target;
        CMS::EncrypterMediaOut encrypter(Crypto::AES_128_CBC, recipients);
        encrypter.attach(target);
        writeInPieces(encrypter, body, 3000);
        try {
            encrypter.end();
        } catch (const Norvane::Exception& failure) {
            EXPECT_EQ(failure.lineNumber(), 136U);
            throw std::bad_alloc(); // a block that is not to be had: OpenSSL stood in between
        }
    });
}

TEST(Shortage, WhileABodyIsDecrypted) {
    const Bytes message = encryptedByStream({&alice(), &bob()}, bodyOf(5000));
    const auto keys = storeOfPairs({NVX509::KeyCertificatePair(keyOf(bob()), certificateOf(bob()))});
    const RecordedLog log;
    expectEveryShortageThrown([&] {
        PiecewiseIn in(message);
        Norvane::NullMediaOut out;
        CMS::DecrypterMediaIn decrypter(in, keys);
        decrypter.write(out);
        if (!decrypter.decryptionSucceeded()) {
            ADD_FAILURE();
        }
    });
}

TEST(Shortage, WhileACertificateIsReadAndWarmed) {
    const Buffer der = bufferOf(identities().rsa.certificate.der);
    Norvane::MemoryMediaOut pem;
    certificateOf(identities().rsa)->writePEM(pem);
    const Buffer text = pem.content();
    expectEveryShortageThrown([&] {
        std::list<NVX509::RefCertificate> found;
        NVX509::CertificateFactory().read(der, found);
        NVX509::CertificateFactory().readPem(text, found);
        found.front()->warm();
    });
}

TEST(Shortage, WhileAListIsReadAndWarmed) {
    const auto list = norvauthority::issueList({.issuer = &identities().authority, .crlNumber = "05"});
    const Buffer der = bufferOf(list.der);
    expectEveryShortageThrown([&] { NVX509::CertificateRevocationListFactory().readDER(der)->warm(); });
}

// Read twice: the certificate of one read never stands beside the key of the other.
TEST(Shortage, WhileAKeyIsImported) {
    const Bytes file = norvtest::pkcs12({.key = &identities().ec, .certificate = &identities().ec});
    expectEveryShortageThrown([&] {
        const auto store = norvtest::storeOf(file);
        store->read("secret");
        const norvauthority::X509Ptr first(static_cast<X509*>(store->certificate())); // nobody else's to free
        try {
            store->read("secret");
        } catch (const std::bad_alloc&) {
            EXPECT_FALSE(store->privateKey().isNull());
            EXPECT_TRUE(store->certificate().isNull() || static_cast<X509*>(store->certificate()) == first.get());
            throw;
        }
        const norvauthority::X509Ptr second(static_cast<X509*>(store->certificate()));
        EXPECT_NE(first, second);
    });
}

TEST(Shortage, WhileTheKeyStoreIsReplaced) {
    expectEveryShortageThrown([] {
        NVX509::RefKeyStore::instance(true, false);
        NVX509::RefKeyStore::instance(false, true);
    });
}
