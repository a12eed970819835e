// Certificates that would cost OpenSSL far more than their size: what the readers make of them, and what it takes.
#include "support/Costly.h"
#include "support/X509Testing.h"

#include <norvcrypto/CrossCertificatePair.h>

#include <openssl/crypto.h>
#include <openssl/x509v3.h>

#include <dlfcn.h>
#include <sys/mman.h>

#include <cstdlib>

using namespace Norvane::Crypto::NVX509;
using norvtest::explicitIdentity;
using norvtest::relativePoints;
using x509testing::anyKey;
using x509testing::buffer;

namespace {

std::size_t allocated = 0;
int purposesAsked = 0;

void* counting(std::size_t size, const char* /*file*/, int /*line*/) {
    allocated += size;
    return std::malloc(size);
}
void* countingAgain(void* memory, std::size_t size, const char* /*file*/, int /*line*/) {
    allocated += size;
    return std::realloc(memory, size);
}
void releasing(void* memory, const char* /*file*/, int /*line*/) {
    std::free(memory);
}

const int countedFromTheStart = CRYPTO_set_mem_functions(counting, countingAgain, releasing);

class CostlyCertificateTest : public x509testing::QuietQueue {
protected:
    void SetUp() override {
        QuietQueue::SetUp();
        ASSERT_EQ(countedFromTheStart, 1);
        anyKey();
        allocated = 0;
        purposesAsked = 0;
    }
    CertificateFactory factory;
};

/// 2 GiB and 100 octets of address space, with `front` at the start. Nothing but the pages that are touched is used.
class HugeRoom {
public:
    explicit HugeRoom(const norvauthority::Bytes& front)
        : m_start(mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0)) {
        if (exists()) {
            std::copy(front.begin(), front.end(), static_cast<unsigned char*>(m_start));
        }
    }
    ~HugeRoom() {
        if (exists()) {
            munmap(m_start, length);
        }
    }
    HugeRoom(const HugeRoom&) = delete;
    HugeRoom& operator=(const HugeRoom&) = delete;

    [[nodiscard]] bool exists() const { return m_start != MAP_FAILED; }
    [[nodiscard]] const unsigned char* data() const { return static_cast<const unsigned char*>(m_start); }
    [[nodiscard]] Norvane::Buffer borrowed() const { return {m_start, length, true}; }

    static constexpr unsigned int length = 0x80000064U;

private:
    void* m_start;
};

} // namespace

extern "C" int X509_check_purpose(X509* certificate, int purpose, int authority) {
    ++purposesAsked;
    static const auto original =
        reinterpret_cast<decltype(&X509_check_purpose)>(dlsym(RTLD_NEXT, "X509_check_purpose"));
    return original(certificate, purpose, authority);
}

TEST_F(CostlyCertificateTest, ExplicitCurvesAreRefusedWithoutBeingDecoded) {
    const auto der = buffer(explicitIdentity().certificate.der);
    allocated = 0;
    EXPECT_TRUE(factory.readDER(der).isNull());
    EXPECT_EQ(allocated, 0U);
}

TEST_F(CostlyCertificateTest, PemEndsSilentlyAtACertificateThatIsRefused) {
    const auto alice = norvauthority::issue({.subject = {{"CN", "Alice"}}, .key = anyKey()}).certificate.pem();
    std::list<RefCertificate> found;
    factory.readPem(buffer(alice + explicitIdentity().certificate.pem() + alice), found);
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found.front()->subject().asString(), "CN=Alice");
}

TEST_F(CostlyCertificateTest, NamedCurvesAreRead) {
    for (const char* curve : {"P-224", "P-256", "P-384", "P-521", "secp256k1", "brainpoolP256r1"}) {
        const auto identity =
            norvauthority::issue({.subject = {{"CN", curve}}, .key = norvtest::curveKey(curve, false)});
        const auto read = x509testing::read(identity);
        ASSERT_FALSE(read.isNull()) << curve;
        EXPECT_NE(static_cast<evp_pkey_st*>(read->key()), nullptr) << curve;
    }
}

TEST_F(CostlyCertificateTest, ManyRelativePointsAreRefusedWithoutBeingDecoded) {
    const auto der = buffer(relativePoints(1000, 1000, anyKey()).der); // 1,000,000 entries when they are copied
    allocated = 0;
    EXPECT_TRUE(factory.readDER(der).isNull());
    EXPECT_EQ(allocated, 0U);
    EXPECT_EQ(purposesAsked, 0);
}

// OpenSSL takes relative names without the constructed bit, too.
TEST_F(CostlyCertificateTest, ManyRelativePointsThatLookPrimitiveAreRefusedWithoutBeingDecoded) {
    const auto entry = norvauthority::fromHex("300b0603550403"); // of the relative name
    const auto octets = norvtest::asIfPrimitive(relativePoints(1000, 1000, anyKey()).der, "a10d", entry);
    const auto der = buffer(octets);
    allocated = 0;
    EXPECT_TRUE(factory.readDER(der).isNull());
    EXPECT_EQ(allocated, 0U);

    const unsigned char* at = octets.data();
    const std::unique_ptr<X509, decltype(&X509_free)> x509(d2i_X509(nullptr, &at, static_cast<long>(octets.size())),
                                                           X509_free);
    ASSERT_NE(x509, nullptr);
    EXPECT_EQ(static_cast<x509_st*>(factory(x509.get(), false)), nullptr);
    EXPECT_EQ(purposesAsked, 0);
}

TEST_F(CostlyCertificateTest, AnX509WithManyRelativePointsIsNotLetIn) {
    const auto x509 = relativePoints(1000, 1000, anyKey()).x509();
    allocated = 0;
    const auto borrowed = factory(x509.get(), false);
    ASSERT_FALSE(borrowed.isNull());
    EXPECT_EQ(static_cast<x509_st*>(borrowed), nullptr) << "whoever got it could have OpenSSL do the work later";
    EXPECT_EQ(borrowed->name(), "");
    EXPECT_EQ(borrowed->version(), -1);
    EXPECT_EQ(borrowed->keyUsage(), 0UL);
    EXPECT_FALSE(borrowed->isCACert());
    borrowed->warm();
    EXPECT_EQ(purposesAsked, 0);
    EXPECT_LT(allocated, 100000U);

    EXPECT_EQ(X509_up_ref(x509.get()), 1);
    const auto owned = factory(x509.get(), true); // frees the reference that it was given
    EXPECT_EQ(static_cast<x509_st*>(owned), nullptr);
}

// What the bound leaves possible: a hundred times what the names take up encoded.
TEST_F(CostlyCertificateTest, WhatIsLetInCostsLittle) {
    const auto der = buffer(relativePoints(80, 12, anyKey()).der);
    allocated = 0;
    const auto read = factory.readDER(der);
    ASSERT_FALSE(read.isNull());
    EXPECT_EQ(purposesAsked, 1);
    EXPECT_LT(allocated, 4000000U);
}

TEST_F(CostlyCertificateTest, ThreeRelativePointsAreRead) {
    const auto read = factory.readDER(buffer(relativePoints(3, 4, anyKey()).der));
    ASSERT_FALSE(read.isNull());
    EXPECT_EQ(read->crlDistributionPoints()->distributionPoints().size(), 3U);
    EXPECT_EQ(X509_get_extension_flags(read) & EXFLAG_INVALID, 0U);
}

TEST_F(CostlyCertificateTest, APairWithOneThatIsRefusedIsNoPair) {
    const auto alice = norvauthority::issue({.subject = {{"CN", "Alice"}}, .key = anyKey()}).certificate;
    EXPECT_TRUE(CrossCertificatePair(buffer(norvauthority::crossPair(&alice, &alice))).decoded());
    EXPECT_FALSE(
        CrossCertificatePair(buffer(norvauthority::crossPair(&alice, &explicitIdentity().certificate))).decoded());
    const auto many = relativePoints(1000, 100, anyKey());
    EXPECT_FALSE(CrossCertificatePair(buffer(norvauthority::crossPair(&many, &alice))).decoded());
}

TEST_F(CostlyCertificateTest, TwoGigabytesAreRefusedByEveryDecoder) {
    const auto alice = norvauthority::issue({.subject = {{"CN", "Alice"}}, .key = anyKey()}).certificate;
    const HugeRoom room(alice.der);
    if (!room.exists()) {
        GTEST_SKIP() << "no 2 GiB of addresses";
    }
    EXPECT_TRUE(factory.readDER(room.borrowed()).isNull());
    EXPECT_TRUE(CertificateRevocationListFactory().readDER(room.borrowed()).isNull());
    EXPECT_FALSE(CrossCertificatePair(room.borrowed()).decoded());
    EXPECT_EQ(RefSubjectAlternativeName(room.data(), HugeRoom::length)->names().size(), 0U);
    EXPECT_EQ(RefCRLDistributionPoints(room.data(), HugeRoom::length)->distributionPoints().size(), 0U);
}
