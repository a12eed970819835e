#include "support/Interpose.h"
#include "support/Judge.h"
#include "support/Thrown.h"

#include <norvcrypto/DistinguishedName.h>

#include <authority/Authority.h>

#include <openssl/err.h>
#include <openssl/x509.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <memory>
#include <new>
#include <set>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <vector>

using namespace Norvane::Crypto::NVX509;
using norvauthority::Name;
using norvauthority::NamePtr;
using norvtest::errorQueueIsEmpty;

namespace {

bool s_withoutNames = false;

} // namespace

extern "C" X509_NAME* X509_NAME_new() {
    return s_withoutNames ? nullptr : norvtest::next<&X509_NAME_new>("X509_NAME_new")();
}

namespace {

DistinguishedName parsed(const std::string& text) {
    return DistinguishedName(text);
}

/// The text of a name with one attribute.
std::string printed(const norvauthority::NameEntry& entry) {
    const NamePtr name = Name{entry}.x509Name();
    return DistinguishedName(name.get()).asString();
}

NamePtr alice() {
    return Name{{"C", "US", V_ASN1_PRINTABLESTRING}, {"O", "Org"}, {"CN", "Alice"}}.x509Name();
}

std::vector<std::string> flat(const std::list<RDNPair>& pairs) {
    std::vector<std::string> texts;
    for (const RDNPair& pair : pairs) {
        texts.push_back(pair.type + "|" + pair.value);
    }
    return texts;
}

using Texts = std::vector<std::string>;

// ----------------------------------------------------------------------------------------------------- printing

TEST(DistinguishedNamePrinting, LastEntryFirst) {
    const NamePtr name = alice();
    const DistinguishedName dn(name.get());
    EXPECT_EQ(dn.asString(), "CN=Alice,O=Org,C=US");
    EXPECT_EQ(flat(dn.listRDN()), (Texts{"CN|Alice", "O|Org", "C|US"}));
    EXPECT_EQ(dn.asString(), "CN=Alice,O=Org,C=US");
    EXPECT_EQ(dn.listRDN().size(), 3U);
}

TEST(DistinguishedNamePrinting, ListAloneComputesTheText) {
    const NamePtr name = alice();
    const DistinguishedName dn(name.get());
    EXPECT_EQ(flat(dn.listRDN()), (Texts{"CN|Alice", "O|Org", "C|US"}));
    EXPECT_EQ(dn.asString(), "CN=Alice,O=Org,C=US");
}

TEST(DistinguishedNamePrinting, ShortNames) {
    EXPECT_EQ(printed({"emailAddress", "a@b.example", V_ASN1_IA5STRING}), "emailAddress=a@b.example");
    EXPECT_EQ(printed({"2.5.4.8", "Here"}), "ST=Here");
    EXPECT_EQ(printed({"2.5.4.11", "Unit"}), "OU=Unit");
    EXPECT_EQ(printed({"2.5.4.7", "Place"}), "L=Place");
    EXPECT_EQ(printed({"0.9.2342.19200300.100.1.25", "example", V_ASN1_IA5STRING}), "DC=example");
}

TEST(DistinguishedNamePrinting, UnknownTypesAreDotted) {
    EXPECT_EQ(printed({"1.3.6.1.4.1.99999.1", "x"}), "1.3.6.1.4.1.99999.1=x");
    EXPECT_TRUE(errorQueueIsEmpty());
}

TEST(DistinguishedNamePrinting, LongTypesAreCutTo79Characters) {
    std::string type = "1.3";
    while (type.size() < 100) {
        type += ".123456789";
    }
    EXPECT_EQ(printed({type, "x"}), type.substr(0, 79) + "=x");
}

TEST(DistinguishedNamePrinting, BytesOutsideAsciiAreEscaped) {
    EXPECT_EQ(printed({"CN", "a\nb"}), "CN=a\\x0Ab");
    EXPECT_EQ(printed({"CN", "caf\xE9", V_ASN1_T61STRING}), "CN=caf\\xE9");
    EXPECT_EQ(printed({"CN", "\xC3\xA9"}), "CN=\\xC3\\xA9");
    EXPECT_EQ(printed({"CN", std::string("\x1F ~\x7F\x80\xFF\0", 7), V_ASN1_T61STRING}),
              "CN=\\x1F ~\\x7F\\x80\\xFF\\x00");
    EXPECT_EQ(printed({"CN", std::string("\0A\0b", 4), V_ASN1_BMPSTRING}), "CN=\\x00A\\x00b");
}

TEST(DistinguishedNamePrinting, NothingElseIsEscapedDeliberately) {
    EXPECT_EQ(printed({"CN", "a,O=b+c\"d\\e;f<g>"}), "CN=a,O=b+c\"d\\e;f<g>");
    const NamePtr one = Name{{"CN", "x,O=y"}}.x509Name();
    const NamePtr two = Name{{"O", "y"}, {"CN", "x"}}.x509Name();
    EXPECT_EQ(DistinguishedName(one.get()).asString(), DistinguishedName(two.get()).asString());
    EXPECT_FALSE(DistinguishedName(one.get()) == DistinguishedName(two.get()));
}

/// The text of a common name made by hand: the decoder admits no GeneralString.
std::string commonName(const std::string& value, int stringType) {
    const NamePtr name(X509_NAME_new());
    X509_NAME_add_entry_by_txt(name.get(), "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("x"), 1, -1, 0);
    X509_NAME_ENTRY_set_data(X509_NAME_get_entry(name.get(), 0), stringType,
                             reinterpret_cast<const unsigned char*>(value.data()), static_cast<int>(value.size()));
    return DistinguishedName(name.get()).asString();
}

TEST(DistinguishedNamePrinting, GeneralStrings) {
    EXPECT_EQ(commonName(std::string("\0\0\0A\0\0\0b", 8), V_ASN1_GENERALSTRING), "CN=Ab");
    EXPECT_EQ(commonName(std::string("\0\0\0\xE9", 4), V_ASN1_GENERALSTRING), "CN=\\xE9");
    EXPECT_EQ(commonName(std::string("\0\0\0\0", 4), V_ASN1_GENERALSTRING), "CN=\\x00");
    EXPECT_EQ(commonName(std::string("x\0\0A\0\0\0b", 8), V_ASN1_GENERALSTRING), "CN=x\\x00\\x00A\\x00\\x00\\x00b");
    EXPECT_EQ(commonName(std::string("\0\0\0A\0y\0b", 8), V_ASN1_GENERALSTRING), "CN=\\x00\\x00\\x00A\\x00y\\x00b");
    EXPECT_EQ(commonName(std::string("\0\0z\0", 4), V_ASN1_GENERALSTRING), "CN=\\x00\\x00z\\x00");
    EXPECT_EQ(commonName("abcd", V_ASN1_GENERALSTRING), "CN=abcd");
    EXPECT_EQ(commonName("abc", V_ASN1_GENERALSTRING), "CN=abc");
    EXPECT_EQ(commonName(std::string("\0\0\0Ab", 5), V_ASN1_GENERALSTRING), "CN=\\x00\\x00\\x00Ab");
    EXPECT_EQ(commonName("", V_ASN1_GENERALSTRING), "CN=");
    // The rule is that of GeneralString alone.
    EXPECT_EQ(commonName(std::string("\0\0\0A", 4), V_ASN1_UTF8STRING), "CN=\\x00\\x00\\x00A");
    EXPECT_EQ(commonName(std::string("\0\0\0A", 4), V_ASN1_UNIVERSALSTRING), "CN=\\x00\\x00\\x00A");
}

TEST(DistinguishedNamePrinting, NameWithoutAttributes) {
    const NamePtr name = Name().x509Name();
    const DistinguishedName dn(name.get());
    EXPECT_FALSE(dn.isNull());
    EXPECT_EQ(dn.asString(), "");
    EXPECT_TRUE(dn.listRDN().empty());
}

TEST(DistinguishedNamePrinting, SeveralAttributesInOneStep) {
    const NamePtr name =
        Name{{"O", "Org"}, {"CN", "Alice"}, {.type = "OU", .value = "Unit", .joinsPreceding = true}}.x509Name();
    EXPECT_EQ(DistinguishedName(name.get()).asString(), "OU=Unit,CN=Alice,O=Org");
}

TEST(DistinguishedNamePrinting, AgreesWithTheOpenSSLProgram) {
    if (norvtest::run("openssl version").code != 0) {
        GTEST_SKIP() << "no openssl program";
    }
    const auto identity = norvauthority::issue(
        {.subject = {{"C", "US", V_ASN1_PRINTABLESTRING}, {"ST", "Ohio"}, {"O", "Org"}, {"CN", "Alice B"}}});
    const norvtest::TemporaryFolder folder;
    const auto& der = identity.certificate.der;
    const auto certificate = identity.certificate.x509();
    const DistinguishedName subject(X509_get_subject_name(certificate.get()));
    const std::string program = "openssl x509 -inform DER -noout -in " + folder.write("der", {der.begin(), der.end()});
    EXPECT_EQ("subject=" + subject.asString() + "\n", norvtest::run(program + " -subject -nameopt RFC2253").output);
    char hash[10];
    std::snprintf(hash, sizeof hash, "%08lx\n", subject.hash());
    EXPECT_EQ(hash, norvtest::run(program + " -subject_hash").output);
}

// ------------------------------------------------------------------------------------------------------ parsing

TEST(DistinguishedNameParsing, TypesAreUpperCasedAndBlanksDropped) {
    const DistinguishedName dn = parsed("cn = Alice , o=Org,C=US");
    EXPECT_EQ(dn.asString(), "CN=Alice,O=Org,C=US");
    EXPECT_EQ(X509_NAME_entry_count(dn.object()), 3);
    const NamePtr name = alice();
    EXPECT_TRUE(dn == name.get());
    EXPECT_TRUE(errorQueueIsEmpty());
}

TEST(DistinguishedNameParsing, NothingParsedIsTheNullName) {
    for (const char* text : {"", " , ,", "CN=", "CN= ", ",,,", "=", "===", " \t\r\n", "CN=,O= ,C="}) {
        const DistinguishedName dn = parsed(text);
        EXPECT_TRUE(dn.isNull()) << text;
        EXPECT_EQ(dn.asString(), "") << text;
        EXPECT_TRUE(dn.listRDN().empty()) << text;
        EXPECT_TRUE(dn == parsed(" , ,")) << text;
    }
}

struct Parse {
    const char* text;
    const char* printed;
};

void PrintTo(const Parse& parse, std::ostream* out) {
    *out << parse.text;
}

class DistinguishedNameScanner : public testing::TestWithParam<Parse> {};

TEST_P(DistinguishedNameScanner, PrintsAs) {
    EXPECT_EQ(parsed(GetParam().text).asString(), GetParam().printed);
    EXPECT_TRUE(errorQueueIsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Plain, DistinguishedNameScanner,
                         testing::Values(Parse{"CN=a", "CN=a"},                         //
                                         Parse{"CN=a,,O=X,", "CN=a,O=X"},               //
                                         Parse{",CN=a", "CN=a"},                        //
                                         Parse{"\tCN\n=\r a b \v,\fO=X", "CN=a b,O=X"}, //
                                         Parse{"CN==a", "CN=a"},                        //
                                         Parse{"CN=O=c", "O=c"},                        //
                                         Parse{"2.5.4.3=dotted", "CN=dotted"},          //
                                         Parse{"CN=one,CN=two", "CN=one,CN=two"},       //
                                         Parse{"CN=a;O=b", ""},                         //
                                         Parse{"CN=a+OU=b", ""},                        //
                                         Parse{"C=US,ST=Ohio,L=There", "C=US,ST=Ohio,L=There"}));

INSTANTIATE_TEST_SUITE_P(QuotesAndBackslashesOnlyProtect, DistinguishedNameScanner,
                         testing::Values(Parse{R"(CN="Smith, J",O=X)", R"(CN="Smith, J",O=X)"}, //
                                         Parse{R"(CN="a,b")", R"(CN="a,b")"},                   //
                                         Parse{R"(CN= "a,b" ,O=X)", R"(CN="a,b",O=X)"},         //
                                         Parse{R"(CN=J "a,b" K,O=X)", R"(CN=J "a,b" K,O=X)"},   //
                                         Parse{R"(CN="a=b")", R"(CN="a=b")"},                   //
                                         Parse{R"(CN=x"=y"z)", R"(CN=x"=y"z)"},                 //
                                         Parse{R"(CN="a\",b",O=X)", R"(CN="a\",b",O=X)"},       //
                                         Parse{R"(CN=a\,b,O=X)", R"(CN=a\,b,O=X)"},             //
                                         Parse{R"(CN=a\=b)", R"(CN=a\=b)"},                     //
                                         Parse{R"(CN=\x41)", R"(CN=\x41)"},                     //
                                         Parse{R"(CN=a\\,O=X)", R"(CN=a\\,O=X)"},               //
                                         Parse{R"(CN="")", R"(CN="")"}));

INSTANTIATE_TEST_SUITE_P(WhatIsLost, DistinguishedNameScanner,
                         testing::Values(Parse{R"(CN="open,O=X)", ""},           // ends inside quotes
                                         Parse{R"(O=X,CN="open)", "O=X"},        //
                                         Parse{R"(O=X,CN=a\)", "O=X"},           // ends after a backslash
                                         Parse{R"(CN=a\,O=X)", ""},              // the second "=" ends a type
                                         Parse{"CN=,O=X", "O=X"},                // no value
                                         Parse{"CN= ,O=X", "O=X"},               //
                                         Parse{"Alice,O=X", "O=X"},              // no type
                                         Parse{R"(="x",O=X)", "O=X"},            //
                                         Parse{R"("CN"=a,O=X)", ""},             // the second quote opens
                                         Parse{R"(O=X, "CN"=a)", "O=X"},         //
                                         Parse{"EMAILADDRESS=a@b.c,O=X", "O=X"}, // unknown once upper-cased
                                         Parse{"emailAddress=a@b.c,O=X", "O=X"}, //
                                         Parse{"serialNumber=5,O=X", "O=X"},     //
                                         Parse{"noSuchType=5,O=X", "O=X"},       //
                                         Parse{"C=USA,O=X", "O=X"},              // a country has two letters
                                         Parse{R"(\,CN=a)", "CN=a"},             // a first character is not examined
                                         Parse{R"("x,CN=a)", "CN=a"}));

TEST(DistinguishedNameParsing, KnownTypeButNothingAcceptedIsNoNullName) {
    const DistinguishedName dn = parsed("EMAILADDRESS=a@b.example");
    EXPECT_FALSE(dn.isNull());
    EXPECT_EQ(X509_NAME_entry_count(dn.object()), 0);
    EXPECT_EQ(dn.asString(), "");
    EXPECT_FALSE(dn == DistinguishedName());
    EXPECT_TRUE(errorQueueIsEmpty());
}

TEST(DistinguishedNameParsing, QuotedValueIsOneAttribute) {
    EXPECT_EQ(flat(parsed(R"(CN="Smith, J",O=X)").listRDN()), (Texts{R"(CN|"Smith, J")", "O|X"}));
}

TEST(DistinguishedNameParsing, EntriesAreInReverseAndSeparate) {
    const DistinguishedName dn = parsed("CN=Alice,OU=Unit,O=Org");
    ASSERT_EQ(X509_NAME_entry_count(dn.object()), 3);
    const std::vector<int> expected{NID_organizationName, NID_organizationalUnitName, NID_commonName};
    for (int i = 0; i < 3; ++i) {
        const X509_NAME_ENTRY* entry = X509_NAME_get_entry(dn.object(), i);
        EXPECT_EQ(OBJ_obj2nid(X509_NAME_ENTRY_get_object(entry)), expected.at(static_cast<std::size_t>(i)));
        EXPECT_EQ(X509_NAME_ENTRY_set(entry), i);
    }
}

TEST(DistinguishedNameParsing, HighBytesStayAsTheyAre) {
    EXPECT_EQ(parsed("CN=caf\xE9").asString(), "CN=caf\\xE9");
    EXPECT_EQ(parsed("CN=caf\xC3\xA9").asString(), "CN=caf\\xC3\\xA9");
    EXPECT_EQ(parsed("\xA0"
                     "CN=x,O=\xFF")
                  .asString(),
              "O=\\xFF");
    const NamePtr latin = Name{{"CN", "caf\xE9", V_ASN1_T61STRING}}.x509Name();
    EXPECT_TRUE(parsed("CN=caf\xE9") == latin.get());
    EXPECT_TRUE(errorQueueIsEmpty());
}

TEST(DistinguishedNameParsing, ZeroByteDoesNotEndAValueOrType) {
    using namespace std::string_literals;
    EXPECT_EQ(parsed("CN=good\0evil"s).asString(), "CN=good\\x00evil");
    EXPECT_FALSE(parsed("CN=good\0evil"s) == parsed("CN=good"));
    EXPECT_EQ(parsed("CN\0x=a,O=X"s).asString(), "O=X");
}

TEST(DistinguishedNameParsing, LongTexts) {
    std::string text;
    for (int i = 0; i < 2000; ++i) {
        text += "OU=u" + std::to_string(i) + ",";
    }
    const DistinguishedName dn = parsed(text);
    EXPECT_EQ(dn.listRDN().size(), 2000U);
    EXPECT_EQ(dn.asString() + ",", text);
    EXPECT_TRUE(parsed("CN=" + std::string(100000, 'x')).listRDN().empty());
    EXPECT_TRUE(parsed(std::string(100000, '"')).isNull());
    EXPECT_TRUE(errorQueueIsEmpty());
}

// ---------------------------------------------------------------------------------------------- entry stacks

struct FreeEntries {
    void operator()(STACK_OF(X509_NAME_ENTRY) * entries) const {
        sk_X509_NAME_ENTRY_pop_free(entries, X509_NAME_ENTRY_free);
    }
};
using EntriesPtr = std::unique_ptr<STACK_OF(X509_NAME_ENTRY), FreeEntries>;

EntriesPtr entriesOf(const Name& name) {
    const NamePtr from = name.x509Name();
    EntriesPtr entries(sk_X509_NAME_ENTRY_new_null());
    for (int i = 0; i < X509_NAME_entry_count(from.get()); ++i) {
        sk_X509_NAME_ENTRY_push(entries.get(), X509_NAME_ENTRY_dup(X509_NAME_get_entry(from.get(), i)));
    }
    return entries;
}

TEST(DistinguishedNameFromEntries, KeepsTheOrder) {
    EntriesPtr entries = entriesOf({{"C", "US", V_ASN1_PRINTABLESTRING}, {"O", "Org"}, {"CN", "Alice"}});
    const DistinguishedName dn(entries.get());
    const RefDistinguishedName handle(entries.get());
    entries.reset();
    const NamePtr name = alice();
    EXPECT_EQ(dn.asString(), "CN=Alice,O=Org,C=US");
    EXPECT_TRUE(dn == name.get());
    EXPECT_EQ(handle->asString(), "CN=Alice,O=Org,C=US");
}

TEST(DistinguishedNameFromEntries, TypesAreNotUpperCased) {
    const EntriesPtr entries = entriesOf({{"emailAddress", "a@b.example", V_ASN1_IA5STRING}});
    EXPECT_EQ(DistinguishedName(entries.get()).asString(), "emailAddress=a@b.example");
}

TEST(DistinguishedNameFromEntries, EscapedValuesStayEscapedDeliberately) {
    const EntriesPtr entries = entriesOf({{"CN", "caf\xC3\xA9"}});
    const DistinguishedName dn(entries.get());
    EXPECT_EQ(dn.asString(), "CN=caf\\xC3\\xA9");
    EXPECT_EQ(X509_NAME_entry_count(dn.object()), 1);
    EXPECT_EQ(ASN1_STRING_length(X509_NAME_ENTRY_get_data(X509_NAME_get_entry(dn.object(), 0))), 11);
}

TEST(DistinguishedNameFromEntries, CommasDoNotSplit) {
    const EntriesPtr entries = entriesOf({{"CN", "Smith, J=K"}});
    EXPECT_EQ(flat(DistinguishedName(entries.get()).listRDN()), (Texts{"CN|Smith, J=K"}));
}

TEST(DistinguishedNameFromEntries, NoEntriesGiveTheNullName) {
    const EntriesPtr empty(sk_X509_NAME_ENTRY_new_null());
    EXPECT_TRUE(DistinguishedName(empty.get()).isNull());
    EXPECT_TRUE(DistinguishedName(static_cast<const stack_st_X509_NAME_ENTRY*>(nullptr)).isNull());
    EXPECT_TRUE(errorQueueIsEmpty());
}

// --------------------------------------------------------------------------------------------------- comparison

TEST(DistinguishedNameComparison, NullNames) {
    const DistinguishedName null;
    const DistinguishedName alsoNull(static_cast<const X509_name_st*>(nullptr));
    const DistinguishedName name = parsed("CN=a");
    EXPECT_TRUE(null == alsoNull);
    EXPECT_FALSE(null != alsoNull);
    EXPECT_FALSE(null == name);
    EXPECT_FALSE(name == null);
    EXPECT_TRUE(name != null);
    EXPECT_TRUE(null == static_cast<const X509_name_st*>(nullptr));
    EXPECT_FALSE(name == static_cast<const X509_name_st*>(nullptr));
    EXPECT_FALSE(null == name.object());
}

TEST(DistinguishedNameComparison, AsOpenSSLCompares) {
    EXPECT_TRUE(parsed("CN=alice") == parsed("CN=ALICE"));
    EXPECT_TRUE(parsed("CN=alice  b") == parsed("CN=Alice B"));
    EXPECT_FALSE(parsed("CN=alice") == parsed("O=alice"));
    EXPECT_FALSE(parsed("CN=a,O=b") == parsed("O=b,CN=a"));
    const NamePtr printable = Name{{"CN", "alice", V_ASN1_PRINTABLESTRING}}.x509Name();
    EXPECT_TRUE(parsed("CN=alice") == printable.get());
}

TEST(DistinguishedNameComparison, Hash) {
    EXPECT_EQ(DistinguishedName().hash(), 0UL);
    const NamePtr name = alice();
    const DistinguishedName dn(name.get());
    EXPECT_EQ(dn.hash(), X509_NAME_hash_ex(name.get(), nullptr, nullptr, nullptr));
    EXPECT_EQ(dn.hash(), parsed("CN=ALICE,O=org,C=us").hash());
    EXPECT_NE(dn.hash(), parsed("CN=Bob").hash());
}

TEST(DistinguishedNameComparison, OrderIsThatOfTheHashes) {
    const std::vector<std::string> texts{"CN=a", "CN=b", "CN=c", "CN=d", "O=a", "O=b"};
    for (const auto& left : texts) {
        for (const auto& right : texts) {
            const auto leftHash = static_cast<std::uint32_t>(parsed(left).hash());
            const auto rightHash = static_cast<std::uint32_t>(parsed(right).hash());
            EXPECT_EQ(parsed(left) < parsed(right), leftHash < rightHash) << left << " < " << right;
        }
    }
    EXPECT_TRUE(DistinguishedName() < parsed("CN=a"));
    EXPECT_FALSE(parsed("CN=a") < DistinguishedName());
    EXPECT_FALSE(DistinguishedName() < DistinguishedName()); // NOLINT(misc-redundant-expression)
}

/// Two texts whose names have one hash: among some 100,000 names two share 32 bits.
std::pair<std::string, std::string> hashTwins() {
    std::unordered_map<unsigned long, int> seen;
    for (int i = 0; i < 1000000; ++i) {
        const auto [found, isNew] = seen.emplace(parsed("CN=" + std::to_string(i)).hash(), i);
        if (!isNew) {
            return {"CN=" + std::to_string(found->second), "CN=" + std::to_string(i)};
        }
    }
    return {};
}

TEST(DistinguishedNameComparison, NamesWithOneHashAreEquivalentDeliberately) {
    const auto [first, second] = hashTwins();
    ASSERT_NE(first, second);
    const DistinguishedName a = parsed(first);
    const DistinguishedName b = parsed(second);
    ASSERT_EQ(a.hash(), b.hash());
    EXPECT_FALSE(a < b);
    EXPECT_FALSE(b < a);
    EXPECT_FALSE(a == b);
    EXPECT_EQ((std::set<DistinguishedName>{a, b}.size()), 1U);
}

// ------------------------------------------------------------------------------------------------------- parent

TEST(DistinguishedNameParent, DropsTheFirstComponentOfTheText) {
    const NamePtr name = alice();
    const RefDistinguishedName parent = getParent(DistinguishedName(name.get()));
    ASSERT_TRUE(parent);
    EXPECT_EQ(parent->asString(), "O=Org,C=US");
    const RefDistinguishedName grandParent = getParent(parent);
    ASSERT_TRUE(grandParent);
    EXPECT_EQ(grandParent->asString(), "C=US");
    EXPECT_FALSE(getParent(grandParent));
    EXPECT_FALSE(getParent(getParent(grandParent)));
}

TEST(DistinguishedNameParent, EmptyOfEmpty) {
    EXPECT_FALSE(getParent(DistinguishedName()));
    EXPECT_FALSE(getParent(RefDistinguishedName()));
    EXPECT_FALSE(getParent(parsed("C=US")));
    const NamePtr nothing = Name().x509Name();
    EXPECT_FALSE(getParent(DistinguishedName(nothing.get())));
}

TEST(DistinguishedNameParent, IsParsedFromTheTextDeliberately) {
    // A type with lower-case letters vanishes, a comma splits, an escape stays text.
    const NamePtr mail =
        Name{{"emailAddress", "a@b.example", V_ASN1_IA5STRING}, {"O", "Org"}, {"CN", "Alice"}}.x509Name();
    EXPECT_EQ(getParent(DistinguishedName(mail.get()))->asString(), "O=Org");
    const NamePtr comma = Name{{"O", "Org, OU=Unit"}, {"CN", "Alice"}}.x509Name();
    EXPECT_EQ(flat(getParent(DistinguishedName(comma.get()))->listRDN()), (Texts{"O|Org", "OU|Unit"}));
    const NamePtr umlaut = Name{{"O", "\xC3\xA9"}, {"CN", "Alice"}}.x509Name();
    const RefDistinguishedName parent = getParent(DistinguishedName(umlaut.get()));
    EXPECT_EQ(parent->asString(), "O=\\xC3\\xA9");
    EXPECT_FALSE(*parent == parsed("O=\xC3\xA9"));
    EXPECT_TRUE(errorQueueIsEmpty());
}

TEST(DistinguishedNameParent, OfWhichNothingIsLeft) {
    const NamePtr name = Name{{"C", "US"}, {"CN", "Alice"}}.x509Name();
    EXPECT_EQ(getParent(DistinguishedName(name.get()))->asString(), "C=US");
    const NamePtr unknown = Name{{"1.3.6.1.4.1.99999.1", ""}, {"CN", "Alice"}}.x509Name();
    const RefDistinguishedName parent = getParent(DistinguishedName(unknown.get()));
    ASSERT_TRUE(parent); // a handle on the null name: the text "1.3.6.1.4.1.99999.1=" has no value
    EXPECT_TRUE(parent->isNull());
}

// ---------------------------------------------------------------------------------------------------- ownership

TEST(DistinguishedNameOwnership, BorrowingCopiesAsBorrowing) {
    const NamePtr name = alice();
    const DistinguishedName dn(name.get());
    const DistinguishedName copy = dn; // NOLINT(performance-unnecessary-copy-initialization)
    EXPECT_EQ(dn.object(), name.get());
    EXPECT_EQ(copy.object(), name.get());
}

TEST(DistinguishedNameOwnership, OwningCopiesDeeply) {
    DistinguishedName copy;
    {
        const DistinguishedName owner = parsed("CN=Alice,O=Org");
        copy = owner;
        EXPECT_NE(copy.object(), owner.object());
        EXPECT_TRUE(copy == owner);
    }
    EXPECT_EQ(copy.asString(), "CN=Alice,O=Org");
}

// OpenSSL decodes no more than a mebibyte of a name, and copies by encoding and decoding.
TEST(DistinguishedNameOwnership, LongNamesAreCopiedWhole) {
    std::string text = "CN=first";
    for (int i = 0; i < 20000; ++i) {
        text += ",CN=" + std::string(60, 'x');
    }
    const DistinguishedName owner = parsed(text);
    const DistinguishedName copy = owner; // NOLINT(performance-unnecessary-copy-initialization)
    ASSERT_FALSE(copy.isNull());
    EXPECT_NE(copy.object(), owner.object());
    EXPECT_TRUE(copy == owner);
    EXPECT_EQ(copy.asString(), text);
    EXPECT_TRUE(errorQueueIsEmpty());
}

TEST(DistinguishedNameOwnership, WithoutMemoryNoNameTurnsIntoTheNullName) {
    const DistinguishedName owner = parsed("CN=Alice");
    const DistinguishedName null;
    const norvtest::During<bool> failing(s_withoutNames, true);
    EXPECT_THROW(const DistinguishedName copy(owner), std::bad_alloc);
    EXPECT_THROW(parsed("CN=Alice"), std::bad_alloc);
    EXPECT_TRUE(DistinguishedName(null).isNull());
    EXPECT_TRUE(parsed("").isNull());
}

TEST(DistinguishedNameOwnership, HandlesShare) {
    RefDistinguishedName second;
    EXPECT_FALSE(second);
    {
        const RefDistinguishedName first(std::string("CN=Alice"));
        second = first;
        EXPECT_EQ(first.get(), second.get());
        EXPECT_EQ(first.use_count(), 2);
    }
    EXPECT_EQ(second.use_count(), 1);
    EXPECT_EQ(second->asString(), "CN=Alice");
}

TEST(DistinguishedNameOwnership, AccessorsLeaveEarlierErrorsAlone) {
    ERR_clear_error();
    ERR_raise(ERR_LIB_USER, 7);
    const DistinguishedName dn = parsed("NOSUCHTYPE=a,C=USA,CN=b");
    EXPECT_EQ(dn.asString(), "CN=b");
    EXPECT_NE(dn.hash(), 0UL);
    EXPECT_EQ(ERR_GET_REASON(ERR_get_error()), 7);
    EXPECT_TRUE(errorQueueIsEmpty());
}

// Names that no proper issuer writes: wrapped and empty types, odd strings, steps without attributes.
TEST(DistinguishedNameHostile, OddNamesPrint) {
    using norvauthority::fromHex;
    const NamePtr wrapped =
        Name{{.type = "", .value = "x", .rawOid = fromHex("2a864886f70d01079080808003")}}.x509Name();
    EXPECT_EQ(DistinguishedName(wrapped.get()).asString(), "1.2.840.113549.1.7.4294967299=x");
    const NamePtr bits = Name{{.type = "CN", .rawValue = norvauthority::der::bitString(fromHex("ff00"))}}.x509Name();
    EXPECT_EQ(DistinguishedName(bits.get()).asString(), "CN=\\xFF\\x00");
    const NamePtr sequence = Name{{.type = "CN", .rawValue = fromHex("3003020105")}}.x509Name();
    EXPECT_EQ(DistinguishedName(sequence.get()).asString(), "CN=0\\x03\\x02\\x01\\x05");
    const NamePtr emptyStep = Name::fromDer(fromHex("30023100")).x509Name();
    EXPECT_EQ(DistinguishedName(emptyStep.get()).asString(), "");
    EXPECT_TRUE(DistinguishedName(wrapped.get()) == DistinguishedName(wrapped.get()));
    EXPECT_TRUE(errorQueueIsEmpty());
}

TEST(RelativeDistinguishedNames, KeepNothingOfTheirEntryAndNeedNone) {
    NamePtr name = Name{{.type = "CN", .value = "x"}}.x509Name();
    const RelativeDistinguishedName step(X509_NAME_get_entry(name.get(), 0));
    EXPECT_EQ(DistinguishedName(name.get()).asString(), "CN=x");
    name.reset();
    const RelativeDistinguishedName none(nullptr);
    EXPECT_TRUE(errorQueueIsEmpty());
}

static_assert(std::is_empty_v<RelativeDistinguishedName>);
static_assert(std::is_constructible_v<RelativeDistinguishedName, const X509_name_entry_st*>);
static_assert(std::is_base_of_v<boost::shared_ptr<DistinguishedName>, RefDistinguishedName>);
static_assert(std::is_polymorphic_v<DistinguishedName>);

} // namespace
