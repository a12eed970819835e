// norvcrypt inspect: the names of certificates and requests beside the subject's, and what keeps one from being told.

#include "support/ToolTest.h"

#include <nlohmann/json.hpp>

#include <algorithm>

using namespace interop;
using namespace norvauthority;
using nlohmann::json;

namespace {

/// Names a curve that nobody knows in the place of P-256: whatever holds the key decodes, the key does not.
template <class Octets> void withoutCurve(Octets& der) {
    const std::string identifier = "\x2A\x86\x48\xCE\x3D\x03\x01\x07";
    const Octets curve(identifier.begin(), identifier.end());
    const auto at = std::search(der.begin(), der.end(), curve.begin(), curve.end());
    ASSERT_NE(at, der.end());
    *(at + 7) = 0x7F;
}

class InspectNamesToolTest : public ToolTest {
protected:
    json factsOf(const std::string& file) {
        const Answer answer = tool({"inspect", "--json", file});
        EXPECT_EQ(0, answer.status) << answer.err;
        return json::parse(answer.out).at(0);
    }
    json factsOf(const Identity& identity) {
        work.write("certificate", identity.certificate.der);
        return factsOf("certificate");
    }
    void openssl(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), "openssl");
        const Answer answer = run({.arguments = arguments, .directory = work.directory()});
        ASSERT_EQ(0, answer.status) << answer.err;
    }
};

TEST_F(InspectNamesToolTest, EveryKindThatOpensslWrites) {
    work.write("names.cnf", "[req]\ndistinguished_name=subject\nprompt=no\nreq_extensions=v3\nx509_extensions=v3\n"
                            "[subject]\nCN=Names\n[v3]\nsubjectAltName=@names\n"
                            "[names]\nIP.1=192.0.2.1\nIP.2=2001:DB8::1\nRID=1.2.3.4\ndirName=place\n"
                            "otherName.1=1.2.3.4.5;UTF8:anna\notherName.2=1.2.3.4.6;INTEGER:5\n"
                            "email=a@example.org\nDNS=example.org\nURI=ldap://example.org/x\n"
                            "[place]\nC=DE\nO=Place\n");
    const std::vector<std::string> made{
        "req",    "-new",    "-newkey", "ec",      "-pkeyopt", "ec_paramgen_curve:P-256",
        "-nodes", "-keyout", "key",     "-config", "names.cnf"};
    std::vector<std::string> request = made;
    request.insert(request.end(), {"-out", "request"});
    openssl(request);
    std::vector<std::string> certificate = made;
    certificate.insert(certificate.end(), {"-x509", "-out", "certificate"});
    openssl(certificate);
    for (const char* file : {"request", "certificate"}) {
        SCOPED_TRACE(file);
        const json facts = factsOf(file);
        EXPECT_EQ(json({"192.0.2.1", "2001:db8::1"}), facts.at("ipAddresses"));
        EXPECT_EQ(json::array({"O=Place,C=DE"}), facts.at("directoryNames"));
        json others = facts.at("otherNames");
        std::sort(others.begin(), others.end()); // OpenSSL writes them in an order of its own
        EXPECT_EQ(json({"1.2.3.4.5: anna", "1.2.3.4.6", "registeredID: 1.2.3.4"}), others);
        EXPECT_EQ(json::array({"a@example.org"}), facts.at("emails"));
        EXPECT_EQ(json::array({"example.org"}), facts.at("dns"));
        EXPECT_EQ(json::array({"ldap://example.org/x"}), facts.at("uris"));
        EXPECT_FALSE(facts.contains("problems")) << facts.dump();
    }
}

TEST_F(InspectNamesToolTest, OctetsThatAreNoAddressAreAProblem) {
    // What else is wrong is told beside it.
    const json facts = factsOf(issue({.subject = {{"CN", "Odd"}},
                                      .key = Key::ec(),
                                      .alternativeNames = {GeneralName::ip(std::string("\x0A\0\0\x01\xFF", 5))},
                                      .extensions = {{.oid = "2.5.29.37", .value = {0x05, 0x00}}}}));
    EXPECT_EQ(json::array({"0A:00:00:01:FF"}), facts.at("ipAddresses"));
    EXPECT_EQ(json({"an IP address among the names has neither 4 nor 16 octets",
                    "an extension that is malformed or stands twice"}),
              facts.at("problems"));
}

TEST_F(InspectNamesToolTest, NamesThatNobodyUsesAreNamedByTheirKind) {
    const json facts =
        factsOf(issue({.subject = {{"CN", "Old"}},
                       .key = Key::ec(),
                       .alternativeNames = {GeneralName::raw({0xA3, 0x00}),
                                            GeneralName::raw({0xA5, 0x05, 0xA1, 0x03, 0x0C, 0x01, 'x'})}}));
    EXPECT_EQ(json({"x400Address", "ediPartyName"}), facts.at("otherNames"));
}

TEST_F(InspectNamesToolTest, WhatCannotBeReadOfARequestIsAProblem) {
    work.write("odd.cnf", "[req]\ndistinguished_name=subject\nprompt=no\nreq_extensions=v3\n"
                          "[subject]\nCN=Odd\n[v3]\nsubjectAltName=DER:0500\n");
    openssl({"req", "-new", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-keyout", "key",
             "-config", "odd.cnf", "-outform", "DER", "-out", "request"});
    EXPECT_EQ(json::array({"a malformed subject alternative name"}), factsOf("request").at("problems"));
    std::string der = work.read("request");
    withoutCurve(der);
    work.write("request", der);
    const json facts = factsOf("request");
    EXPECT_FALSE(facts.contains("publicKey"));
    EXPECT_EQ(json({"a malformed subject alternative name", "a public key that is malformed or not supported"}),
              facts.at("problems"));
}

TEST_F(InspectNamesToolTest, EachNameIsToldOnce) {
    const json facts = factsOf(issue({.subject = {{"CN", "Twice"}},
                                      .key = Key::ec(),
                                      .alternativeNames = {GeneralName::ip("192.0.2.1"), GeneralName::dns("192.0.2.1"),
                                                           GeneralName::ip("192.0.2.1")}}));
    EXPECT_EQ(json::array({"192.0.2.1"}), facts.at("ipAddresses"));
    EXPECT_EQ(json::array({"192.0.2.1"}), facts.at("dns"));
}

TEST_F(InspectNamesToolTest, WhoIssuesTheListsIsTold) {
    const json facts = factsOf(
        issue({.subject = {{"CN", "Indirect"}},
               .key = Key::ec(),
               .crlDistributionPoints = {{.name = {{.full = {GeneralName::uri("http://example.org/crl")}}},
                                          .issuers = {GeneralName::directory({{"C", "DE"}, {"CN", "Lists"}})}}}}));
    EXPECT_EQ(json::array({"http://example.org/crl"}), facts.at("crlDistributionPoints"));
    EXPECT_EQ(json::array({"CN=Lists,C=DE"}), facts.at("crlIssuers"));
}

TEST_F(InspectNamesToolTest, AKeyThatCannotBeReadIsAProblem) {
    Identity identity = issue({.subject = {{"CN", "Key"}}, .key = Key::ec()});
    withoutCurve(identity.certificate.der);
    const json facts = factsOf(identity);
    EXPECT_EQ("CN=Key", facts.at("subject"));
    EXPECT_FALSE(facts.contains("publicKey"));
    EXPECT_EQ(json::array({"a public key that is malformed or not supported"}), facts.at("problems"));
}

} // namespace
