// What certificates may be used for: usages, constraints, policies.

#include "Chains.h"
#include "Extensions.h"

#include <norvcrypto-trust/TrustSender.h>

#include <gmock/gmock.h>

using namespace trusttesting;
using testing::HasSubstr;

namespace {

using Code = ReasonCode;
using norvauthority::Bytes;
using TrustUsage = TrustTest;

TEST_F(TrustUsage, KeyUsageForMail) {
    struct Row {
        unsigned int usage;
        bool rsa, sign, encrypt;
    };
    const auto rsa = norvauthority::Key::fromPem(norvtest::storedKeyPem("alice"));
    // RFC 8550, 4.4.2; RFC 5753, 8: keys on curves agree on a key.
    for (const Row& row : {Row{0x80, true, true, false}, Row{0x40, true, true, false}, Row{0x20, true, false, true},
                           Row{0x10, true, false, false}, Row{0x08, false, false, true}, Row{0x08, true, false, false},
                           Row{0x80, false, true, false}}) {
        CertificateRequest request;
        request.keyUsage = row.usage;
        request.key = row.rsa ? rsa : key(9);
        const Identity who = user(m_middle, request);
        Case one = chain();
        one.options.purpose = Purpose::sign;
        EXPECT_EQ(shown(one.judge(who)), row.sign ? "accepted " : "refused key-usage-forbids 0") << row.usage;
        one.options.purpose = Purpose::encrypt;
        EXPECT_EQ(shown(one.judge(who)), row.encrypt ? "accepted " : "refused key-usage-forbids 0") << row.usage;
        one.options.purpose = Purpose::any;
        EXPECT_EQ(shown(one.judge(who)), "accepted ") << row.usage;
    }
}

TEST_F(TrustUsage, ExtendedKeyUsageForMail) {
    const auto judged = [this](const std::string& usage, Purpose purpose) {
        Case one = chain();
        one.options.purpose = purpose;
        return shown(one.judge(user(m_middle, {.keyUsage = 0xA0, .extendedKeyUsage = {usage}})));
    };
    EXPECT_EQ(judged("emailProtection", Purpose::sign), "accepted ");
    EXPECT_EQ(judged("anyExtendedKeyUsage", Purpose::sign), "accepted ") << "RFC 8550, 4.4.4";
    EXPECT_EQ(judged("serverAuth", Purpose::sign), "refused extended-key-usage-forbids 0");
    EXPECT_EQ(judged("serverAuth", Purpose::encrypt), "refused extended-key-usage-forbids 0");
    EXPECT_EQ(judged("serverAuth", Purpose::any), "accepted ");
    // That of an authority limits those below it.
    const Identity middle = authority("Middle", 1, &m_root, {.extendedKeyUsage = {"serverAuth"}});
    Case one;
    one.anchor(m_root).message(middle);
    EXPECT_EQ(shown(one.judge(user(middle))), "refused extended-key-usage-forbids 1");
}

TEST_F(TrustUsage, NetscapesCertificateType) {
    // A BIT STRING with the bit for TLS servers alone.
    const Identity server = user(m_middle, {.extensions = {{"2.16.840.1.113730.1.1", {0x03, 0x02, 0x06, 0x40}}}});
    EXPECT_EQ(shown(chain().judge(server)), "refused purpose-forbids 0");
    const Identity both =
        user(m_middle, {.keyUsage = 0x20, .extensions = {{"2.16.840.1.113730.1.1", {0x03, 0x02, 0x06, 0x40}}}});
    EXPECT_EQ(shown(chain().judge(both)), "refused key-usage-forbids 0") << "which is what is to be told";
    const Identity other = user(m_middle, {.extendedKeyUsage = {"serverAuth"},
                                           .extensions = {{"2.16.840.1.113730.1.1", {0x03, 0x02, 0x06, 0x40}}}});
    EXPECT_EQ(shown(chain().judge(other)), "refused extended-key-usage-forbids 0");
}

TEST_F(TrustUsage, AuthoritiesAsThePurpose) {
    Case one = chain();
    one.options.purpose = Purpose::authority;
    EXPECT_EQ(shown(one.judge(m_middle)), "accepted ");
    EXPECT_EQ(shown(one.judge(user(m_middle))), "refused not-an-authority 0");
    EXPECT_EQ(shown(one.judge(authority("No signing", 3, &m_root, {.keyUsage = 0x02}))),
              "refused certificate-signing-forbidden 0");
}

TEST_F(TrustUsage, IssuersThatMayNotIssue) {
    Case one;
    const Identity plain = authority("Plain", 2, &m_root, {.ca = false});
    const Identity silent = authority("Silent", 3, &m_root, {.keyUsage = 0x80});
    const Identity neither = authority("Neither", 4, &m_root, {.ca = false, .keyUsage = 0x80});
    one.anchor(m_root).message(plain).message(silent).message(neither);
    EXPECT_EQ(shown(one.judge(user(neither))), "refused not-an-authority 1, certificate-signing-forbidden 1");
    EXPECT_EQ(shown(one.judge(user(plain))), "refused not-an-authority 1");
    EXPECT_EQ(shown(one.judge(user(silent))), "refused certificate-signing-forbidden 1");
}

TEST_F(TrustUsage, PathLength) {
    const Identity root = authority("Root", 0, nullptr, {.pathLength = 0});
    const Identity middle = authority("Middle", 1, &root);
    Case one;
    one.anchor(root).message(middle);
    EXPECT_EQ(shown(one.judge(user(root))), "accepted ");
    EXPECT_EQ(shown(one.judge(user(middle))), "refused path-length-exceeded 2");
}

TEST_F(TrustUsage, CriticalExtensionsThatNobodyKnows) {
    const Verdict verdict = chain().judge(user(m_middle, {.extensions = {{"1.2.3.4", {0x05, 0x00}, true}}}));
    EXPECT_EQ(shown(verdict), "refused critical-extension-unknown 0");
    EXPECT_THAT(verdict.reasons[0].text, HasSubstr("1.2.3.4"));
    EXPECT_EQ(shown(chain().judge(user(m_middle, {.extensions = {{"1.2.3.4", {0x05, 0x00}, false}}}))), "accepted ");
}

/// Five of them are named, whatever stands in front and between.
TEST_F(TrustUsage, ManyCriticalExtensionsThatNobodyKnows) {
    CertificateRequest request;
    request.subject = {{"CN", "Anna"}};
    request.key = key(9);
    request.issuer = &m_middle;
    request.subjectKeyIdentifier = request.authorityKeyIdentifier = false;
    const auto unknown = [](int number, bool critical = true) {
        return norvauthority::Extension{"1.2.3." + std::to_string(number), {0x05, 0x00}, critical};
    };
    request.extensions = {unknown(1), unknown(2), unknown(30, false), {"2.5.29.15", {0x03, 0x02, 0x07, 0x80}, true},
                          unknown(4), unknown(5), unknown(6),         unknown(7)};
    const Verdict verdict = chain().judge(norvauthority::issue(request));
    EXPECT_EQ(shown(verdict), "refused critical-extension-unknown 0");
    EXPECT_EQ(verdict.reasons[0].text, "the certificate of CN=Anna has a critical extension that is not understood: "
                                       "1.2.3.1, 1.2.3.2, 1.2.3.4, 1.2.3.5, 1.2.3.6");
}

/// What OpenSSL refuses for reasons of its own is told in its words: RFC 3779, 2.3, wants addresses to be within the issuer's.
TEST_F(TrustUsage, WhatHasNoReasonOfItsOwn) {
    namespace der = norvauthority::der;
    const Bytes addresses =
        der::sequence({der::sequence({der::octetString({0x00, 0x01}), der::sequence({der::bitString({0x0A})})})});
    const Verdict verdict = chain().judge(user(m_middle, {.extensions = {{"1.3.6.1.5.5.7.1.7", addresses, true}}}));
    EXPECT_TRUE(verdict.has(Code::other)) << shown(verdict);
    EXPECT_THAT(find(verdict.reasons, Code::other).text,
                HasSubstr("is refused: RFC 3779 resource not subset of parent"));
}

TEST_F(TrustUsage, ExtensionsThatDoNotDecode) {
    const Verdict verdict = chain().judge(user(m_middle, {.extensions = {{"2.5.29.19", {0x04, 0x00}, true}}}));
    EXPECT_TRUE(verdict.has(Code::extensionInvalid)) << shown(verdict);
    EXPECT_FALSE(verdict.has(Code::listInvalid)) << "no list is looked at";
}

TEST_F(TrustUsage, ProxyCertificates) {
    // RFC 3820: no path length, language id-ppl-inheritAll.
    namespace der = norvauthority::der;
    const Bytes proxy = der::sequence({der::sequence({der::oid("1.3.6.1.5.5.7.21.1")})});
    const Identity anna = user(m_middle);
    CertificateRequest request;
    request.subject = {{"CN", "Anna"}, {"CN", "Proxy"}};
    request.key = key(8);
    request.issuer = &anna;
    request.keyUsage = 0x80;
    request.extensions = {{"1.3.6.1.5.5.7.1.14", proxy, true}};
    Case one = chain();
    const Verdict verdict = one.message(anna).judge(norvauthority::issue(request));
    EXPECT_TRUE(verdict.has(Code::proxyCertificate)) << shown(verdict);
}

TEST_F(TrustUsage, NameConstraintsOnAddresses) {
    const auto judged = [this](const Bytes& constraints, const std::string& address) {
        const Identity middle = authority("Middle", 1, &m_root, {.extensions = {{"2.5.29.30", constraints, true}}});
        Case one;
        one.anchor(m_root).message(middle);
        return shown(one.judge(user(middle, {.alternativeNames = {GeneralName::email(address)}})));
    };
    const Bytes permitted = nameConstraints({GeneralName::email("example.org")}, {});
    EXPECT_EQ(judged(permitted, "anna@example.org"), "accepted ");
    EXPECT_EQ(judged(permitted, "anna@example.net"), "refused name-not-permitted 0");
    EXPECT_EQ(judged(nameConstraints({}, {GeneralName::email("example.org")}), "anna@example.org"),
              "refused name-excluded 0");
    EXPECT_EQ(judged(nameConstraints({}, {GeneralName::email("example.org")}), "anna@example.net"), "accepted ");
    // A minimum other than 0 is what RFC 5280, 4.2.1.10 rules out.
    const Bytes minimum = norvauthority::der::element(0x80, {0x01});
    EXPECT_EQ(judged(nameConstraints({GeneralName::email("example.org")}, {}, minimum), "anna@example.org"),
              "refused name-constraints-unsupported 0");
    EXPECT_EQ(judged(permitted, "no address"), "refused name-unreadable 0");
}

TEST_F(TrustUsage, AnExclusionInAnotherSpellingNamesWhoHasTheAddress) {
    const Identity middle =
        authority("Middle", 1, &m_root,
                  {.extensions = {{"2.5.29.30", nameConstraints({}, {GeneralName::email("anna@example.org")}), true}}});
    Case one;
    one.anchor(m_root).message(middle);
    const auto anna = read(user(middle, {.alternativeNames = {GeneralName::email("\"anna\"@example.org")}}));
    const Verdict verdict = Verifier(one.material).judge(anna, one.certificates, {}, one.options);
    ASSERT_EQ(shown(verdict), "refused name-excluded 0");
    EXPECT_THAT(verdict.reasons[0].text, testing::HasSubstr("CN=Anna"));
    EXPECT_TRUE(sameEncoding(verdict.reasons[0].certificate, anna));
}

/// Whatever `matchSender` takes for an address of somebody is excluded with that address.
TEST_F(TrustUsage, NoSpellingOfAnAddressGetsAroundItsExclusion) {
    const auto judged = [this](const std::string& constraint, const GeneralName& name) {
        const Bytes constraints = nameConstraints({}, {GeneralName::email(constraint)});
        const Identity middle = authority("Middle", 1, &m_root, {.extensions = {{"2.5.29.30", constraints, true}}});
        Case one;
        one.anchor(m_root).message(middle);
        const Identity anna = user(middle, {.alternativeNames = {name}});
        return shown(one.judge(anna)) + ":" + matchSender(read(anna), {"x@y.z"}).certified.at(0);
    };
    const auto mailbox = [](const std::string& address) {
        return GeneralName::otherName("1.3.6.1.5.5.7.8.9",
                                      norvauthority::der::element(0x0C, norvauthority::bytes(address)));
    };
    for (const char* const address : {"\u00e4nna@b\u00fccher.example", "\u00e4nna@xn--bcher-kva.example",
                                      "\u00e4nna@B\u00dcCHER.example", "\u00e4nna@bu\u0308cher.example"})
        EXPECT_EQ(judged("xn--bcher-kva.example", mailbox(address)), std::string("refused name-excluded 0:") + address);
    for (const char* const address : {"\u00e4nna@example.org", "\u00e4nna@\uff45xample.org"})
        EXPECT_EQ(judged("example.org", mailbox(address)), std::string("refused name-excluded 0:") + address);
    EXPECT_EQ(judged("anna@example.org", GeneralName::email("\"anna\"@example.org")),
              "refused name-excluded 0:\"anna\"@example.org");
    EXPECT_EQ(judged(".xn--bcher-kva.example", mailbox("\u00e4nna@a.mail.B\u00dcCHER.example")),
              "refused name-excluded 0:\u00e4nna@a.mail.B\u00dcCHER.example");
    for (const char* const address : {"\u00e4nna@bucher.example", "\u00e4nna@mail.b\u00fccher.example"})
        EXPECT_EQ(judged("xn--bcher-kva.example", mailbox(address)), std::string("accepted :") + address);
    EXPECT_EQ(judged(".xn--bcher-kva.example", mailbox("\u00e4nna@B\u00dcCHER.example")),
              "accepted :\u00e4nna@B\u00dcCHER.example");
    for (const char* const constraint : {"Anna@example.org", "example.org.", "@", "x y", ""})
        EXPECT_EQ(judged(constraint, GeneralName::email("\"anna\"@example.org")), "accepted :\"anna\"@example.org");
}

TEST_F(TrustUsage, ConstraintsOfAKindThatIsNotSupported) {
    const Bytes constraints = nameConstraints({GeneralName::registeredId("1.2.3")}, {});
    const Identity middle = authority("Middle", 1, &m_root, {.extensions = {{"2.5.29.30", constraints, true}}});
    Case one;
    one.anchor(m_root).message(middle);
    EXPECT_EQ(shown(one.judge(user(middle, {.alternativeNames = {GeneralName::registeredId("1.2.3.4")}}))),
              "refused name-constraints-unsupported 0");
}

class TrustPolicies : public TrustUsage {
protected:
    /// An authority under a policy, with mappings, and somebody under another.
    static std::string judged(const std::vector<std::string>& ofMiddle, const Bytes& mappings,
                              const std::string& ofUser, const std::vector<std::string>& wanted,
                              const Bytes& policyConstraints = {}) {
        CertificateRequest request;
        request.extensions = {{"2.5.29.32", certificatePolicies(ofMiddle)}};
        if (!mappings.empty()) {
            request.extensions.push_back({"2.5.29.33", mappings, true});
        }
        if (!policyConstraints.empty()) {
            request.extensions.push_back({"2.5.29.36", policyConstraints, true});
        }
        const Identity root = authority("Root", 0);
        const Identity middle = authority("Middle", 1, &root, request);
        Case one;
        one.anchor(root).message(middle);
        one.options.policies = wanted;
        CertificateRequest userRequest;
        if (!ofUser.empty()) {
            userRequest.extensions = {{"2.5.29.32", certificatePolicies({ofUser})}};
        }
        return shown(one.judge(user(middle, userRequest)));
    }
};

TEST_F(TrustPolicies, OneThatIsAskedForMustHold) {
    EXPECT_EQ(judged({"1.2.3"}, {}, "1.2.3", {"1.2.3"}), "accepted ");
    EXPECT_EQ(judged({"1.2.3"}, {}, "1.2.3", {"1.2.4"}), "refused policy-missing 0");
    EXPECT_EQ(judged({"1.2.3"}, {}, "1.2.3", {"1.2.4", "1.2.3"}), "accepted ");
    EXPECT_EQ(judged({"1.2.3"}, {}, "1.2.4", {"1.2.4"}), "refused policy-missing 0") << "not that of the authority";
    EXPECT_EQ(judged({"2.5.29.32.0"}, {}, "1.2.4", {"1.2.4"}), "accepted ") << "the authority has any";
    EXPECT_EQ(judged({"1.2.3"}, {}, "", {"1.2.3"}), "refused policy-missing 0");
    EXPECT_EQ(judged({"1.2.3"}, {}, "", {}), "accepted ") << "nobody asked";
}

TEST_F(TrustPolicies, WhoIsRefusedForThemIsNamed) {
    Case one = chain();
    one.options.policies = {"1.2.3"};
    const Verdict verdict = one.judge(user(m_middle));
    EXPECT_EQ(shown(verdict), "refused policy-missing 0");
    EXPECT_EQ(verdict.reasons[0].text, "no certificate policy holds for the chain of CN=Anna that is asked for");
}

TEST_F(TrustPolicies, MappingsCount) {
    EXPECT_EQ(judged({"1.2.3"}, policyMappings({{"1.2.3", "1.9.9"}}), "1.9.9", {"1.2.3"}), "accepted ");
    EXPECT_EQ(judged({"1.2.3"}, policyMappings({{"1.2.3", "1.9.9"}}), "1.2.3", {"1.2.3"}), "refused policy-missing 0");
}

TEST_F(TrustPolicies, ACertificateMayDemandOne) {
    // requireExplicitPolicy 0 (RFC 5280, 4.2.1.11): nobody has to ask.
    const Bytes demanded = norvauthority::der::sequence({norvauthority::der::element(0x80, {0x00})});
    EXPECT_EQ(judged({"1.2.3"}, {}, "", {}, demanded), "refused policy-missing 0");
    EXPECT_EQ(judged({"1.2.3"}, {}, "1.2.3", {}, demanded), "accepted ");
}

TEST_F(TrustPolicies, OnesThatContradictThemselves) {
    const Verdict verdict =
        chain().judge(user(m_middle, {.extensions = {{"2.5.29.32", certificatePolicies({"1.2.3", "1.2.3"})}}}));
    EXPECT_TRUE(verdict.has(Code::policyInvalid)) << shown(verdict);
}

TEST_F(TrustPolicies, IdentifiersThatAreNoneAreTheCallersMistake) {
    const std::string longest = "1.2." + std::string(252, '1');
    for (const std::string& text : std::vector<std::string>{"", "hello", "1.2.x", "anyPolicy", "9.9.9.", "1", "1 2 3",
                                                            longest + "1", "1.2.3.", "1.2..3", "1..2", ".1.2"}) {
        Case one = chain();
        one.options.policies = {text};
        try {
            static_cast<void>(one.judge(user(m_middle)));
            ADD_FAILURE() << text;
        } catch (const Norvane::Exception& failure) {
            EXPECT_EQ(failure.code(), 4) << text;
        }
    }
    Case one = chain();
    one.options.policies = {longest};
    EXPECT_EQ(shown(one.judge(user(m_middle))), "refused policy-missing 0");
}

} // namespace
