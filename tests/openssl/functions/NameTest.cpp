// Entries of names that come near the ends of what a value or a type can be.
#include "openssl/Name.h"
#include "openssl/Pointers.h"

#include <authority/Authority.h>

#include <openssl/err.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace Norvane::Crypto::openssl;
namespace authority = norvauthority;

std::vector<NameAttribute> attributesOf(const authority::Name& name) {
    const auto decoded = name.x509Name();
    const auto attributes = Norvane::Crypto::openssl::attributesOf(decoded.get());
    EXPECT_EQ(ERR_peek_error(), 0UL);
    return attributes;
}

TEST(NameFunctions, ShortTextsOfEveryStringTypeAreText) {
    const auto attributes =
        attributesOf({{.type = "CN", .value = std::string("\0A", 2), .stringType = V_ASN1_BMPSTRING},
                      {.type = "CN", .value = "", .stringType = V_ASN1_BMPSTRING},
                      {.type = "CN", .value = "", .stringType = V_ASN1_T61STRING},
                      {.type = "CN", .value = "\xE4", .stringType = V_ASN1_T61STRING},
                      {.type = "CN", .value = "", .stringType = V_ASN1_UTF8STRING}});
    ASSERT_EQ(attributes.size(), 5U);
    const std::vector<std::string> texts{"A", "", "", "\xC3\xA4", ""};
    for (std::size_t i = 0; i != texts.size(); ++i) {
        EXPECT_EQ(attributes[i].text, texts[i]) << i;
        EXPECT_EQ(attributes[i].der, "") << i;
        EXPECT_EQ(attributes[i].type, "CN") << i;
    }
}

TEST(NameFunctions, ValuesThatAreNoTextAreGivenEncoded) {
    const auto attributes =
        attributesOf({{.type = "CN", .value = std::string(1, '\0'), .stringType = V_ASN1_BIT_STRING},
                      {.type = "CN", .value = std::string("\0x", 2), .stringType = V_ASN1_BIT_STRING}});
    ASSERT_EQ(attributes.size(), 2U);
    EXPECT_EQ(attributes[0].der, std::string("\x03\x01\0", 3));
    EXPECT_EQ(attributes[1].der, std::string("\x03\x02\0x", 4));
}

TEST(NameFunctions, AttributesJoinTheOneBeforeInOneComponentOnly) {
    const auto attributes = attributesOf({{.type = "C", .value = "DE", .stringType = V_ASN1_PRINTABLESTRING},
                                          {.type = "O", .value = "o"},
                                          {.type = "CN", .value = "one", .joinsPreceding = true},
                                          {.type = "UID", .value = "1", .joinsPreceding = true},
                                          {.type = "CN", .value = "two"}});
    std::vector<bool> joined;
    for (const NameAttribute& attribute : attributes) {
        joined.push_back(attribute.joinsPreceding);
    }
    EXPECT_EQ(joined, (std::vector<bool>{false, false, true, true, false}));
    const auto first =
        attributesOf({{.type = "CN", .value = "one"}, {.type = "UID", .value = "1", .joinsPreceding = true}});
    ASSERT_EQ(first.size(), 2U);
    EXPECT_FALSE(first[0].joinsPreceding);
    EXPECT_TRUE(first[1].joinsPreceding);
}

TEST(NameFunctions, TypesWithoutANameAreWholeNumbersOrAQuestionMark) {
    const std::string many = "2.999" + [] {
        std::string arcs;
        for (int i = 0; i != 100; ++i) {
            arcs += ".1234567";
        }
        return arcs;
    }();
    const auto numbers = attributesOf({{.type = "1.2.3.4", .value = "x"}, {.type = many, .value = "x"}});
    ASSERT_EQ(numbers.size(), 2U);
    EXPECT_EQ(numbers[0].type, "1.2.3.4");
    EXPECT_EQ(numbers[1].type, many) << "not cut";
    // OpenSSL's own identifier of nothing, which has no octets.
    const NamePtr name(X509_NAME_new());
    ASSERT_EQ(X509_NAME_add_entry_by_NID(name.get(), NID_commonName, MBSTRING_UTF8,
                                         reinterpret_cast<const unsigned char*>("x"), 1, -1, 0),
              1);
    X509_NAME_ENTRY* entry = X509_NAME_get_entry(name.get(), 0);
    const Owned<ASN1_OBJECT, ASN1_OBJECT_free> nothing(ASN1_OBJECT_new());
    ASSERT_EQ(X509_NAME_ENTRY_set_object(entry, nothing.get()), 1);
    const auto unnamed = Norvane::Crypto::openssl::attributesOf(name.get());
    ASSERT_EQ(unnamed.size(), 1U);
    EXPECT_EQ(unnamed[0].type, "?");
}

TEST(NameFunctions, AppendedEntriesAreWhatTheOldInterfaceMadeOfThem) {
    const NamePtr name(X509_NAME_new());
    appendEntry(name.get(), "CN", "abc");
    appendEntry(name.get(), "nosuch", "\xE4");
    appendEntry(name.get(), "O", "\x7F\x7F");
    appendEntry(name.get(), "OU", "\x80");
    appendEntry(name.get(), "OU", "a\xFF");
    const auto entries = entriesOf(name.get());
    ASSERT_EQ(entries.size(), 4U);
    EXPECT_EQ(entries[0].type, "CN");
    EXPECT_EQ(entries[0].value, "abc");
    EXPECT_EQ(entries[0].stringType, V_ASN1_UTF8STRING);
    EXPECT_EQ(entries[1].value, "\x7F\x7F");
    EXPECT_NE(entries[1].stringType, V_ASN1_T61STRING);
    EXPECT_EQ(entries[2].value, "\x80");
    EXPECT_EQ(entries[2].stringType, V_ASN1_T61STRING);
    EXPECT_EQ(entries[3].value, "a\xFF");
    EXPECT_EQ(entries[3].stringType, V_ASN1_T61STRING);

    const NamePtr copy = copyOf(name.get());
    ASSERT_NE(copy, nullptr);
    const auto copied = Norvane::Crypto::openssl::attributesOf(copy.get());
    ASSERT_EQ(copied.size(), 4U);
    for (const NameAttribute& attribute : copied) {
        EXPECT_FALSE(attribute.joinsPreceding);
    }
    EXPECT_EQ(X509_NAME_cmp(copy.get(), name.get()), 0);
    EXPECT_EQ(ERR_peek_error(), 0UL);
}

} // namespace
