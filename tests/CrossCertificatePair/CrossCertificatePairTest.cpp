// Pairs of cross-certificates: what each half says, absent halves, bytes that are no pair, and who owns what.
#include "support/HostileDer.h"
#include "support/Started.h"
#include "support/Thrown.h"
#include "support/X509Testing.h"

#include <norvcrypto/CrossCertificatePair.h>

#include <openssl/x509.h>

using namespace Norvane;
using namespace Norvane::Crypto::NVX509;
using norvauthority::Bytes;
using norvauthority::crossPair;
using norvauthority::Identity;
using norvauthority::issue;
using x509testing::buffer;

namespace {

const Identity& north() {
    static const Identity identity = issue({.subject = {{"CN", "North"}}, .key = x509testing::anyKey(), .ca = true});
    return identity;
}
const Identity& south() {
    static const Identity identity = issue({.subject = {{"CN", "South"}}, .key = x509testing::anyKey(), .ca = true});
    return identity;
}
/// What South issued to North stands in North's entry as forward, what North issued to South as reverse.
const Identity& fromSouth() {
    static const Identity identity = issue(
        {.subject = {{"CN", "North"}}, .key = x509testing::anyKey(), .issuer = &south(), .serial = "51", .ca = true});
    return identity;
}
const Identity& fromNorth() {
    static const Identity identity = issue(
        {.subject = {{"CN", "South"}}, .key = x509testing::anyKey(), .issuer = &north(), .serial = "52", .ca = true});
    return identity;
}
Bytes both() {
    return crossPair(&fromSouth().certificate, &fromNorth().certificate);
}

class CrossPair : public x509testing::QuietQueue {
protected:
    /// No pair: both getters answer empty handles, each time.
    static void expectNoPair(const CrossCertificatePair& pair) {
        EXPECT_FALSE(pair.decoded());
        for (int time = 0; time < 2; ++time) {
            EXPECT_TRUE(pair.forward().isNull());
            EXPECT_TRUE(pair.reverse().isNull());
        }
    }
    static void expectNoPair(const Bytes& der) { expectNoPair(*RefCrossCertificatePair(buffer(der))); }
};

TEST_F(CrossPair, BothCertificatesAreHandedOut) {
    const RefCrossCertificatePair pair(buffer(both()));
    EXPECT_TRUE(pair->decoded());
    EXPECT_EQ(pair->forward()->issuer().asString(), "CN=South");
    EXPECT_EQ(pair->forward()->subject().asString(), "CN=North");
    EXPECT_EQ(pair->forward()->serialNumber().asInt(), 0x51);
    EXPECT_EQ(pair->reverse()->issuer().asString(), "CN=North");
    EXPECT_EQ(pair->reverse()->subject().asString(), "CN=South");
    EXPECT_EQ(pair->reverse()->serialNumber().asInt(), 0x52);
}

TEST_F(CrossPair, CertificatesComeOutByteForByte) {
    const RefCrossCertificatePair pair(buffer(both()));
    MemoryMediaOut forward;
    pair->forward()->writeDER(forward);
    EXPECT_EQ(x509testing::bytes(forward.content()), fromSouth().certificate.der);
    MemoryMediaOut reverse;
    pair->reverse()->writeDER(reverse);
    EXPECT_EQ(x509testing::bytes(reverse.content()), fromNorth().certificate.der);
}

TEST_F(CrossPair, ForwardAlone) {
    const RefCrossCertificatePair pair(buffer(crossPair(&fromSouth().certificate, nullptr)));
    EXPECT_TRUE(pair->decoded());
    ASSERT_FALSE(pair->forward().isNull());
    EXPECT_EQ(pair->forward()->issuer().asString(), "CN=South");
    EXPECT_TRUE(pair->reverse().isNull());
}

TEST_F(CrossPair, ReverseAlone) {
    const RefCrossCertificatePair pair(buffer(crossPair(nullptr, &fromNorth().certificate)));
    EXPECT_TRUE(pair->decoded());
    EXPECT_TRUE(pair->forward().isNull());
    ASSERT_FALSE(pair->reverse().isNull());
    EXPECT_EQ(pair->reverse()->issuer().asString(), "CN=North");
}

TEST_F(CrossPair, EmptySequenceIsAPairOfNone) {
    const RefCrossCertificatePair pair(buffer(Bytes{0x30, 0x00}));
    EXPECT_TRUE(pair->decoded());
    EXPECT_TRUE(pair->forward().isNull());
    EXPECT_TRUE(pair->reverse().isNull());
}

TEST_F(CrossPair, SecondCallAnswersTheSameHandle) {
    const RefCrossCertificatePair pair(buffer(both()));
    const RefCertificate* const forward = &pair->forward();
    Certificate* const body = forward->operator->();
    EXPECT_EQ(&pair->forward(), forward);
    EXPECT_EQ(pair->forward().operator->(), body);
    Certificate* const reverse = pair->reverse().operator->();
    EXPECT_EQ(pair->reverse().operator->(), reverse);
    EXPECT_NE(reverse, body);
}

TEST_F(CrossPair, CopiesShareThePair) {
    RefCrossCertificatePair second;
    Certificate* body = nullptr;
    {
        const RefCrossCertificatePair first(buffer(both()));
        body = first->forward().operator->();
        second = first;
        const RefCrossCertificatePair third(second);
        EXPECT_EQ(third->referenceCount(), 3);
    }
    EXPECT_EQ(second->referenceCount(), 1);
    EXPECT_EQ(second->forward().operator->(), body);
    EXPECT_EQ(second->forward()->subject().asString(), "CN=North");
}

TEST_F(CrossPair, CertificatesBelongToThePair) {
    const RefCrossCertificatePair pair(buffer(both()));
    {
        // A handle that goes while the pair lives does not take the X509 with it.
        const RefCertificate copy = pair->forward();
        EXPECT_EQ(X509_get_version(copy), 2);
    }
    EXPECT_EQ(X509_get_version(pair->forward()), 2);
}

TEST_F(CrossPair, EachCertificateIsFreedOnce) {
    norvauthority::X509Ptr kept;
    {
        const RefCrossCertificatePair pair(buffer(both()));
        X509_up_ref(pair->forward());
        kept.reset(pair->forward());
    }
    Bytes der(
        fromSouth().certificate.der.size()); // OpenSSL passes over a second free where nothing else got the memory
    unsigned char* at = der.data();
    ASSERT_EQ(i2d_X509(kept.get(), nullptr), static_cast<int>(der.size()));
    i2d_X509(kept.get(), &at);
    EXPECT_EQ(der, fromSouth().certificate.der);
}

TEST_F(CrossPair, HandleMayOutliveThePairUnlessItIsAsked) {
    RefCertificate kept;
    {
        const RefCrossCertificatePair pair(buffer(both()));
        kept = pair->forward();
    }
    EXPECT_FALSE(kept.isNull()); // its X509 is gone, and is not freed again when the handle goes
}

TEST_F(CrossPair, EmptyHandle) {
    const RefCrossCertificatePair pair;
    EXPECT_TRUE(pair.isNull());
    EXPECT_EQ(norvtest::thrownBy([&] { static_cast<void>(pair->decoded()); }).code(), 1);
}

TEST_F(CrossPair, BodyWithoutPair) {
    const CrossCertificatePair pair;
    EXPECT_EQ(pair.referenceCount(), 1);
    expectNoPair(pair);
}

TEST_F(CrossPair, BytesAfterThePairAreIgnored) {
    Bytes der = both();
    der.push_back(0x30);
    der.push_back(0xff);
    const RefCrossCertificatePair pair(buffer(der));
    EXPECT_TRUE(pair->decoded());
    EXPECT_EQ(pair->reverse()->subject().asString(), "CN=South");
}

TEST_F(CrossPair, IndefiniteLengthIsRead) {
    Bytes ber{0x30, 0x80};
    const Bytes der = crossPair(&fromSouth().certificate, nullptr);
    norvauthority::der::append(ber, {der.begin() + 4, der.end()}); // 30 82 xx xx
    norvauthority::der::append(ber, {0, 0});
    const RefCrossCertificatePair pair(buffer(ber));
    EXPECT_TRUE(pair->decoded());
    EXPECT_EQ(pair->forward()->subject().asString(), "CN=North");
}

TEST_F(CrossPair, OtherBytesAreNoPair) {
    expectNoPair(Bytes{});
    expectNoPair(norvauthority::bytes("crossCertificatePair"));
    expectNoPair(norvauthority::bytes(fromSouth().certificate.pem()));
    expectNoPair(fromSouth().certificate.der); // a certificate by itself
    expectNoPair(*RefCrossCertificatePair(Buffer()));
}

TEST_F(CrossPair, HalvesOutOfOrderOrTwiceOrUntaggedAreNoPair) {
    using namespace norvauthority::der;
    const Bytes forward = element(contextConstructed(0), fromSouth().certificate.der);
    const Bytes reverse = element(contextConstructed(1), fromNorth().certificate.der);
    expectNoPair(sequence({reverse, forward}));
    expectNoPair(sequence({forward, forward}));
    expectNoPair(sequence({fromSouth().certificate.der, fromNorth().certificate.der}));
    expectNoPair(sequence({element(contextConstructed(2), fromSouth().certificate.der)}));
    expectNoPair(sequence({element(contextConstructed(0), {})}));
    expectNoPair(sequence({element(context(0), fromSouth().certificate.der)}));
    expectNoPair(sequence({element(contextConstructed(0), concat({fromSouth().certificate.der, null()}))}));
}

TEST_F(CrossPair, NoProperPrefixIsAPair) {
    for (const Bytes& prefix : norvtest::properPrefixes(both())) {
        expectNoPair(prefix);
    }
}

TEST_F(CrossPair, OversizedLengthsAreNoPair) {
    for (const Bytes& bytes : norvtest::oversized(both())) {
        const CrossCertificatePair pair(buffer(bytes));
        static_cast<void>(pair.decoded());
        EXPECT_TRUE(pair.forward().isNull());
        EXPECT_TRUE(pair.reverse().isNull());
    }
}

TEST_F(CrossPair, FlippedBitsDoNoHarm) {
    const Bytes der = crossPair(&fromSouth().certificate, nullptr);
    std::size_t decoded = 0;
    for (std::size_t at = 0; at < der.size(); ++at) {
        Bytes flipped = der;
        flipped[at] ^= static_cast<unsigned char>(1U << (at % 8));
        const CrossCertificatePair pair(buffer(flipped));
        if (!pair.forward().isNull()) {
            ++decoded;
            pair.forward()->warm();
        }
        EXPECT_TRUE(pair.decoded() || pair.forward().isNull());
    }
    EXPECT_GT(decoded, 0U); // most bits of a certificate are content
}

} // namespace
