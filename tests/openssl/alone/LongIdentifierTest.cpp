// Identifiers in texts that somebody else chose: OpenSSL converts the digits of one number in time that grows with the
// square of their count, so no long number may reach it.

#include "support/Interpose.h"

#include <norvcrypto/ASN1.h>
#include <norvcrypto/DistinguishedName.h>

#include <authority/Authority.h>

#include <openssl/objects.h>
#include <openssl/x509.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <string>

namespace {

/// The longest run of digits that was handed to OpenSSL.
std::size_t s_digits = 0;

void note(const char* text) {
    std::size_t run = 0;
    for (; *text != '\0'; ++text) {
        run = *text >= '0' && *text <= '9' ? run + 1 : 0;
        s_digits = std::max(s_digits, run);
    }
}

} // namespace

extern "C" ASN1_OBJECT* OBJ_txt2obj(const char* text, int numbersOnly) {
    note(text);
    return norvtest::next<&OBJ_txt2obj>("OBJ_txt2obj")(text, numbersOnly);
}

extern "C" int X509_NAME_add_entry_by_txt(X509_NAME* name, const char* type, int valueType, const unsigned char* bytes,
                                          int length, int place, int set) {
    note(type);
    return norvtest::next<&X509_NAME_add_entry_by_txt>("X509_NAME_add_entry_by_txt")(name, type, valueType, bytes,
                                                                                     length, place, set);
}

namespace {

using Norvane::Crypto::ASN1::RefObjectIdentifier;
using namespace Norvane::Crypto::NVX509;

class LongIdentifier : public testing::Test {
protected:
    void SetUp() override { s_digits = 0; }
};

std::string withNumber(std::size_t digits) {
    return "1.2." + std::string(digits, '9');
}

TEST_F(LongIdentifier, NumbersOfUpTo256DigitsAreRead) {
    const RefObjectIdentifier identifier(withNumber(256));
    EXPECT_NE(identifier->object(), nullptr);
    EXPECT_EQ(s_digits, 256U);
    EXPECT_TRUE(RefObjectIdentifier(withNumber(256)) == identifier);
    EXPECT_EQ(DistinguishedName(withNumber(256) + "=x,C=US").listRDN().size(), 2U);
}

TEST_F(LongIdentifier, LongerOnesAreUnknownAndKeepTheirText) {
    for (const std::size_t digits : {257U, 100'000U}) {
        const RefObjectIdentifier identifier(withNumber(digits));
        EXPECT_EQ(identifier->object(), nullptr);
        EXPECT_EQ(identifier->asString(), withNumber(digits));
        EXPECT_FALSE(RefObjectIdentifier(withNumber(digits)) == identifier);
    }
    EXPECT_LE(s_digits, 256U);
}

TEST_F(LongIdentifier, AttributesOfSuchTypesAreLeftOutAsUnknownOnesAre) {
    const DistinguishedName name("CN=a," + withNumber(257) + "=x,C=US," + withNumber(100'000) + "=y");
    EXPECT_EQ(name.asString(), "CN=a,C=US");
    EXPECT_LE(s_digits, 256U);
}

TEST_F(LongIdentifier, LongIdentifiersOfShortNumbersStayWhole) {
    std::string text = "1.2";
    for (int i = 0; i < 5000; ++i) {
        text += ".4294967295";
    }
    const RefObjectIdentifier identifier(text);
    EXPECT_EQ(identifier.clone()->asString(), text);
    EXPECT_TRUE(identifier.clone() == identifier);
    EXPECT_TRUE(RefObjectIdentifier(identifier->object()) == identifier);
    EXPECT_EQ(RefObjectIdentifier(identifier->object())->asString(), text);
}

// OpenSSL prints no identifier of more than 586 octets, the digits of which would cost the square of their count too.
TEST_F(LongIdentifier, AnEncodedTypeTooLongToPrintHasNoText) {
    norvauthority::Bytes octets(40'000, 0xFF);
    octets.back() = 0x7F;
    const auto name = norvauthority::Name{{.type = "", .value = "x", .rawOid = octets}}.x509Name();
    ASSERT_NE(name.get(), nullptr);
    EXPECT_EQ(DistinguishedName(name.get()).asString(), "=x");
    EXPECT_EQ(displayName(DistinguishedName(name.get())), "?=x");
}

} // namespace
