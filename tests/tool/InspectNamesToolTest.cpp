// norvcrypt inspect: the names of certificates and requests beside the subject's, and what keeps one from being told.

#include "support/ToolTest.h"

#include <nlohmann/json.hpp>

#include <algorithm>

using namespace interop;
using namespace norvauthority;
using nlohmann::json;

namespace {

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
    const json facts = factsOf(issue({.subject = {{"CN", "Odd"}},
                                      .key = Key::ec(),
                                      .alternativeNames = {GeneralName::ip(std::string("\x0A\0\0\x01\xFF", 5))}}));
    EXPECT_EQ(json::array({"0A:00:00:01:FF"}), facts.at("ipAddresses"));
    EXPECT_EQ(json::array({"a malformed subject alternative name"}), facts.at("problems"));
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

/// A curve that nobody knows: the certificate decodes, its key does not.
TEST_F(InspectNamesToolTest, AKeyThatCannotBeReadIsAProblem) {
    Identity identity = issue({.subject = {{"CN", "Key"}}, .key = Key::ec()});
    Bytes& der = identity.certificate.der;
    const Bytes curve{0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07};
    const auto at = std::search(der.begin(), der.end(), curve.begin(), curve.end());
    ASSERT_NE(at, der.end());
    *(at + 7) = 0x7F;
    const json facts = factsOf(identity);
    EXPECT_EQ("CN=Key", facts.at("subject"));
    EXPECT_FALSE(facts.contains("publicKey"));
    EXPECT_EQ(json::array({"a public key that is malformed or not supported"}), facts.at("problems"));
}

} // namespace
