// Ties a certificate to the sender of a mail.

#include "Chains.h"

#include <norvcrypto-trust/TrustSender.h>

#include <gmock/gmock.h>

using namespace trusttesting;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

using Code = ReasonCode;
using norvauthority::Bytes;

GeneralName utf8Mailbox(const std::string& address) {
    return GeneralName::otherName("1.3.6.1.5.5.7.8.9",
                                  norvauthority::der::element(0x0C, norvauthority::bytes(address)));
}

class TrustSender : public TrustTest {
protected:
    [[nodiscard]] RefCertificate with(const std::vector<GeneralName>& names) const {
        return read(user(m_root, {.alternativeNames = names}));
    }
    [[nodiscard]] RefCertificate with(const std::string& address) const { return with({GeneralName::email(address)}); }
    static std::string judged(const RefCertificate& certificate, const std::vector<std::string>& from,
                              const std::string& sender = "") {
        const SenderMatch match = matchSender(certificate, from, sender);
        return std::string(nameOf(match.relation)) + " " + codesOf(match.reasons);
    }
};

TEST_F(TrustSender, LocalPartsExactlyDomainsWithoutCase) {
    const RefCertificate anna = with("anna@example.org");
    EXPECT_EQ(judged(anna, {"anna@example.org"}), "from ");
    EXPECT_EQ(judged(anna, {"anna@EXAMPLE.Org"}), "from ");
    EXPECT_EQ(judged(anna, {"Anna@example.org"}), "none sender-differs 0") << "RFC 5321, 2.4";
    EXPECT_EQ(judged(anna, {"anna@mail.example.org"}), "none sender-differs 0");
    EXPECT_EQ(judged(anna, {"anna@example.orgx"}), "none sender-differs 0");
    EXPECT_EQ(judged(anna, {"\"anna\"@example.org"}), "from ") << "quotes are no part of it";
    EXPECT_EQ(judged(anna, {"\"an\\na\"@example.org"}), "from ");
}

TEST_F(TrustSender, TheTextNamesBoth) {
    const SenderMatch match = matchSender(with("bob@example.net"), {"anna@example.org"});
    EXPECT_FALSE(match.matches());
    EXPECT_EQ(match.reasons[0].text,
              "the certificate is for bob@example.net, and not for anna@example.org, from whom the message says it is");
    EXPECT_THAT(match.certified, ElementsAre("bob@example.net"));
    EXPECT_THAT(match.uncertified, ElementsAre("anna@example.org"));
}

TEST_F(TrustSender, SeveralFromAddressesNeedAll) {
    const RefCertificate both = with({GeneralName::email("anna@example.org"), GeneralName::email("bob@example.org")});
    EXPECT_EQ(judged(both, {"anna@example.org", "bob@example.org"}), "from ");
    EXPECT_EQ(judged(with("anna@example.org"), {"anna@example.org", "bob@example.org"}), "none sender-differs 0");
    EXPECT_EQ(judged(both, {"bob@example.org", "carl@example.org"}), "none sender-differs 0");
}

TEST_F(TrustSender, TheSenderIsNotTheAuthor) {
    const RefCertificate secretary = with("secretary@example.org");
    EXPECT_EQ(judged(secretary, {"boss@example.org"}, "secretary@example.org"), "sender sender-field-only 0");
    EXPECT_EQ(judged(secretary, {"secretary@example.org"}, "boss@example.org"), "from ");
    EXPECT_EQ(judged(secretary, {"boss@example.org"}, "other@example.org"), "none sender-differs 0");
    EXPECT_EQ(judged(secretary, {}, "secretary@example.org"), "sender sender-missing 0");
    EXPECT_FALSE(matchSender(secretary, {"boss@example.org"}, "secretary@example.org").matches());
}

TEST_F(TrustSender, WhatIsMissing) {
    EXPECT_EQ(judged(RefCertificate(), {"anna@example.org"}), "none certificate-missing 0");
    EXPECT_EQ(judged(with("anna@example.org"), {}), "none sender-missing 0");
    EXPECT_EQ(judged(with({GeneralName::dns("example.org")}), {"anna@example.org"}),
              "none certificate-without-address 0");
    EXPECT_EQ(judged(with("anna@example.org"), {"anna"}), "none address-invalid 0, sender-differs 0");
}

TEST_F(TrustSender, AddressesInTheSubject) {
    CertificateRequest request;
    request.subject = {{"CN", "Anna"}, {"emailAddress", "anna@example.org", 22}, {"emailAddress", "a@example.net", 22}};
    request.key = key(9);
    request.issuer = &m_root;
    const RefCertificate anna = read(norvauthority::issue(request));
    EXPECT_EQ(judged(anna, {"anna@example.org"}), "from ");
    EXPECT_EQ(judged(anna, {"a@EXAMPLE.net"}), "from ");
    request.subject = {{"emailAddress", "anna@example.org", 22}, {"CN", "Anna"}};
    EXPECT_EQ(judged(read(norvauthority::issue(request)), {"anna@example.org"}), "from ") << "in the first place";
}

/// RFC 9598, 3: a UTF8String under the identifier of mailboxes, and nothing else.
TEST_F(TrustSender, OtherNamesThatAreNoMailboxes) {
    const Bytes address = norvauthority::bytes("\xC3\xA4nna@example.org");
    EXPECT_EQ(judged(with({GeneralName::otherName("1.3.6.1.5.5.7.8.9", norvauthority::der::element(0x16, address))}),
                     {"\xC3\xA4nna@example.org"}),
              "none certificate-without-address 0");
    EXPECT_EQ(
        judged(with({GeneralName::otherName("1.3.6.1.4.1.311.20.2.3", norvauthority::der::element(0x0C, address))}),
               {"\xC3\xA4nna@example.org"}),
        "none certificate-without-address 0");
}

TEST_F(TrustSender, ThreeAddressesAreTold) {
    std::vector<GeneralName> names;
    for (const char* behind : {"a", "a, b", "a, b, c", "a, b, c and 1 other", "a, b, c and 2 others"}) {
        names.push_back(GeneralName::email(std::string(1, static_cast<char>('a' + names.size())) + "@x"));
        const RefCertificate many = with(names);
        const SenderMatch match = matchSender(many, {"z@x"});
        ASSERT_EQ(match.reasons.size(), 1U);
        std::string text = behind;
        for (const char* letter : {"a", "b", "c"}) {
            const std::size_t at = text.find(letter);
            if (at != std::string::npos && (at + 1 == text.size() || text[at + 1] == ',' || letter[0] == 'c')) {
                text.insert(at + 1, "@x");
            }
        }
        EXPECT_EQ(match.reasons[0].text,
                  "the certificate is for " + text + ", and not for z@x, from whom the message says it is");
        EXPECT_EQ(match.reasons[0].certificate.operator->(), many.operator->());
    }
}

TEST_F(TrustSender, AThousandFromAddresses) {
    const std::vector<std::string> from(1000, "anna@example.org");
    EXPECT_EQ(judged(with("anna@example.org"), from), "from ");
}

TEST_F(TrustSender, InternationalDomains) {
    // IDNA2008: bücher is xn--bcher-kva, faß is xn--fa-hia (and not fass), UTS 46 maps case and full width.
    const RefCertificate anna = with("anna@xn--bcher-kva.example");
    for (const char* from : {"anna@bücher.example", "anna@BÜCHER.example", "anna@xn--bcher-kva.example",
                             "anna@XN--BCHER-KVA.EXAMPLE", "anna@bu\u0308cher.example", "anna@ｂücher.example"}) {
        EXPECT_EQ(judged(anna, {from}), "from ") << from;
    }
    EXPECT_EQ(judged(anna, {"anna@bucher.example"}), "none sender-differs 0");
    EXPECT_EQ(judged(with("anna@xn--fa-hia.example"), {"anna@faß.example"}), "from ");
    EXPECT_EQ(judged(with("anna@fass.example"), {"anna@faß.example"}), "none sender-differs 0");
}

TEST_F(TrustSender, InternationalMailboxes) {
    // RFC 9598, 3: the domain as A-labels; RFC 8398 had it as it is.
    for (const char* certified : {"änna@xn--bcher-kva.example", "änna@bücher.example"}) {
        const RefCertificate anna = with({utf8Mailbox(certified)});
        EXPECT_EQ(judged(anna, {"änna@bücher.example"}), "from ") << certified;
        EXPECT_EQ(judged(anna, {"änna@xn--bcher-kva.example"}), "from ") << certified;
        EXPECT_EQ(judged(anna, {"Änna@bücher.example"}), "none sender-differs 0") << "local parts exactly";
        EXPECT_EQ(judged(anna, {"a\u0308nna@bücher.example"}), "none sender-differs 0") << "local parts byte by byte";
    }
    EXPECT_EQ(judged(with({utf8Mailbox("anna@example.org")}), {"anna@example.org"}),
              "none certificate-without-address 0")
        << "not for local parts in ASCII";
    EXPECT_EQ(judged(with("\xC3\xA4nna@example.org"), {"änna@example.org"}), "none certificate-without-address 0")
        << "an rfc822Name is ASCII";
}

TEST_F(TrustSender, NamesThatAreNoAddressesDoNotCount) {
    for (const std::string& name :
         {std::string("anna@example.org\0.evil.example", 30), std::string("example.org"), std::string(".example.org"),
          std::string("Anna <anna@example.org>"), std::string("@example.org"), std::string("anna@"),
          std::string("anna@example.org\n"), std::string()}) {
        EXPECT_EQ(judged(with(name), {"anna@example.org"}), "none certificate-without-address 0");
    }
}

TEST(TrustAddress, ComparableForms) {
    EXPECT_EQ(comparableAddress("Anna.B@Example.ORG"), "Anna.B@example.org");
    EXPECT_EQ(comparableAddress("\"a b\"@example.org"), "a b@example.org");
    EXPECT_EQ(comparableAddress("\"a@b\"@example.org"), "a@b@example.org");
    EXPECT_EQ(comparableAddress("a@[IPv6:::1]"), "a@[ipv6:::1]");
    EXPECT_EQ(comparableAddress("a..b@example.org"), "a..b@example.org");
    EXPECT_EQ(comparableAddress("a@under_score.example"), "a@under_score.example");
    for (const char* text : {"",
                             "@",
                             "a@",
                             "@b",
                             "a",
                             "a@b@c",
                             "a b@c",
                             "a@b c",
                             "a@b..c",
                             "a@.b",
                             "a@b.",
                             "a@[",
                             "a@[]",
                             "\"a@b",
                             "\"a\"b@c",
                             "a@\xFF.example",
                             "a@b\xC3",
                             "a@(x)b",
                             "<a@b>",
                             "a@b\n",
                             "a@-\xE2\x80\xAE.example"}) {
        EXPECT_EQ(comparableAddress(text), "") << text;
    }
    EXPECT_EQ(comparableAddress("a@" + std::string(64, 'x') + ".example"), "") << "a label of 64 octets";
    EXPECT_EQ(comparableAddress("a@" + std::string(63, 'x') + ".example"), "a@" + std::string(63, 'x') + ".example");
    EXPECT_EQ(comparableAddress(std::string(2000, 'a') + "@example.org"), "");
}

TEST_F(TrustSender, ManyOfEach) {
    std::vector<GeneralName> names;
    std::vector<std::string> from;
    for (int i = 0; i < 1001; ++i) {
        names.push_back(GeneralName::email("a" + std::to_string(i) + "@example.org"));
        from.push_back("a" + std::to_string(i) + "@example.org");
    }
    const RefCertificate many = with(names);
    EXPECT_EQ(judged(many, from), "none too-much-work 0");
    EXPECT_EQ(judged(many, {from.front(), from[999]}), "from ");
    EXPECT_EQ(judged(many, {from[1000]}), "none sender-differs 0") << "a thousand are looked at";
    EXPECT_THAT(matchSender(many, {"b@example.org"}).reasons[0].text, HasSubstr("a2@example.org and 997 others"));
}

} // namespace
