#include "support/HostileDer.h"
#include "support/RecordedLog.h"
#include "support/Thrown.h"

#include <norvcrypto/Extension.h>

#include <authority/Authority.h>

#include <openssl/x509v3.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

using Norvane::Crypto::NVX509::GeneralName;
using norvauthority::Bytes;
using norvtest::errorQueueIsEmpty;
using Issued = norvauthority::GeneralName;

namespace {

struct FreeName {
    void operator()(GENERAL_NAME* name) const { GENERAL_NAME_free(name); }
};
using NamePtr = std::unique_ptr<GENERAL_NAME, FreeName>;

NamePtr decoded(const Issued& issued) {
    const unsigned char* at = issued.der.data();
    return NamePtr(d2i_GENERAL_NAME(nullptr, &at, static_cast<long>(issued.der.size())));
}

/// Keeps what is logged while a test runs.
class GeneralNameTest : public testing::Test {
protected:
    [[nodiscard]] std::vector<Norvane::LogRecord> logged() const { return m_log.records(); }

private:
    const norvtest::RecordedLog m_log;
};

TEST_F(GeneralNameTest, NullName) {
    const GeneralName null(nullptr);
    EXPECT_EQ(null.type(), -1);
    EXPECT_EQ(null.object(), nullptr);
    EXPECT_TRUE(null.dn().isNull());
    EXPECT_TRUE(null.uri().isNull());
    EXPECT_TRUE(null.ipAddress().isNull());
    EXPECT_TRUE(null.emailAddress().isEmptyAddress());
    EXPECT_TRUE(logged().empty());
}

TEST_F(GeneralNameTest, NullNamesAreEqual) {
    const NamePtr object = decoded(Issued::dns("example.org"));
    const GeneralName null(nullptr);
    const GeneralName otherNull(nullptr);
    const GeneralName name(object.get());
    EXPECT_TRUE(null == otherNull);
    EXPECT_FALSE(null != otherNull);
    EXPECT_FALSE(null == name);
    EXPECT_FALSE(name == null);
}

// RFC 5280, 4.2.1.6: the tags of a GeneralName.
TEST_F(GeneralNameTest, Types) {
    const Bytes text = norvauthority::der::element(V_ASN1_UTF8STRING, norvauthority::bytes("a@b"));
    const std::vector<std::pair<int, Issued>> issued{{0, Issued::otherName("1.3.6.1.4.1.311.20.2.3", text)},
                                                     {1, Issued::email("a@example.org")},
                                                     {2, Issued::dns("example.org")},
                                                     {4, Issued::directory({{"CN", "Alice"}})},
                                                     {5, Issued::raw(norvauthority::fromHex("a505a1030c0141"))},
                                                     {6, Issued::uri("http://example.org/")},
                                                     {7, Issued::ip("192.0.2.1")},
                                                     {8, Issued::registeredId("1.2.3")}};
    for (const auto& [type, name] : issued) {
        const NamePtr object = decoded(name);
        ASSERT_NE(object, nullptr) << type;
        EXPECT_EQ(GeneralName(object.get()).type(), type);
    }
    const NamePtr x400(GENERAL_NAME_new());
    x400->type = GEN_X400;
    EXPECT_EQ(GeneralName(x400.get()).type(), 3);
}

TEST_F(GeneralNameTest, Equality) {
    const NamePtr first = decoded(Issued::dns("example.org"));
    const NamePtr same = decoded(Issued::dns("example.org"));
    const NamePtr other = decoded(Issued::dns("example.com"));
    const NamePtr uri = decoded(Issued::uri("example.org"));
    const NamePtr alice = decoded(Issued::directory({{"CN", "Alice"}}));
    const NamePtr alsoAlice = decoded(Issued::directory({{"CN", "ALICE", V_ASN1_PRINTABLESTRING}}));
    EXPECT_TRUE(GeneralName(first.get()) == GeneralName(same.get()));
    EXPECT_FALSE(GeneralName(first.get()) == GeneralName(other.get()));
    EXPECT_TRUE(GeneralName(first.get()) != GeneralName(other.get()));
    EXPECT_FALSE(GeneralName(first.get()) == GeneralName(uri.get()));
    EXPECT_TRUE(GeneralName(alice.get()) == GeneralName(alsoAlice.get()));
    EXPECT_FALSE(GeneralName(alice.get()) == GeneralName(first.get()));
    EXPECT_TRUE(errorQueueIsEmpty());
}

TEST_F(GeneralNameTest, DirectoryName) {
    const NamePtr object = decoded(Issued::directory({{"C", "US", V_ASN1_PRINTABLESTRING}, {"CN", "Alice"}}));
    const GeneralName name(object.get());
    EXPECT_EQ(name.dn().asString(), "CN=Alice,C=US");
    EXPECT_EQ(name.dn().object(), object->d.directoryName);
    EXPECT_EQ(&name.dn(), &name.dn());
    EXPECT_TRUE(name.uri().isNull());
    EXPECT_TRUE(name.ipAddress().isNull());
    EXPECT_TRUE(name.emailAddress().isEmptyAddress());
}

TEST_F(GeneralNameTest, UniformResourceIdentifier) {
    const NamePtr object = decoded(Issued::uri("http://ca.example:8080/list.crl?x=1"));
    const GeneralName name(object.get());
    EXPECT_EQ(name.uri().text(), "http://ca.example:8080/list.crl?x=1");
    EXPECT_EQ(name.uri().host(), "ca.example");
    EXPECT_TRUE(name.dn().isNull());
    EXPECT_TRUE(name.emailAddress().isEmptyAddress());
    EXPECT_TRUE(logged().empty());
}

TEST_F(GeneralNameTest, UriWithZeroByteIsNeitherCutNorAccepted) {
    const NamePtr object = decoded(Issued::uri(std::string("http://good.example/\0.evil", 26)));
    ASSERT_NE(object, nullptr);
    EXPECT_TRUE(GeneralName(object.get()).uri().isNull());
    const NamePtr empty = decoded(Issued::uri(""));
    EXPECT_TRUE(GeneralName(empty.get()).uri().isNull());
}

TEST_F(GeneralNameTest, IpAddresses) {
    const NamePtr four = decoded(Issued::ip(std::string("\xC0\x00\x02\x01", 4)));
    const GeneralName v4(four.get());
    EXPECT_TRUE(v4.ipAddress().isV4());
    EXPECT_EQ(v4.ipAddress().asString(), "192.0.2.1");
    const NamePtr sixteen = decoded(Issued::ip("2001:db8::1"));
    const GeneralName v6(sixteen.get());
    EXPECT_TRUE(v6.ipAddress().isV6());
    EXPECT_EQ(v6.ipAddress().octets(), std::string("\x20\x01\x0D\xB8\0\0\0\0\0\0\0\0\0\0\0\x01", 16));
    // Octets that spell an address stay octets.
    const NamePtr spelled = decoded(Issued::raw(norvauthority::fromHex("87043a3a6162"))); // "::ab"
    EXPECT_EQ(GeneralName(spelled.get()).ipAddress().asString(), "58.58.97.98");
}

TEST_F(GeneralNameTest, IpAddressesOfOtherLengths) {
    for (const char* hex : {"8700", "870101", "8703c00002", "8705c000020101", "8708c0000201ffffff00"}) {
        const NamePtr object = decoded(Issued::raw(norvauthority::fromHex(hex)));
        ASSERT_NE(object, nullptr) << hex;
        EXPECT_TRUE(GeneralName(object.get()).ipAddress().isNull()) << hex;
    }
}

TEST_F(GeneralNameTest, EmailAddress) {
    const NamePtr object = decoded(Issued::email("Fred.Bloggs@example.com"));
    const GeneralName name(object.get());
    EXPECT_EQ(name.emailAddress().address(), "Fred.Bloggs@example.com");
    EXPECT_TRUE(name.uri().isNull());
    EXPECT_TRUE(name.dn().isNull());
    EXPECT_TRUE(logged().empty());
}

TEST_F(GeneralNameTest, InvalidEmailAddressIsLoggedOncePerCall) {
    const NamePtr object = decoded(Issued::email("no at sign"));
    const GeneralName name(object.get());
    EXPECT_TRUE(name.emailAddress().isEmptyAddress());
    EXPECT_EQ(name.emailAddress().address(), "");
    const auto records = logged();
    ASSERT_EQ(records.size(), 2U);
    for (const Norvane::LogRecord& record : records) {
        EXPECT_EQ(record.event, 0x4000000U);
        EXPECT_EQ(record.level, 0);
        EXPECT_EQ(record.format, "%d\x01%s");
        EXPECT_EQ(record.fields,
                  (std::vector<std::string>{"7", "GeneralName::emailAddress: invalid address no at sign"}));
    }
}

TEST_F(GeneralNameTest, EmailAddressIsParsedAnewOnEveryCallDeliberately) {
    const NamePtr object = decoded(Issued::email("a@example.org"));
    const GeneralName name(object.get());
    EXPECT_EQ(name.emailAddress().address(), "a@example.org");
    ASN1_STRING_set(object->d.rfc822Name, "b@example.org", -1);
    EXPECT_EQ(name.emailAddress().address(), "b@example.org");
    ASN1_STRING_set(object->d.rfc822Name, "broken", -1);
    EXPECT_TRUE(name.emailAddress().isEmptyAddress());
    EXPECT_EQ(logged().size(), 1U);
}

TEST_F(GeneralNameTest, UriIsKept) {
    const NamePtr object = decoded(Issued::uri("http://a.example/"));
    const GeneralName name(object.get());
    EXPECT_EQ(name.uri().host(), "a.example");
    ASN1_STRING_set(object->d.uniformResourceIdentifier, "http://b.example/", -1);
    EXPECT_EQ(name.uri().host(), "a.example");
}

TEST_F(GeneralNameTest, EmailAddressWithZeroByteIsNeitherCutNorAccepted) {
    const NamePtr object = decoded(Issued::email(std::string("good@example.org\0@evil.example", 30)));
    ASSERT_NE(object, nullptr);
    EXPECT_TRUE(GeneralName(object.get()).emailAddress().isEmptyAddress());
    const auto records = logged();
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].fields[1], R"(GeneralName::emailAddress: invalid address good@example.org\x00@evil.example)");
}

TEST_F(GeneralNameTest, OddEmailAddressesAreEmptyAndLogged) {
    for (const std::string& text : {std::string(), std::string("a@b@c"), std::string("a@example.org\r\nBcc: b@c.d"),
                                    std::string("<a@example.org>"), std::string("\xC3\xA9@example.org")}) {
        const NamePtr object = decoded(Issued::email(text));
        EXPECT_TRUE(GeneralName(object.get()).emailAddress().isEmptyAddress()) << text;
    }
    const auto records = logged();
    ASSERT_EQ(records.size(), 5U);
    EXPECT_EQ(records[0].fields[1], "GeneralName::emailAddress: invalid address ");
    EXPECT_EQ(records[2].fields[1], "GeneralName::emailAddress: invalid address a@example.org\r\nBcc: b@c.d");
}

TEST_F(GeneralNameTest, CopiesBorrowTheSameEntry) {
    const NamePtr object = decoded(Issued::directory({{"CN", "Alice"}}));
    const GeneralName name(object.get());
    static_cast<void>(name.dn());
    const GeneralName copy = name;
    EXPECT_EQ(copy.object(), object.get());
    EXPECT_EQ(copy.dn().object(), object->d.directoryName);
    EXPECT_TRUE(copy == name);
    const NamePtr other = decoded(Issued::dns("example.org"));
    GeneralName assigned(other.get());
    EXPECT_EQ(assigned.type(), 2);
    assigned = name;
    EXPECT_EQ(assigned.type(), 4);
}

// Whoever issues a certificate may put half a million names of two octets into it.
TEST_F(GeneralNameTest, TakesLittleRoom) {
    EXPECT_LE(sizeof(GeneralName), 4 * sizeof(void*));
}

TEST_F(GeneralNameTest, CopiesHoldTheirOwnValues) {
    const NamePtr uri = decoded(Issued::uri("http://ca.example/"));
    GeneralName first(uri.get());
    EXPECT_EQ(first.uri().host(), "ca.example");
    const GeneralName copy = first;
    EXPECT_EQ(copy.uri().host(), "ca.example");
    EXPECT_NE(&copy.uri(), &first.uri());
    const GeneralName& same = first;
    first = same;
    EXPECT_EQ(first.uri().host(), "ca.example");
    const NamePtr address = decoded(Issued::ip("192.0.2.1"));
    first = GeneralName(address.get());
    EXPECT_TRUE(first.uri().isNull());
    EXPECT_TRUE(first.ipAddress().isV4());
    EXPECT_TRUE(first.dn().isNull());
    EXPECT_TRUE(first.emailAddress().isEmptyAddress());
}

TEST_F(GeneralNameTest, MissingStrings) {
    const NamePtr email(GENERAL_NAME_new());
    email->type = GEN_EMAIL;
    const NamePtr uri(GENERAL_NAME_new());
    uri->type = GEN_URI;
    const NamePtr address(GENERAL_NAME_new());
    address->type = GEN_IPADD;
    EXPECT_TRUE(GeneralName(email.get()).emailAddress().isEmptyAddress());
    EXPECT_TRUE(GeneralName(uri.get()).uri().isNull());
    EXPECT_TRUE(GeneralName(address.get()).ipAddress().isNull());
    EXPECT_TRUE(logged().empty());
}

} // namespace
