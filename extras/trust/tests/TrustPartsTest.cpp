// Small parts of the judging: counts that bound its work, texts that are cut, and verdicts that are kept.

#include "Cache.h"
#include "Chains.h"
#include "Extensions.h"
#include "Lists.h"
#include "Wording.h"

#include <norvcrypto-trust/TrustSender.h>

#include <gmock/gmock.h>

using namespace trusttesting;
using norvauthority::Bytes;
using norvauthority::fromHex;
namespace der = norvauthority::der;
namespace parts = Norvane::Crypto::Trust::detail;

namespace {

using Extension = std::unique_ptr<X509_EXTENSION, decltype(&X509_EXTENSION_free)>;

Extension extensionWith(const Bytes& value) {
    Extension extension(X509_EXTENSION_new(), &X509_EXTENSION_free);
    const std::unique_ptr<ASN1_OCTET_STRING, decltype(&ASN1_OCTET_STRING_free)> octets(ASN1_OCTET_STRING_new(),
                                                                                       &ASN1_OCTET_STRING_free);
    ASN1_OCTET_STRING_set(octets.get(), value.data(), static_cast<int>(value.size()));
    X509_EXTENSION_set_data(extension.get(), octets.get());
    return extension;
}

/// Leaves, elements of the outer element, octets.
std::vector<std::size_t> countsOf(const Bytes& value) {
    const Extension extension = extensionWith(value);
    return {parts::leavesOf(extension.get()), parts::elementsOf(extension.get()), parts::octetsOf(extension.get())};
}

using Counts = std::vector<std::size_t>;

} // namespace

TEST(TrustCounts, OfTheValueOfAnExtension) {
    EXPECT_EQ(countsOf({}), Counts({0, 0, 0}));
    EXPECT_EQ(countsOf(der::sequence({})), Counts({0, 0, 2}));
    EXPECT_EQ(countsOf(der::null()), Counts({1, 0, 2})) << "an outer element without elements";
    EXPECT_EQ(countsOf(der::sequence({der::null(), der::integer("5"), der::null()})), Counts({3, 3, 9}));
    EXPECT_EQ(countsOf(der::sequence({der::sequence({der::null(), der::null()}), der::null()})), Counts({3, 2, 10}));
    EXPECT_EQ(parts::leavesOf(nullptr), 0U);
    EXPECT_EQ(parts::elementsOf(nullptr), 0U);
    EXPECT_EQ(parts::octetsOf(nullptr), 0U);
}

/// OpenSSL decodes indefinite lengths: what they hide counts, too.
TEST(TrustCounts, WhatHasNoLengthCountsToo) {
    EXPECT_GE(countsOf(fromHex("30800500050005000000"))[0], 3U);
    EXPECT_GE(countsOf(fromHex("3080308005000500000005000000"))[0], 3U);
    EXPECT_EQ(countsOf(fromHex("30030500"))[0], 0U) << "longer than there is: OpenSSL does not decode it";
    EXPECT_EQ(countsOf(fromHex("30040500050030"))[0], 2U) << "up to what is none";
}

/// OpenSSL decodes lists that do not say that they are constructed.
TEST(TrustCounts, WhatLooksPrimitiveIsLookedInto) {
    const std::vector<norvauthority::GeneralName> names(100, norvauthority::GeneralName::email("a@b.example"));
    norvauthority::Bytes constraints = nameConstraints(names, names);
    const std::size_t whole = countsOf(constraints)[0];
    EXPECT_EQ(whole, 200U);
    ASSERT_EQ(constraints[4], 0xA0);
    ASSERT_EQ(constraints[1508], 0xA1);
    for (const std::size_t at : {1508U, 4U, 0U}) {
        constraints[at] &= 0xDFU;
        EXPECT_GE(countsOf(constraints)[0], whole) << at;
    }
    EXPECT_EQ(countsOf(der::sequence({fromHex("8001ff"), fromHex("8203616263"), fromHex("87040a000000")}))[0], 3U)
        << "what is no list is one leaf";
}

/// OpenSSL takes the value of another name as it is: what follows it counts all the same.
TEST(TrustCounts, WhatIsNoEncodingEndsWithTheElementAroundIt) {
    const Bytes other =
        der::element(0xA0, der::concat({der::oid("1.2.3.4"), der::element(0xA0, der::element(0x30, fromHex("0480")))}));
    const norvauthority::GeneralName name = norvauthority::GeneralName::email("a@b.example");
    EXPECT_EQ(countsOf(nameConstraints({norvauthority::GeneralName::raw(other), name, name}, {name}))[0], 4U);
}

TEST(TrustTexts, AreCutWhereTheyAreTooLong) {
    const std::size_t longest = parts::longestName;
    EXPECT_EQ(parts::shortened(std::string(longest, 'x')), std::string(longest, 'x'));
    EXPECT_EQ(parts::shortened(std::string(longest + 1, 'x')), std::string(longest, 'x') + "...");
    EXPECT_EQ(parts::shown(std::string(longest, 'x')), std::string(longest, 'x'));
    EXPECT_EQ(parts::shown(std::string(longest + 1, 'x')), std::string(longest, 'x') + "...");
    // Between characters: U+20AC has three octets, U+1F600 four.
    for (const std::string& character : {std::string("\xE2\x82\xAC"), std::string("\xF0\x9F\x98\x80")}) {
        for (std::size_t before = longest - character.size(); before <= longest; ++before) {
            const std::string text = std::string(before, 'x') + character + character;
            const bool fits = before + character.size() <= longest;
            EXPECT_EQ(parts::shortened(text), std::string(before, 'x') + (fits ? character : "") + "...") << before;
        }
    }
    // Between escapes: \x0A stands for one octet, \\ for a backslash.
    const auto cut = [](std::size_t before, const std::string& rest) {
        return parts::shortened(std::string(before, 'x') + rest).substr(before);
    };
    EXPECT_EQ(cut(longest - 5, "\\x0Ayyy"), "\\x0Ay...");
    EXPECT_EQ(cut(longest - 4, "\\x0Ayyy"), "\\x0A...") << "what ends there is kept";
    EXPECT_EQ(cut(longest - 1, "y\\x0Ay"), "y...") << "what begins behind the end";
    EXPECT_EQ(cut(longest - 1, "yy\\x0Ay"), "y...");
    for (const std::size_t inside : {3U, 2U, 1U, 0U}) {
        EXPECT_EQ(cut(longest - inside, "\\x0Ayyy"), "...") << inside;
        EXPECT_EQ(cut(longest - inside, "\\\\yyyyy"), "...") << inside;
    }
}

TEST(TrustTexts, OfWhatIsNoReason) {
    parts::Details details;
    details.what = "something";
    details.whose = "CN=Anna";
    const Reason reason = parts::worded(static_cast<ReasonCode>(12345), details);
    EXPECT_EQ(reason.text, "the certificate of CN=Anna is refused: something") << "as of the reason without a name";
}

TEST(TrustTexts, OfTimesAndIdentifiers) {
    EXPECT_EQ(parts::dateOf(0), "1970-01-01 00:00:00 UTC");
    EXPECT_EQ(parts::dateOf(std::numeric_limits<std::time_t>::max()), "an unreadable time");
    EXPECT_EQ(parts::textOf(nullptr), "unknown");
    const std::unique_ptr<ASN1_OBJECT, decltype(&ASN1_OBJECT_free)> object(OBJ_txt2obj("1.2.3.4", 1),
                                                                           &ASN1_OBJECT_free);
    EXPECT_EQ(parts::textOf(object.get()), "1.2.3.4");
    EXPECT_EQ(parts::textOf(OBJ_nid2obj(NID_ecdsa_with_SHA256)), "ecdsa-with-SHA256");
    const std::unique_ptr<ASN1_OBJECT, decltype(&ASN1_OBJECT_free)> empty(ASN1_OBJECT_new(), &ASN1_OBJECT_free);
    EXPECT_EQ(parts::textOf(empty.get()), "unknown");
}

TEST(TrustKept, AsLongAsThereIsRoom) {
    CacheLimits limits;
    limits.entries = 2;
    limits.bytes = 100;
    parts::Cache cache(limits);
    const auto question = [](unsigned char number, std::uint64_t snapshot = 1) {
        parts::Question one{snapshot, {}};
        one.print[0] = number;
        return one;
    };
    const auto keep = [&](const parts::Question& one, std::size_t bytes, std::time_t from = 10,
                          std::time_t until = 20) { cache.keep(one, from, until, bytes, std::make_shared<Verdict>()); };
    EXPECT_EQ(cache.find(question(1), 10), nullptr);
    keep(question(1), 100);
    EXPECT_NE(cache.find(question(1), 10), nullptr) << "as many as there may be";
    EXPECT_EQ(cache.counts().bytes, 100U);
    EXPECT_EQ(cache.find(question(1), 9), nullptr);
    EXPECT_NE(cache.find(question(1), 19), nullptr);
    EXPECT_EQ(cache.find(question(1), 20), nullptr);
    keep(question(2), 101);
    EXPECT_EQ(cache.find(question(2), 10), nullptr) << "more than there may be";
    EXPECT_NE(cache.find(question(1), 10), nullptr) << "which took nobody's place";
    keep(question(2), 1, 10, 10);
    EXPECT_NE(cache.find(question(1), 10), nullptr) << "what holds for no moment takes nobody's place";
    keep(question(2), 1, 10, 11);
    EXPECT_NE(cache.find(question(2), 10), nullptr);
    EXPECT_EQ(cache.find(question(1), 10), nullptr);
    // The same question anew takes the place of the earlier answer.
    keep(question(2), 40);
    EXPECT_EQ(cache.counts().entries, 1U);
    EXPECT_EQ(cache.counts().bytes, 40U);
    keep(question(3), 60);
    EXPECT_EQ(cache.counts().entries, 2U);
    EXPECT_EQ(cache.counts().bytes, 100U);
    keep(question(4), 1);
    EXPECT_EQ(cache.counts().entries, 2U);
    EXPECT_EQ(cache.counts().bytes, 61U);
    EXPECT_EQ(cache.find(question(2), 10), nullptr);
    // A later snapshot: what was kept goes, to the octet, and the same question is another one.
    EXPECT_EQ(cache.find(question(3, 2), 10), nullptr);
    EXPECT_EQ(cache.counts().entries, 0U);
    EXPECT_EQ(cache.counts().bytes, 0U);
    keep(question(3), 1);
    EXPECT_EQ(cache.counts().entries, 0U) << "a judgement that began before";
    keep(question(3, 2), 100);
    EXPECT_NE(cache.find(question(3, 2), 10), nullptr);
    EXPECT_EQ(cache.counts().bytes, 100U);
}

TEST(TrustAddressLimits, LengthsOfAddressesAndDomains) {
    const std::string domain = "@example.org";
    const std::string longest = std::string(1024 - domain.size(), 'a') + domain;
    EXPECT_EQ(comparableAddress(longest), longest);
    EXPECT_EQ(comparableAddress("a" + longest), "");
    std::string names;
    for (int i = 0; i < 4; ++i) {
        names += std::string(62, 'x') + ".";
    }
    EXPECT_EQ(comparableAddress("a@" + names + "xyz"), "a@" + names + "xyz") << "255 octets (RFC 5321, 4.5.3.1.2)";
    EXPECT_EQ(comparableAddress("a@" + names + "xyzz"), "");
    EXPECT_EQ(comparableAddress("a@[" + std::string(253, 'x') + "]"), "a@[" + std::string(253, 'x') + "]");
    EXPECT_EQ(comparableAddress("a@[" + std::string(254, 'x') + "]"), "");
    EXPECT_EQ(comparableAddress("a@b"), "a@b");
    EXPECT_EQ(comparableAddress("a@[1]"), "a@[1]");
    EXPECT_EQ(comparableAddress("a@[]"), "");
}

TEST(TrustAddressLimits, OctetsOfDomainsAndLocalParts) {
    EXPECT_EQ(comparableAddress("A@AZaz09-_.x"), "A@azaz09-_.x");
    for (const char octet : {'@', '[', '`', '{', '/', ':', ' ', '\x7F', '\x1F', '!'}) {
        EXPECT_EQ(comparableAddress(std::string("a@b") + octet + "c"), "") << octet;
    }
    for (const std::string& inside :
         {std::string("a b"), std::string("a[b"), std::string("a]b"), std::string("a\\b"), std::string("a@b"),
          std::string("a\x1F"), std::string("a\x7F"), std::string("\xC3\xA4")}) {
        EXPECT_EQ(comparableAddress("a@[" + inside + "]"), "") << inside;
    }
    for (const std::string& local : {std::string("a\x7F"), std::string("a\x1F"), std::string("\"a\x7F\""),
                                     std::string("\"a\x1F\""), std::string("\"a\\\x7F\""), std::string("\"\\")}) {
        EXPECT_EQ(comparableAddress(local + "@b"), "") << local;
    }
    EXPECT_EQ(comparableAddress("\"a !\"@b"), "a !@b");
    EXPECT_EQ(comparableAddress("~@b"), "~@b");
    EXPECT_EQ(comparableAddress("\"a\\"), "");
    EXPECT_EQ(comparableAddress(std::string("a@b\xC3\xBC\0.example", 14)), "");
}
