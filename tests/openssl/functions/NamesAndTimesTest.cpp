// Identifiers, names and times at the ends of what there is.
#include "openssl/AlgorithmIdentifiers.h"
#include "openssl/AlgorithmName.h"
#include "openssl/AttributeValues.h"
#include "openssl/Bios.h"
#include "openssl/CertificatePair.h"
#include "openssl/CrlFields.h"
#include "openssl/Decode.h"
#include "openssl/GeneralNames.h"
#include "openssl/Pointers.h"

#include <authority/Authority.h>

#include <openssl/err.h>

#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <vector>

namespace {

using namespace Norvane::Crypto::openssl;
using norvauthority::Bytes;
namespace der = norvauthority::der;
namespace authority = norvauthority;

const authority::Identity& issuer() {
    static const authority::Identity made =
        authority::issue({.subject = {{"CN", "Issuer"}}, .key = authority::Key::ec(), .ca = true});
    return made;
}

TEST(AlgorithmIdentifiers, DigitsAndDotsAlone) {
    const auto repeated = [](const std::string& front, int count) {
        std::string digits = front;
        for (int i = 0; i != count; ++i) {
            digits += ".1";
        }
        return digits;
    };
    EXPECT_EQ(objectIdentifier("1.2"), authority::fromHex("06012A"));
    EXPECT_EQ(objectIdentifier("0.0"), authority::fromHex("060100"));
    EXPECT_EQ(objectIdentifier("1.2.840.113549.1.7.1"), der::oid("1.2.840.113549.1.7.1"));
    const std::string longest = repeated("1.2.10", 125);
    ASSERT_EQ(longest.size(), 256U);
    EXPECT_EQ(objectIdentifier(longest), der::oid(longest));
    const std::string longer = repeated("1.2", 127);
    ASSERT_EQ(longer.size(), 257U);
    EXPECT_EQ(objectIdentifier(longer), std::nullopt);
    for (const char* other : {"", ".", "1", "1.", "3.1", "1.40", "1 2 3", "1.2 3", "CN", "1.2.x", "-1.2", "1..2",
                              "1.2.", "1.2..3", ".1.2", "1.2.840.."}) {
        EXPECT_EQ(objectIdentifier(other), std::nullopt) << other;
    }
    EXPECT_EQ(ERR_peek_error(), 0UL);
}

TEST(AlgorithmNames, IdentifiersWithoutOctetsHaveNone) {
    const ObjectPtr nothing(ASN1_OBJECT_new());
    EXPECT_EQ(algorithmName(nothing.get()), "an unreadable object identifier");
    EXPECT_EQ(algorithmName(nullptr), "no algorithm");
    EXPECT_EQ(usualName(nothing.get()), "");
    EXPECT_EQ(usualName(nullptr), "");
    EXPECT_EQ(encodedIdentifierName(authority::fromHex("060100")), "0.0");
    EXPECT_EQ(encodedIdentifierDigits(authority::fromHex("060100")), "0.0");
    EXPECT_EQ(usualName(ObjectPtr(OBJ_txt2obj("1.2.3.4", 1)).get()), "1.2.3.4");
    EXPECT_EQ(usualName(OBJ_nid2obj(NID_ED25519)), "Ed25519");
    EXPECT_EQ(usualName(OBJ_nid2obj(NID_ED448)), "Ed448");
    EXPECT_EQ(ERR_peek_error(), 0UL);
}

// RFC 5652, 11.3: UTCTime from 1950 to 2049, GeneralizedTime before and after.
TEST(AttributeValues, TimesFromTheYearZeroToTheYear9999) {
    const auto text = [](std::int64_t seconds) {
        const auto element = timeElement(seconds);
        return std::string(element.begin(), element.end());
    };
    EXPECT_EQ(text(-62167219200), "\x18\x0F"
                                  "00000101000000Z");
    EXPECT_EQ(text(-62167219201), "");
    EXPECT_EQ(text(253402300799), "\x18\x0F"
                                  "99991231235959Z");
    EXPECT_EQ(text(253402300800), "");
    EXPECT_EQ(text(INT64_MIN), "");
    EXPECT_EQ(text(INT64_MAX), "");
    EXPECT_EQ(text(0), "\x17\x0D"
                       "700101000000Z");
    EXPECT_EQ(text(2524608000), "\x18\x0F"
                                "20500101000000Z");
    EXPECT_EQ(text(2524607999), "\x17\x0D"
                                "491231235959Z");
    ERR_clear_error();
}

TEST(CertificatePairs, EachCertificateHasItsTag) {
    const authority::Identity other = authority::issue({.subject = {{"CN", "Other"}}, .key = issuer().key});
    for (const auto& [forward, reverse] : {std::pair{&issuer().certificate, &other.certificate},
                                           {&issuer().certificate, nullptr},
                                           {nullptr, &other.certificate}}) {
        const Bytes octets = authority::crossPair(forward, reverse);
        const unsigned char* at = octets.data();
        const CertificatePairPtr pair(decodeCertificatePair(nullptr, &at, static_cast<long>(octets.size())));
        ASSERT_NE(pair, nullptr);
        ASSERT_EQ(pair->forward != nullptr, forward != nullptr);
        ASSERT_EQ(pair->reverse != nullptr, reverse != nullptr);
        if (forward != nullptr) {
            EXPECT_EQ(X509_cmp(pair->forward, forward->x509().get()), 0);
        }
        if (reverse != nullptr) {
            EXPECT_EQ(X509_cmp(pair->reverse, reverse->x509().get()), 0);
        }
    }
}

TEST(CrlFields, ScopesInBerAndScopesThatAreNone) {
    const auto scopeOf = [](const std::vector<Bytes>& values) {
        std::vector<authority::Extension> extensions;
        for (const Bytes& value : values) {
            extensions.push_back({.oid = "2.5.29.28", .value = value, .critical = true});
        }
        const auto list = authority::issueList({.issuer = &issuer(), .extensions = extensions}).crl();
        ERR_clear_error();
        CrlScope scope = crlScope(list.get());
        EXPECT_EQ(ERR_peek_error(), 0UL);
        return scope;
    };
    EXPECT_EQ(scopeOf({}).flags, 0U);
    EXPECT_EQ(scopeOf({}).reasons, allReasons);
    EXPECT_EQ(crlScope(nullptr).flags, 0U);
    // Any octet but zero is true (X.690, 8.2.2).
    for (const unsigned char value : Bytes{0x01, 0x7F, 0xFF}) {
        EXPECT_EQ(scopeOf({der::sequence({der::element(der::context(1), {value})})}).flags,
                  unsigned{IDP_PRESENT | IDP_ONLYUSER});
        EXPECT_EQ(scopeOf({der::sequence({der::element(der::context(2), {value})})}).flags,
                  unsigned{IDP_PRESENT | IDP_ONLYCA});
        EXPECT_EQ(scopeOf({der::sequence({der::element(der::context(4), {value})})}).flags,
                  unsigned{IDP_PRESENT | IDP_INDIRECT});
        EXPECT_EQ(scopeOf({der::sequence({der::element(der::context(5), {value})})}).flags,
                  unsigned{IDP_PRESENT | IDP_ONLYATTR});
        EXPECT_EQ(
            scopeOf({der::sequence({der::element(der::context(1), {value}), der::element(der::context(2), {value})})})
                .flags,
            unsigned{IDP_PRESENT | IDP_ONLYUSER | IDP_ONLYCA | IDP_INVALID});
    }
    EXPECT_EQ(scopeOf({der::sequence({der::element(der::context(1), {0})})}).flags, unsigned{IDP_PRESENT});
    EXPECT_EQ(scopeOf({der::null()}).flags, unsigned{IDP_INVALID});
    EXPECT_EQ(scopeOf({der::sequence({}), der::sequence({})}).flags, unsigned{IDP_INVALID}) << "two of them";
}

TEST(GeneralNames, AreFoundByWhatTheyAre) {
    const auto decoded = [](const Bytes& octets) {
        const unsigned char* at = octets.data();
        Owned<GENERAL_NAME, GENERAL_NAME_free> name(d2i_GENERAL_NAME(nullptr, &at, static_cast<long>(octets.size())));
        EXPECT_NE(name, nullptr);
        return name;
    };
    std::vector<Owned<GENERAL_NAME, GENERAL_NAME_free>> all;
    for (const authority::GeneralName& name :
         {authority::GeneralName::email("b@example.org"), authority::GeneralName::dns("b"),
          authority::GeneralName::email("a@example.org"), authority::GeneralName::otherName("1.2.3", der::integer("1")),
          authority::GeneralName::otherName("1.2.3", der::octetString({1})),
          authority::GeneralName::otherName("1.2.3", der::null()), authority::GeneralName::uri("b"),
          authority::GeneralName::ip("192.0.2.1"), authority::GeneralName::registeredId("1.2.3"),
          authority::GeneralName::directory({{"CN", "b"}})}) {
        all.push_back(decoded(name.der));
    }
    const Owned<STACK_OF(GENERAL_NAME), [](STACK_OF(GENERAL_NAME) * stack) { sk_GENERAL_NAME_free(stack); }> names(
        sk_GENERAL_NAME_new_null());
    for (std::size_t i = 0; i != all.size(); ++i) {
        EXPECT_FALSE(contains(orderedNames(names.get()), all[i].get())) << i;
        sk_GENERAL_NAME_push(names.get(), all[i].get());
        for (std::size_t known = 0; known <= i; ++known) {
            EXPECT_TRUE(contains(orderedNames(names.get()), all[known].get())) << known;
        }
        EXPECT_EQ(orderedNames(names.get()).size(), i + 1);
        EXPECT_FALSE(contains(orderedNames(names.get()), nullptr));
    }
    // An EDIPartyName without a name compares unequal to itself.
    const Owned<GENERAL_NAME, GENERAL_NAME_free> party(GENERAL_NAME_new());
    EDIPARTYNAME* nameless = EDIPARTYNAME_new();
    ASN1_STRING_free(nameless->partyName);
    nameless->partyName = nullptr;
    GENERAL_NAME_set0_value(party.get(), GEN_EDIPARTY, nameless);
    ASSERT_NE(GENERAL_NAME_cmp(party.get(), party.get()), 0);
    sk_GENERAL_NAME_push(names.get(), party.get());
    EXPECT_EQ(orderedNames(names.get()).size(), all.size());
    EXPECT_FALSE(contains(orderedNames(names.get()), party.get()));
    // Two null ones are equal.
    sk_GENERAL_NAME_push(names.get(), nullptr);
    EXPECT_TRUE(contains(orderedNames(names.get()), nullptr));
    for (const auto& name : all) {
        EXPECT_TRUE(contains(orderedNames(names.get()), name.get()));
    }
    EXPECT_TRUE(orderedNames(nullptr).empty());
    EXPECT_FALSE(contains(orderedNames(nullptr), nullptr));
    ERR_clear_error();
}

TEST(Bios, MemoryOfAsManyOctetsAsOpensslCounts) {
    static const unsigned char octet = 0;
    const BioPtr longest = memorySource(&octet, INT_MAX);
    ASSERT_NE(longest, nullptr);
    EXPECT_EQ(BIO_pending(longest.get()), INT_MAX);
    EXPECT_EQ(memorySource(&octet, static_cast<unsigned int>(INT_MAX) + 1), nullptr);
    EXPECT_EQ(ERR_GET_LIB(ERR_get_error()), ERR_LIB_BIO);
    EXPECT_EQ(ERR_get_error(), 0UL);
    EXPECT_EQ(encodeInteger(nullptr).length(), 0U);
}

} // namespace
