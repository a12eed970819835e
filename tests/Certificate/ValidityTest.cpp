#include "support/X509Testing.h"

#include <norvcrypto/Certificate.h>
#include <norvcrypto/Validity.h>

#include <openssl/asn1.h>
#include <openssl/x509.h>

#include <limits>

using namespace Norvane;
using namespace Norvane::Crypto;
using namespace Norvane::Crypto::NVX509;
using namespace x509testing;
using IssuedTime = norvauthority::Time;

namespace {

// 2020-01-01 00:00:00 UTC and 2030-01-01 00:00:00 UTC.
constexpr long begin = 1577836800;
constexpr long end = 1893456000;

class ValidityTest : public QuietQueue {
protected:
    void expectLogged(const char* number, const char* message) {
        const auto records = log.records();
        ASSERT_EQ(records.size(), 1U);
        EXPECT_EQ(records[0].event, 0x4000000U);
        EXPECT_EQ(records[0].level, 0);
        EXPECT_EQ(records[0].format, std::string("%d\x01%s"));
        EXPECT_EQ(records[0].fields, (std::vector<std::string>{number, message}));
        log.clear();
    }
    void expectBefore() { expectLogged("7", "Certificate Validity period check. Time is before validity period."); }
    void expectAfter() { expectLogged("6", "Certificate Validity period check. Time is after validity period."); }
    void expectNothingLogged() { EXPECT_TRUE(log.records().empty()); }

    Log log;
};

RefCertificate certificate(const IssuedTime& notBefore, const IssuedTime& notAfter) {
    return read(issue({.key = anyKey(), .notBefore = notBefore, .notAfter = notAfter}));
}

TEST_F(ValidityTest, WithoutPeriodNoMomentIsValid) {
    const ValidityPeriod none(nullptr);
    EXPECT_FALSE(none.valid(0));
    EXPECT_FALSE(none.valid(begin));
    EXPECT_FALSE(none.valid(-1));
    EXPECT_TRUE(none.notBefore().isNull());
    EXPECT_TRUE(none.notAfter().isNull());
    expectNothingLogged();
}

TEST_F(ValidityTest, PeriodWithoutTimesHoldsNoMoment) {
    X509_VAL times{nullptr, nullptr};
    const ValidityPeriod none(&times);
    EXPECT_FALSE(none.valid(0));
    EXPECT_EQ(none.notBefore()->object(), nullptr);
}

TEST_F(ValidityTest, ZeroIsThePresentMoment) {
    EXPECT_TRUE(certificate(IssuedTime::fromNow(-3600), IssuedTime::fromNow(3600))->validityPeriod().valid(0));
    expectNothingLogged();
    EXPECT_FALSE(certificate(IssuedTime::fromNow(3600), IssuedTime::fromNow(7200))->validityPeriod().valid(0));
    expectBefore();
    EXPECT_FALSE(certificate(IssuedTime::fromNow(-7200), IssuedTime::fromNow(-3600))->validityPeriod().valid(0));
    expectAfter();
}

TEST_F(ValidityTest, OneSecondBeforeThePeriodIsLogged) {
    EXPECT_FALSE(certificate(IssuedTime::at(begin), IssuedTime::at(end))->validityPeriod().valid(begin - 1));
    expectBefore();
}

TEST_F(ValidityTest, OneSecondAfterThePeriodIsLogged) {
    EXPECT_FALSE(certificate(IssuedTime::at(begin), IssuedTime::at(end))->validityPeriod().valid(end + 1));
    expectAfter();
}

TEST_F(ValidityTest, TheFirstMomentIsInsideAndTheLastOneOutside) {
    const auto held = certificate(IssuedTime::at(begin), IssuedTime::at(end));
    EXPECT_TRUE(held->validityPeriod().valid(begin));
    EXPECT_TRUE(held->validityPeriod().valid(end - 1));
    expectNothingLogged();
    EXPECT_FALSE(held->validityPeriod().valid(end));
    expectAfter();
}

TEST_F(ValidityTest, MomentsBefore1970) {
    const auto old = certificate(IssuedTime::utc("600101000000Z"), IssuedTime::utc("690101000000Z"));
    EXPECT_TRUE(old->validityPeriod().valid(-94694400)); // 1967-01-01
    EXPECT_FALSE(old->validityPeriod().valid(-1));
    expectAfter();
}

TEST_F(ValidityTest, GeneralizedTimesBoundThePeriodToo) {
    const auto late =
        certificate(IssuedTime::generalized("20500101000000Z"), IssuedTime::generalized("99991231235959Z"));
    EXPECT_FALSE(late->validityPeriod().valid(2524607999));
    expectBefore();
    EXPECT_TRUE(late->validityPeriod().valid(2524608000));
    EXPECT_TRUE(late->validityPeriod().valid(253402300798));
}

TEST_F(ValidityTest, TimesThatCannotBeReadDoNotBoundThePeriod) {
    EXPECT_TRUE(certificate(IssuedTime::utc("never"), IssuedTime::at(end))->validityPeriod().valid(begin));
    EXPECT_TRUE(certificate(IssuedTime::at(begin), IssuedTime::utc(""))->validityPeriod().valid(end + 1));
    EXPECT_TRUE(certificate(IssuedTime::at(begin), IssuedTime::generalized("20301399000000Z"))
                    ->validityPeriod()
                    .valid(end + 1));
    expectNothingLogged();
}

struct OddTime {
    const char* name;
    IssuedTime time;
    long moment;
};

class ValidityOddTime : public ValidityTest, public testing::WithParamInterface<OddTime> {};

// RFC 5280 forbids these forms, but they can be read, so that they bound the period as any other time.
TEST_P(ValidityOddTime, BoundsThePeriodToTheSecond) {
    const auto moment = GetParam().moment;
    const auto ending = certificate(IssuedTime::utc("990101000000Z"), GetParam().time);
    EXPECT_TRUE(ending->validityPeriod().valid(moment - 1));
    expectNothingLogged();
    EXPECT_FALSE(ending->validityPeriod().valid(moment)) << "the same moment counts as after";
    expectAfter();
    EXPECT_FALSE(ending->validityPeriod().valid(0)) << "it ended long ago";
    expectAfter();
    const auto beginning = certificate(GetParam().time, IssuedTime::generalized("20500101000000Z"));
    EXPECT_TRUE(beginning->validityPeriod().valid(moment));
    expectNothingLogged();
    EXPECT_FALSE(beginning->validityPeriod().valid(moment - 1));
    expectBefore();
}

INSTANTIATE_TEST_SUITE_P(All, ValidityOddTime,
                         testing::Values(OddTime{"OffsetEast", IssuedTime::utc("200101000000+0100"), begin - 3600},
                                         OddTime{"OffsetWest", IssuedTime::utc("200101000000-0130"), begin + 5400},
                                         OddTime{"NoSeconds", IssuedTime::utc("2001010000Z"), begin},
                                         OddTime{"Fraction", IssuedTime::generalized("20200101000000.5Z"), begin},
                                         OddTime{"GeneralizedOffset", IssuedTime::generalized("20200101000000+0100"),
                                                 begin - 3600}),
                         [](const auto& tested) { return std::string(tested.param.name); });

TEST_F(ValidityTest, MomentsBeyondTheCalendarAreOutside) {
    const auto held = certificate(IssuedTime::at(begin), IssuedTime::at(end));
    EXPECT_FALSE(held->validityPeriod().valid(std::numeric_limits<long>::max()));
    expectAfter();
    EXPECT_FALSE(held->validityPeriod().valid(std::numeric_limits<long>::min()));
    expectBefore();
}

TEST_F(ValidityTest, TimesAreGivenWithFourDigitYearsAndOnce) {
    const auto held = certificate(IssuedTime::utc("500102030405Z"), IssuedTime::utc("490102030405Z"));
    const auto& period = held->validityPeriod();
    EXPECT_EQ(period.notBefore()->asTime().asString(), "1950-01-02T03:04:05Z");
    EXPECT_EQ(period.notAfter()->asTime().asString(), "2049-01-02T03:04:05Z");
    EXPECT_EQ(&*period.notBefore(), &*period.notBefore());
    EXPECT_EQ(&*period.notAfter(), &*period.notAfter());
}

TEST_F(ValidityTest, TimeThatCannotBeReadIsAHandleOnAnEmptyTime) {
    const auto held = certificate(IssuedTime::utc("never"), IssuedTime::at(end));
    ASSERT_FALSE(held->validityPeriod().notBefore().isNull());
    EXPECT_EQ(held->validityPeriod().notBefore()->object(), nullptr);
}

TEST_F(ValidityTest, PeriodAroundAnOpenSslStructure) {
    ASN1_TIME* from = ASN1_TIME_set(nullptr, begin);
    ASN1_TIME* to = ASN1_TIME_set(nullptr, end);
    X509_VAL times{from, to};
    const ValidityPeriod period(&times);
    const ValidityPeriod copy = period;
    EXPECT_TRUE(copy.valid(begin));
    EXPECT_FALSE(copy.valid(end));
    EXPECT_EQ(copy.notAfter()->asTime().calendarSeconds(), end);
    ASN1_TIME_free(from);
    ASN1_TIME_free(to);
}

} // namespace
