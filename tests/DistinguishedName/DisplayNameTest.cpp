#include <norvcrypto/DistinguishedName.h>

#include <authority/Authority.h>

#include <openssl/asn1.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/x509.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <memory>
#include <ostream>
#include <set>
#include <string>
#include <string_view>

using namespace Norvane::Crypto::NVX509;
using namespace std::string_view_literals;
using norvauthority::Name;

namespace {

std::string shown(const Name& name) {
    const auto x509 = name.x509Name();
    EXPECT_NE(x509.get(), nullptr);
    const std::string text = displayName(DistinguishedName(x509.get()));
    EXPECT_EQ(ERR_peek_error(), 0U);
    return text;
}

std::string shownValue(std::string_view value, int stringType = V_ASN1_UTF8STRING) {
    const std::string text = shown({{.type = "CN", .value = std::string(value), .stringType = stringType}});
    EXPECT_EQ(text.substr(0, 3), "CN=");
    return text.substr(3);
}

TEST(DisplayName, PlainNamesLookAsTheirTextDoes) {
    const Name name{{"C", "US"}, {"O", "Org"}, {"CN", "Alice"}, {"emailAddress", "a@example.org"}};
    const auto x509 = name.x509Name();
    EXPECT_EQ(shown(name), "emailAddress=a@example.org,CN=Alice,O=Org,C=US");
    EXPECT_EQ(DistinguishedName(x509.get()).asString(), shown(name));
}

TEST(DisplayName, NothingIsShownOfNoName) {
    EXPECT_EQ(displayName(DistinguishedName()), "");
    EXPECT_EQ(displayName(DistinguishedName(std::string("EMAILADDRESS=x"))), "");
}

TEST(DisplayName, AttributesOfOneComponentAreJoined) {
    EXPECT_EQ(
        shown({{"C", "US"}, {"CN", "Alice"}, {.type = "OU", .value = "Unit", .joinsPreceding = true}, {"O", "Org"}}),
        "O=Org,OU=Unit+CN=Alice,C=US");
}

TEST(DisplayName, UnknownTypesAreNumbers) {
    EXPECT_EQ(shown({{"1.2.3.4.99999999999", "x"}}), "1.2.3.4.99999999999=x");
}

// RFC 4514, 2.4.
TEST(DisplayName, WhatHasAMeaningIsEscaped) {
    EXPECT_EQ(shownValue("Smith, John"), R"(Smith\, John)");
    EXPECT_EQ(shownValue(R"(a+b"c\d<e>f;g)"), R"(a\+b\"c\\d\<e\>f\;g)");
    EXPECT_EQ(shownValue("a=b#c"), "a=b#c");
    EXPECT_EQ(shownValue("#a"), R"(\#a)");
    EXPECT_EQ(shownValue(" a b "), R"(\ a b\ )");
    EXPECT_EQ(shownValue(" "), R"(\ )");
    EXPECT_EQ(shownValue(""), "");
}

TEST(DisplayName, AValueThatLooksEscapedIsToldFromOneThatWas) {
    EXPECT_EQ(shownValue("a\nb"), R"(a\0Ab)");
    EXPECT_EQ(shownValue(R"(a\0Ab)"), R"(a\\0Ab)");
    EXPECT_EQ(shownValue(R"(a\x0Ab)"), R"(a\\x0Ab)");
    EXPECT_EQ(shownValue("a\0b"sv), R"(a\00b)");
    EXPECT_EQ(shownValue("\x1B[2J"), R"(\1B[2J)");
}

TEST(DisplayName, ValuesAreUtf8WhateverTheirStringTypeIs) {
    EXPECT_EQ(shownValue("M\xC3\xBCller"), "M\xC3\xBCller");
    EXPECT_EQ(shownValue("M\xFCller", V_ASN1_T61STRING), "M\xC3\xBCller");
    EXPECT_EQ(shownValue("\0M\0\xFC"sv, V_ASN1_BMPSTRING), "M\xC3\xBC");
    EXPECT_EQ(shownValue("\0\0\0M\0\0\0\xFC"sv, V_ASN1_UNIVERSALSTRING), "M\xC3\xBC");
    EXPECT_EQ(shownValue("abc", V_ASN1_IA5STRING), "abc");
}

TEST(DisplayName, BytesThatAreNoTextAreHexDigits) {
    // OpenSSL reads no UTF8String that is none.
    EXPECT_EQ(shownValue("M\xFCller", V_ASN1_IA5STRING), R"(M\FCller)");
    EXPECT_EQ(shownValue("\xC3", V_ASN1_PRINTABLESTRING), R"(\C3)");
    EXPECT_EQ(shownValue("\xED\xA0\x80", V_ASN1_IA5STRING), R"(\ED\A0\80)");
    // Nor a BMPString of an odd count of octets, but a program can make one.
    const auto odd = Name{{"CN", "x"}}.x509Name();
    ASSERT_EQ(X509_NAME_ENTRY_set_data(X509_NAME_get_entry(odd.get(), 0), V_ASN1_BMPSTRING,
                                       reinterpret_cast<const unsigned char*>("abc"), 3),
              1);
    EXPECT_EQ(displayName(DistinguishedName(odd.get())), "CN=#1E03616263");
    EXPECT_EQ(ERR_peek_error(), 0U);
    const std::string bits = shown({{.type = "CN", .rawValue = norvauthority::fromHex("030200ff")}});
    EXPECT_EQ(bits, "CN=#030200FF");
    EXPECT_EQ(shownValue("#030200FF"), R"(\#030200FF)");
}

TEST(DisplayName, WhatIsNotSeenIsHexDigits) {
    EXPECT_EQ(shownValue("a\xE2\x80\xAE\x62"), R"(a\E2\80\AEb)") << "U+202E";
    EXPECT_EQ(shownValue("a\xE2\x80\x8B"), R"(a\E2\80\8B)") << "U+200B";
    EXPECT_EQ(shownValue("\xEF\xBB\xBF\x61"), R"(\EF\BB\BFa)") << "U+FEFF";
    EXPECT_EQ(shownValue("\xF3\xA0\x81\x81"), R"(\F3\A0\81\81)") << "U+E0041";
    EXPECT_EQ(shownValue("\0a\x20\x2E"sv, V_ASN1_BMPSTRING), R"(a\E2\80\AE)");
}

// Another program's reading of the same names.
TEST(DisplayName, OpenSslWritesOrdinaryNamesAlike) {
    const Name name{{"C", "DE"},
                    {"O", "Org; \"quoted\" + <more>"},
                    {"CN", "#M\xC3\xBCller, Anna \\ "},
                    {.type = "OU", .value = " x", .joinsPreceding = true},
                    {"1.2.3.4", "y"}};
    const auto x509 = name.x509Name();
    const std::unique_ptr<BIO, decltype(&BIO_free)> out(BIO_new(BIO_s_mem()), BIO_free);
    const unsigned long flags =
        (XN_FLAG_RFC2253 & ~static_cast<unsigned long>(ASN1_STRFLGS_ESC_MSB | XN_FLAG_DUMP_UNKNOWN_FIELDS));
    ASSERT_GE(X509_NAME_print_ex(out.get(), x509.get(), 0, flags), 0);
    char* bytes = nullptr;
    const auto length = BIO_get_mem_data(out.get(), &bytes);
    EXPECT_EQ(shown(name), std::string(bytes, static_cast<std::size_t>(length)));
}

TEST(DisplayName, NoTwoValuesLookTheSame) {
    std::set<std::string> seen;
    const std::string_view letters[] = {"",  "a", "\\", "\n",   "0A",       "x0A",
                                        "#", ",", " ",  "\xFC", "\xC3\xBC", "\xE2\x80\x8B"};
    std::size_t count = 0;
    std::set<std::string> values;
    for (const auto first : letters) {
        for (const auto second : letters) {
            for (const auto third : letters) {
                values.insert(std::string(first).append(second).append(third));
            }
        }
    }
    for (const auto& value : values) {
        seen.insert(shownValue(value, V_ASN1_IA5STRING));
        ++count;
    }
    EXPECT_EQ(seen.size(), count);
}

} // namespace
