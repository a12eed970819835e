// norvcrypt inspect: what it recognises, the keys of its JSON, and what odd and hostile objects do to both.

#include "support/Costly.h"
#include "support/Process.h"
#include "support/Workspace.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using namespace interop;
using namespace norvauthority;
using nlohmann::json;

namespace {

std::vector<std::string> keysOf(const std::string& jsonText) {
    std::vector<std::string> keys;
    const nlohmann::ordered_json objects = nlohmann::ordered_json::parse(jsonText);
    for (const auto& [key, value] : objects.at(0).items())
        keys.push_back(key);
    return keys;
}

class InspectToolTest : public testing::Test {
protected:
    Answer inspect(std::vector<std::string> arguments, const std::string& input = "") {
        arguments.insert(arguments.begin(), "inspect");
        return norvcrypt(Command{.arguments = arguments, .input = input, .directory = work.directory()});
    }
    /// The objects found in one file that is in order.
    json objectsIn(const std::string& name) {
        const Answer answer = inspect({"--json", name});
        EXPECT_EQ(0, answer.status) << answer.err;
        EXPECT_EQ("", answer.err);
        return json::parse(answer.out);
    }
    void expectUnreadable(const std::string& name, const std::string& line) {
        for (const bool asJson : {false, true}) {
            const Answer answer = asJson ? inspect({"--json", name}) : inspect({name});
            EXPECT_EQ(2, answer.status);
            EXPECT_EQ(asJson ? "[]\n" : "", answer.out);
            EXPECT_EQ(1U, linesOf(answer.err).size());
            EXPECT_EQ(0U, answer.err.find("norvcrypt: " + line)) << answer.err;
        }
    }

    Workspace work;
};

TEST_F(InspectToolTest, CertificateHasEveryKeyInOrder) {
    const Identity full = issue(
        {.subject = {{"C", "DE"}, {"O", "Interop"}, {"CN", "Full"}},
         .key = Key::ec(),
         .issuer = &root(),
         .serial = "0f00aBcD",
         .notBefore = Time::utc("260102030405Z"),
         .notAfter = Time::generalized("20560102030405Z"),
         .ca = false,
         .keyUsage = 0x80C0,
         .alternativeNames = {GeneralName::email("a@example.org"), GeneralName::dns("example.org"),
                              GeneralName::uri("ldap://example.org/x"), GeneralName::email("b@example.org")},
         .crlDistributionPoints = {{.name = {{.full = {GeneralName::uri("http://example.org/crl")}}}},
                                   {.name = {{.full = {GeneralName::directory({{"CN", "Lists"}, {"C", "DE"}})}}}}}});
    work.write("full", full.certificate.der);
    const Answer answer = inspect({"--json", "full"});
    EXPECT_EQ(0, answer.status);
    EXPECT_EQ((std::vector<std::string>{"file", "type", "subject", "issuer", "serial", "notBefore", "notAfter",
                                        "sha256", "selfSigned", "ca", "publicKey", "signatureAlgorithm", "keyUsage",
                                        "emails", "dns", "uris", "crlDistributionPoints"}),
              keysOf(answer.out));
    const json object = json::parse(answer.out).at(0);
    EXPECT_EQ("full", object["file"]);
    EXPECT_EQ("certificate", object["type"]);
    EXPECT_EQ("CN=Full,O=Interop,C=DE", object["subject"]);
    EXPECT_EQ("CN=Interop Root,O=Interop,C=DE", object["issuer"]);
    EXPECT_EQ("0f00abcd", object["serial"]);
    EXPECT_EQ("2026-01-02T03:04:05Z", object["notBefore"]);
    EXPECT_EQ("2056-01-02T03:04:05Z", object["notAfter"]);
    EXPECT_EQ(sha256({full.certificate.der.begin(), full.certificate.der.end()}), object["sha256"]);
    EXPECT_EQ(false, object["selfSigned"]);
    EXPECT_EQ(false, object["ca"]);
    EXPECT_EQ(json({"digitalSignature", "nonRepudiation", "decipherOnly"}), object["keyUsage"]);
    EXPECT_EQ(json({"a@example.org", "b@example.org"}), object["emails"]);
    EXPECT_EQ(json::array({"example.org"}), object["dns"]);
    EXPECT_EQ(json::array({"ldap://example.org/x"}), object["uris"]);
    EXPECT_EQ(json({"http://example.org/crl", "C=DE,CN=Lists"}), object["crlDistributionPoints"]);
}

TEST_F(InspectToolTest, AbsentValuesAreLeftOut) {
    const Identity bare = issue({.subject = {{"CN", "Bare"}}, .key = Key::ec(), .version = 1});
    work.write("bare", bare.certificate.pem());
    const Answer answer = inspect({"--json", "bare"});
    EXPECT_EQ((std::vector<std::string>{"file", "type", "subject", "issuer", "serial", "notBefore", "notAfter",
                                        "sha256", "selfSigned", "ca", "publicKey", "signatureAlgorithm"}),
              keysOf(answer.out));
    const json object = json::parse(answer.out).at(0);
    EXPECT_EQ("01", object["serial"]);
    EXPECT_EQ(true, object["selfSigned"]);
    EXPECT_EQ(true, object["ca"]);
}

TEST_F(InspectToolTest, AddressInTheSubjectIsAnAddressToo) {
    const Identity old =
        issue({.subject = {{"CN", "Old"}, {"emailAddress", "old@example.org", V_ASN1_IA5STRING}},
               .key = Key::ec(),
               .alternativeNames = {GeneralName::email("new@example.org"), GeneralName::email("old@example.org")}});
    work.write("old", old.certificate.der);
    EXPECT_EQ(json({"new@example.org", "old@example.org"}), objectsIn("old").at(0)["emails"]);
}

TEST_F(InspectToolTest, AddressesInOtherLettersAreAddressesToo) {
    const std::string wide("\0a\0@\0b\0.\0c", 10);
    const Identity anna = issue({.subject = {{"CN", "Anna"}, {"emailAddress", wide, V_ASN1_BMPSTRING}},
                                 .key = Key::ec(),
                                 .alternativeNames = {GeneralName::otherName(
                                     "1.3.6.1.5.5.7.8.9", {0x0C, 0x06, 0xC3, 0xA9, '@', 'b', '.', 'c'})}});
    work.write("anna", anna.certificate.der);
    EXPECT_EQ(json({"\xC3\xA9@b.c", "a@b.c"}), objectsIn("anna").at(0)["emails"]);
}

TEST_F(InspectToolTest, RelativeNamesOfDistributionPointsAreLetters) {
    const DistributionPointName relative{
        {}, Name{{"CN", "Z\xC3\xBCrich"}, {.type = "O", .value = "Org", .joinsPreceding = true}}};
    const Identity one = issue({.subject = {{"CN", "One"}}, .key = Key::ec(), .crlDistributionPoints = {{relative}}});
    work.write("one", one.certificate.der);
    EXPECT_EQ(json({"O=Org+CN=Z\xC3\xBCrich"}), objectsIn("one").at(0)["crlDistributionPoints"]);
}

TEST_F(InspectToolTest, ListHasEveryKeyInOrder) {
    const Crl list = issueList({.issuer = &root(),
                                .numbered = 3,
                                .thisUpdate = Time::utc("260102030405Z"),
                                .nextUpdate = Time::utc("260202030405Z"),
                                .crlNumber = "1234567890abcdef1234",
                                .deltaBase = "01"});
    for (const bool pem : {false, true}) {
        if (pem)
            work.write("list", list.pem());
        else
            work.write("list", list.der);
        const Answer answer = inspect({"--json", "list"});
        EXPECT_EQ(0, answer.status) << answer.err;
        EXPECT_EQ((std::vector<std::string>{"file", "type", "issuer", "thisUpdate", "nextUpdate", "crlNumber",
                                            "signatureAlgorithm", "delta", "entries", "sha256", "revoked"}),
                  keysOf(answer.out));
        const json object = json::parse(answer.out).at(0);
        EXPECT_EQ("crl", object["type"]);
        EXPECT_EQ("CN=Interop Root,O=Interop,C=DE", object["issuer"]);
        EXPECT_EQ("2026-01-02T03:04:05Z", object["thisUpdate"]);
        EXPECT_EQ("2026-02-02T03:04:05Z", object["nextUpdate"]);
        EXPECT_EQ("1234567890abcdef1234", object["crlNumber"]);
        EXPECT_EQ(true, object["delta"]);
        EXPECT_EQ(3, object["entries"]);
        EXPECT_EQ(sha256({list.der.begin(), list.der.end()}), object["sha256"]);
    }
}

TEST_F(InspectToolTest, EntriesOfAnIndirectListTellWhoseCertificatesTheyAre) {
    // RFC 5280, 5.3.3: who is named holds for the entries behind, too.
    const Crl list = issueList({.issuer = &root(),
                                .revoked = {{.serial = "01"},
                                            {.serial = "02", .certificateIssuer = Name{{"CN", "One, of them"}}},
                                            {.serial = "03"},
                                            {.serial = "04", .certificateIssuer = Name{{"CN", "Other"}}},
                                            {.serial = "05"},
                                            {.serial = "06", .extensions = {{"2.5.29.29", {0x30, 0x00}, true}}}},
                                .scope = IssuingDistributionPoint{.indirect = true}});
    work.write("list", list.der);
    const auto issuers = [this](const std::vector<std::string>& more) {
        std::vector<std::string> arguments{"--json", "list"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        const Answer answer = inspect(arguments);
        EXPECT_EQ(0, answer.status) << answer.err;
        std::vector<std::string> names;
        const json objects = json::parse(answer.out);
        for (const json& entry : objects.at(0).at("revoked"))
            names.push_back(entry.value("issuer", "none"));
        return names;
    };
    using Names = std::vector<std::string>;
    EXPECT_EQ((Names{"none", R"(CN=One\, of them)", R"(CN=One\, of them)", "CN=Other", "CN=Other", "unreadable"}),
              issuers({}));
    EXPECT_EQ((Names{R"(CN=One\, of them)"}), issuers({"--entries", "3"}));
    EXPECT_EQ((Names{"CN=Other"}), issuers({"--entries", "5-5"}));
    EXPECT_EQ((Names{"none"}), issuers({"--entries", "1"}));
    EXPECT_NE(std::string::npos, inspect({"list"}).out.find("    serial: 03\n    issuer: CN=One\\, of them\n"));
}

TEST_F(InspectToolTest, ReasonsThatNoNumberHoldsAreUnreadable) {
    const auto reason = [](Bytes octets) {
        octets.insert(octets.begin(), {0x0A, static_cast<unsigned char>(octets.size())});
        return Revoked{.serial = "01", .extensions = {{"2.5.29.21", octets}}};
    };
    work.write("list", issueList({.issuer = &root(),
                                  .revoked = {reason({1}), reason({0x7F, 0, 0, 0, 0, 0, 0, 0}),
                                              reason({1, 0, 0, 0, 0, 0, 0, 0, 0})}})
                           .der);
    const json revoked = objectsIn("list").at(0)["revoked"];
    EXPECT_EQ("keyCompromise", revoked.at(0)["reason"]);
    EXPECT_EQ("9151314442816847872", revoked.at(1)["reason"]);
    EXPECT_EQ("unreadable", revoked.at(2)["reason"]);
}

TEST_F(InspectToolTest, MalformedExtensionsOfAListAreTold) {
    const json told = {"an extension that is malformed or stands twice"};
    for (const char* oid : {"2.5.29.20", "2.5.29.27", "2.5.29.28", "2.5.29.35"}) {
        work.write(
            "list",
            issueList({.issuer = &root(), .authorityKeyIdentifier = false, .extensions = {{oid, {0x04, 0x00}}}}).der);
        EXPECT_EQ(told, objectsIn("list").at(0)["problems"]) << oid;
    }
    work.write("list", issueList({.issuer = &root(), .crlNumber = "01", .extensions = {{"2.5.29.20", {2, 1, 2}}}}).der);
    EXPECT_EQ(told, objectsIn("list").at(0)["problems"]);
    work.write("list", issueList({.issuer = &root(),
                                  .crlNumber = "02",
                                  .deltaBase = "01",
                                  .scope = IssuingDistributionPoint{.onlyUser = true}})
                           .der);
    EXPECT_FALSE(objectsIn("list").at(0).contains("problems"));
}

TEST_F(InspectToolTest, BareListLeavesOutWhatIsAbsent) {
    work.write("list", issueList({.issuer = &root(), .nextUpdate = std::nullopt, .version = 1}).der);
    const json object = objectsIn("list").at(0);
    EXPECT_FALSE(object.contains("nextUpdate"));
    EXPECT_FALSE(object.contains("crlNumber"));
    EXPECT_EQ(false, object["delta"]);
    EXPECT_EQ(0, object["entries"]);
}

TEST_F(InspectToolTest, SignedStructure) {
    work.write("body", sampleBody());
    work.write("cert", alice().certificate.pem());
    work.write("key", alice().key.pkcs8Pem());
    ASSERT_EQ(0,
              norvcrypt(Command{.arguments = {"sign", "--cert", "cert", "--key", "key", "--in", "body", "--out", "sig"},
                                .directory = work.directory()})
                  .status);
    const Answer answer = inspect({"--json", "sig"});
    EXPECT_EQ((std::vector<std::string>{"file", "type", "contentType", "detached", "signers", "certificates", "crls"}),
              keysOf(answer.out));
    const json object = json::parse(answer.out).at(0);
    EXPECT_EQ("cms", object["type"]);
    EXPECT_EQ("pkcs7-signedData", object["contentType"]);
    EXPECT_EQ(true, object["detached"]);
    EXPECT_EQ(json({{{"issuer", "CN=Interop Root,O=Interop,C=DE"},
                     {"serial", "2001"},
                     {"digestAlgorithm", "sha256"},
                     {"signatureAlgorithm", "rsaEncryption"}}}),
              object["signers"]);
    ASSERT_EQ(1U, object["certificates"].size());
    EXPECT_EQ("CN=alice,O=Interop,C=DE", object["certificates"][0]["subject"]);
    EXPECT_EQ(alice().certificate.sha256(), object["certificates"][0]["sha256"]);
    EXPECT_EQ(json::array(), object["crls"]);
}

TEST_F(InspectToolTest, EnvelopedStructureHasRecipients) {
    work.write("cert", alice().certificate.pem());
    ASSERT_EQ(0, run({.arguments = {"openssl", "cms", "-encrypt", "-aes256", "-binary", "-outform", "DER", "-out",
                                    work.path("enveloped"), work.path("cert")},
                      .input = sampleBody()})
                     .status);
    const json object = objectsIn("enveloped").at(0);
    EXPECT_EQ("pkcs7-envelopedData", object["contentType"]);
    EXPECT_EQ(false, object["authenticated"]);
    EXPECT_EQ("AES-256-CBC (2.16.840.1.101.3.4.1.42)", object["cipher"]);
    EXPECT_EQ(json({{{"kind", "keyTransport"},
                     {"issuer", "CN=Interop Root,O=Interop,C=DE"},
                     {"serial", "2001"},
                     {"algorithm", "rsaEncryption (1.2.840.113549.1.1.1)"}}}),
              object["recipients"]);
    EXPECT_FALSE(object.contains("signers"));
    EXPECT_FALSE(object.contains("detached"));
}

TEST_F(InspectToolTest, WrappedContentTypeIsShownInFull) {
    work.write("odd", contentInfo(fromHex("2a864886f70d01079080808003"), der::null()));
    const json object = objectsIn("odd").at(0);
    EXPECT_EQ("1.2.840.113549.1.7.4294967299", object["contentType"]);
    EXPECT_FALSE(object.contains("recipients"));
}

TEST_F(InspectToolTest, KeysInEveryForm) {
    const Key rsa = alice().key;
    const Bytes spki = rsa.publicDer();
    const std::string expected = sha256({spki.begin(), spki.end()});
    const auto check = [&](const std::string& type) {
        const json object = objectsIn("key").at(0);
        EXPECT_EQ(json({{"file", "key"}, {"type", type}, {"algorithm", "RSA"}, {"bits", 2048}, {"sha256", expected}}),
                  object);
    };
    work.write("key", rsa.pkcs8());
    check("private-key");
    work.write("key", rsa.traditionalDer());
    check("private-key");
    work.write("key", rsa.pkcs8Pem());
    check("private-key");
    work.write("key", pem("RSA PRIVATE KEY", rsa.traditionalDer()));
    check("private-key");
    work.write("key", spki);
    check("public-key");
    work.write("key", rsa.publicPem());
    check("public-key");
}

TEST_F(InspectToolTest, OtherKindsOfKeys) {
    work.write("dsa", dora().key.pkcs8Pem());
    work.write("ec", erin().key.pkcs8());
    work.write("sec1", pem("EC PARAMETERS", fromHex("06082a8648ce3d030107")) +
                           pem("EC PRIVATE KEY", erin().key.traditionalDer()));
    work.write("ed", Key::ed25519().publicDer());
    EXPECT_EQ("DSA", objectsIn("dsa").at(0)["algorithm"]);
    EXPECT_EQ(2048, objectsIn("dsa").at(0)["bits"]);
    EXPECT_EQ("EC", objectsIn("ec").at(0)["algorithm"]);
    EXPECT_EQ(256, objectsIn("ec").at(0)["bits"]);
    EXPECT_EQ(1U, objectsIn("sec1").size());
    EXPECT_EQ(objectsIn("ec").at(0)["sha256"], objectsIn("sec1").at(0)["sha256"]);
    EXPECT_EQ("ED25519", objectsIn("ed").at(0)["algorithm"]);
}

TEST_F(InspectToolTest, BarePublicRsaKey) {
    work.write("clear", alice().key.pkcs8Pem());
    ASSERT_EQ(0, run({.arguments = {"openssl", "rsa", "-in", work.path("clear"), "-RSAPublicKey_out", "-out",
                                    work.path("key")}})
                     .status);
    EXPECT_NE(std::string::npos, work.read("key").find("BEGIN RSA PUBLIC KEY"));
    EXPECT_EQ("public-key", objectsIn("key").at(0)["type"]);
    EXPECT_EQ(objectsIn("clear").at(0)["sha256"], objectsIn("key").at(0)["sha256"]);
}

TEST_F(InspectToolTest, EncryptedKeysDoNotPrompt) {
    work.write("clear", alice().key.pkcs8Pem());
    work.write("key", alice().key.encryptedPem("secret"));
    const json expected{{"file", "key"}, {"type", "private-key"}, {"encrypted", true}};
    EXPECT_EQ(expected, objectsIn("key").at(0));
    ASSERT_EQ(0, run({.arguments = {"openssl", "pkcs8", "-topk8", "-in", work.path("clear"), "-outform", "DER", "-out",
                                    work.path("key"), "-passout", "pass:secret"}})
                     .status);
    EXPECT_EQ(expected, objectsIn("key").at(0));
    ASSERT_EQ(0, run({.arguments = {"openssl", "rsa", "-in", work.path("clear"), "-traditional", "-aes128", "-out",
                                    work.path("key"), "-passout", "pass:secret"}})
                     .status);
    EXPECT_EQ(expected, objectsIn("key").at(0));
}

TEST_F(InspectToolTest, SeveralObjectsInOneFile) {
    work.write("all", "first\n" + alice().certificate.pem() + "second\n" + issueList({.issuer = &root()}).pem() +
                          alice().key.publicPem() + alice().key.pkcs8Pem() +
                          pem("TRUSTED CERTIFICATE", root().certificate.der));
    const json objects = objectsIn("all");
    std::vector<std::string> types;
    for (const json& object : objects)
        types.push_back(object["type"]);
    EXPECT_EQ((std::vector<std::string>{"certificate", "crl", "public-key", "private-key", "certificate"}), types);
}

TEST_F(InspectToolTest, DerObjectsOneAfterAnother) {
    std::string both(alice().certificate.der.begin(), alice().certificate.der.end());
    both.append(root().certificate.der.begin(), root().certificate.der.end());
    work.write("both", both + "\n");
    EXPECT_EQ(2U, objectsIn("both").size());
}

TEST_F(InspectToolTest, SeveralFilesInOrder) {
    work.write("one", alice().certificate.der);
    work.write("two", root().certificate.pem());
    const Answer answer = inspect({"--json", "two", "one"});
    const json objects = json::parse(answer.out);
    ASSERT_EQ(2U, objects.size());
    EXPECT_EQ("two", objects[0]["file"]);
    EXPECT_EQ("one", objects[1]["file"]);
}

TEST_F(InspectToolTest, StandardInput) {
    for (const std::vector<std::string>& arguments : {std::vector<std::string>{"--json"}, {"--json", "-"}}) {
        const Answer answer = inspect(arguments, alice().certificate.pem());
        EXPECT_EQ(0, answer.status) << answer.err;
        EXPECT_EQ("-", json::parse(answer.out).at(0)["file"]);
    }
}

TEST_F(InspectToolTest, PemTextThatBeginsLikeDer) {
    work.write("text", "0 is where it starts\n" + alice().certificate.pem());
    EXPECT_EQ(1U, objectsIn("text").size());
}

TEST_F(InspectToolTest, TextHasALineForEachValue) {
    work.write("alice", alice().certificate.der);
    const Answer answer = inspect({"alice"});
    EXPECT_EQ(0, answer.status);
    const std::vector<std::string> lines = linesOf(answer.out);
    EXPECT_EQ("alice: certificate", lines.at(0));
    EXPECT_EQ("  subject: CN=alice,O=Interop,C=DE", lines.at(1));
    EXPECT_EQ("  issuer: CN=Interop Root,O=Interop,C=DE", lines.at(2));
    EXPECT_EQ("  serial: 2001", lines.at(3));
    EXPECT_EQ("  sha256: " + alice().certificate.sha256(), lines.at(6));
    EXPECT_EQ("  selfSigned: false", lines.at(7));
    EXPECT_EQ("  publicKey:", lines.at(9));
    EXPECT_EQ("    algorithm: RSA", lines.at(10));
    EXPECT_EQ("    bits: 2048", lines.at(11));
    EXPECT_EQ("  signatureAlgorithm: sha256WithRSAEncryption", lines.at(12));
    EXPECT_EQ("  keyUsage: digitalSignature", lines.at(13));
    EXPECT_EQ("  keyUsage: nonRepudiation", lines.at(14));
    EXPECT_EQ("  keyUsage: keyEncipherment", lines.at(15));
    EXPECT_EQ("  extendedKeyUsage: emailProtection", lines.at(16));
    EXPECT_EQ("  emails: alice@example.org", lines.at(17));
}

TEST_F(InspectToolTest, NegativeSerialNumberIsToldAndTheRestGoesOn) {
    const Identity odd = issue({.subject = {{"CN", "Odd"}}, .key = Key::ec(), .issuer = &root(), .serial = "-1f"});
    work.write("odd", odd.certificate.pem() + alice().certificate.pem());
    const json objects = objectsIn("odd");
    ASSERT_EQ(2U, objects.size());
    EXPECT_EQ("-1f", objects[0]["serial"]);
    EXPECT_EQ(json::array({"a negative serial number"}), objects[0]["problems"]);
    EXPECT_EQ("2001", objects[1]["serial"]);
    EXPECT_FALSE(objects[1].contains("problems"));
    const Answer text = inspect({"odd"});
    EXPECT_NE(std::string::npos, text.out.find("  problems: a negative serial number\n"));
}

TEST_F(InspectToolTest, TimesThatAreNoneAreToldAndLeftOut) {
    const Identity odd = issue({.subject = {{"CN", "Odd"}},
                                .key = Key::ec(),
                                .notBefore = Time::utc("9913"),
                                .notAfter = Time::generalized("20260102030405+0200")});
    work.write("odd", odd.certificate.der);
    const json object = objectsIn("odd").at(0);
    EXPECT_FALSE(object.contains("notBefore"));
    EXPECT_EQ(json::array({"notBefore is no proper time"}), object["problems"]);
    EXPECT_EQ("2026-01-02T01:04:05Z", object["notAfter"]);
}

TEST_F(InspectToolTest, MalformedExtensionsAreTold) {
    const Identity odd = issue(
        {.subject = {{"CN", "Odd"}},
         .key = Key::ec(),
         .extensions = {{.oid = "2.5.29.17", .value = {0x30, 0x05}}, {.oid = "2.5.29.31", .value = {0x04, 0x00}}}});
    work.write("odd", odd.certificate.der);
    EXPECT_EQ(json({"a malformed subject alternative name", "malformed CRL distribution points"}),
              objectsIn("odd").at(0)["problems"]);
}

TEST_F(InspectToolTest, KeyUsageThatStandsTwiceIsTold) {
    // Nothing may be done with the key then, while a certificate without the extension allows everything.
    const Identity odd = issue(
        {.subject = {{"CN", "Odd"}},
         .key = Key::ec(),
         .extensions = {{.oid = "2.5.29.15", .value = {3, 2, 1, 6}}, {.oid = "2.5.29.15", .value = {3, 2, 1, 6}}}});
    work.write("odd", odd.certificate.der);
    const json object = objectsIn("odd").at(0);
    EXPECT_FALSE(object.contains("keyUsage"));
    EXPECT_EQ(json({"an extension that is malformed or stands twice"}), object["problems"]);
}

TEST_F(InspectToolTest, HostileTextsNeitherBreakNorForge) {
    const Identity evil = issue({.subject = {{"CN", "evil\n  issuer: CN=Good\x1B[2J\xFF", V_ASN1_T61STRING}},
                                 .key = Key::ec(),
                                 .alternativeNames = {GeneralName::email("a\n  emails: b@example.org\x1B[31m"),
                                                      GeneralName::email("latin\xE9\\@example.org"),
                                                      GeneralName::dns("\xE2\x80\xAEgro.elpmaxe"),
                                                      GeneralName::uri(std::string("http://a\0b", 10))}});
    work.write("evil\n\xFF", evil.certificate.der);
    const Answer text = inspect({"evil\n\xFF"});
    EXPECT_EQ(0, text.status);
    for (const std::string& line : linesOf(text.out)) {
        EXPECT_NE(0U, line.find("  issuer: CN=Good"));
        EXPECT_NE(0U, line.find("  emails: b@"));
    }
    EXPECT_EQ("evil\\x0A\\xFF: certificate", linesOf(text.out).at(0));
    EXPECT_NE(std::string::npos, text.out.find("  subject: CN=evil\\0A  issuer: CN=Good\\1B[2J\xC3\xBF\n"))
        << "the last octet is Latin-1, as T61Strings are";
    for (const char octet : text.out)
        EXPECT_TRUE(octet == '\n' || octet == '\xC3' || octet == '\xBF' || (octet >= 0x20 && octet < 0x7F))
            << static_cast<int>(octet);
    EXPECT_NE(std::string::npos, text.out.find("  emails: a\\x0A  emails: b@example.org\\x1B[31m\n"));

    const Answer asJson = inspect({"--json", "evil\n\xFF"});
    EXPECT_EQ(0, asJson.status);
    for (const char octet : asJson.out)
        EXPECT_TRUE(octet == '\n' || (octet >= 0x20 && octet < 0x7F)) << static_cast<int>(octet);
    const json object = json::parse(asJson.out).at(0);
    EXPECT_EQ("evil\n\\xFF", object["file"]);
    EXPECT_EQ("CN=evil\\0A  issuer: CN=Good\\1B[2J\xC3\xBF", object["subject"]);
    EXPECT_EQ(json({"a\n  emails: b@example.org\x1B[31m", "latin\\xE9\\\\@example.org"}), object["emails"]);
    EXPECT_EQ(json::array({"\xE2\x80\xAEgro.elpmaxe"}), object["dns"]);
    EXPECT_EQ(json::array({std::string("http://a\0b", 10)}), object["uris"]);
}

TEST_F(InspectToolTest, NoTwoTextsComeOutAlikeInJson) {
    const Identity odd = issue({.subject = {{"CN", "Odd"}},
                                .key = Key::ec(),
                                .alternativeNames = {GeneralName::email("\xE9@x"), GeneralName::email("\\xE9@x"),
                                                     GeneralName::email("\\\\xE9@x"), GeneralName::email("a\\b")}});
    work.write("odd\\xFF", odd.certificate.der);
    const json object = objectsIn("odd\\xFF").at(0);
    EXPECT_EQ("odd\\\\xFF", object["file"]);
    EXPECT_EQ(json({"\\xE9@x", "\\\\xE9@x", "\\\\\\\\xE9@x", "a\\b"}), object["emails"]);
}

TEST_F(InspectToolTest, EarlyYearsHaveFourDigits) {
    const Identity old = issue({.subject = {{"CN", "Old"}},
                                .key = Key::ec(),
                                .notBefore = Time::generalized("00000101000000Z"),
                                .notAfter = Time::generalized("09991231235959Z")});
    work.write("old", old.certificate.der);
    const json object = objectsIn("old").at(0);
    EXPECT_EQ("0000-01-01T00:00:00Z", object["notBefore"]);
    EXPECT_EQ("0999-12-31T23:59:59Z", object["notAfter"]);
}

TEST_F(InspectToolTest, NamesThatTheParserWouldTakeApart) {
    for (const char* name : {"[a,b]", "[]", "++"}) {
        work.write(name, root().certificate.der);
        EXPECT_EQ(name, objectsIn(name).at(0)["file"]);
    }
}

TEST_F(InspectToolTest, GarbageBehindAnObjectIsToldOnce) {
    std::string content(root().certificate.der.begin(), root().certificate.der.end());
    for (int count = 0; count < 100000; ++count)
        content.append("\x30\x02\x05\x00", 4);
    content.append(alice().certificate.der.begin(), alice().certificate.der.end());
    content.append(20, '\0');
    work.write("mixed", content);
    const Answer answer = inspect({"--json", "mixed"});
    EXPECT_EQ(2, answer.status);
    const json objects = json::parse(answer.out);
    ASSERT_EQ(2U, objects.size());
    EXPECT_EQ("CN=alice,O=Interop,C=DE", objects[1]["subject"]);
    EXPECT_EQ("norvcrypt: mixed: object 2: no certificate, list, key or CMS structure, or a malformed one\n"
              "norvcrypt: mixed: object 4: no certificate, list, key or CMS structure, or a malformed one\n",
              answer.err);
}

TEST_F(InspectToolTest, UnknownContent) {
    work.write("text", std::string("Dear Bob,\n"));
    expectUnreadable("text", "text: no certificate, list, key or CMS structure\n");
    work.write("empty", std::string());
    expectUnreadable("empty", "empty: it is empty\n");
    work.write("zeroes", std::string(1000, '\0'));
    expectUnreadable("zeroes", "zeroes: no certificate, list, key or CMS structure\n");
    work.write("sequence", fromHex("3003020105"));
    expectUnreadable("sequence", "sequence: no certificate, list, key or CMS structure, or a malformed one\n");
    work.write("request", pem("CERTIFICATE REQUEST", fromHex("3000")));
    expectUnreadable("request", "request: malformed certificate request: it is damaged or cut off");
    expectUnreadable("none", "cannot open none: No such file or directory\n");
    expectUnreadable(".", "cannot read .: Is a directory\n");
}

TEST_F(InspectToolTest, WhatIsRefusedIsToldAsThatInDerToo) {
    const std::string reason = "refused: explicit elliptic curve parameters";
    work.write("certificate", norvtest::explicitIdentity().certificate.der);
    expectUnreadable("certificate", "certificate: certificate " + reason + "\n");
    work.write("key", norvtest::explicitIdentity().key.publicDer());
    const Answer answer = inspect({"key"});
    EXPECT_EQ(2, answer.status);
    EXPECT_NE(std::string::npos, answer.err.find(reason)) << answer.err;
    namespace der = norvauthority::der;
    work.write("pair",
               der::sequence({der::element(der::contextConstructed(0), norvtest::explicitIdentity().certificate.der)}));
    expectUnreadable("pair", "pair: pair of certificates " + reason + "\n");
}

/// What has the shape of an object and is damaged deeper inside.
TEST_F(InspectToolTest, MalformedObjectsInDerAreNamed) {
    namespace der = norvauthority::der;
    const Bytes algorithm = der::sequence({der::oid("1.2.840.113549.1.1.11"), der::null()});
    const Bytes empty = der::sequence({});
    const auto isSigned = [&](const std::vector<Bytes>& parts) {
        return der::sequence({der::sequence(parts), algorithm, der::bitString({1})});
    };
    work.write("certificate", isSigned({der::integer("1"), algorithm, empty, empty, empty, empty}));
    expectUnreadable("certificate", "certificate: malformed certificate: it is damaged or cut off");
    work.write("list", isSigned({der::integer("1"), algorithm, empty, der::element(der::utcTimeTag, {}), der::null()}));
    expectUnreadable("list", "list: malformed revocation list: it is damaged or cut off");
    work.write("key", der::sequence({der::integer("0"), algorithm, der::octetString({1})}));
    expectUnreadable("key", "key: ");
}

TEST_F(InspectToolTest, TruncatedObjects) {
    Bytes der = alice().certificate.der;
    der.pop_back();
    work.write("certificate", der);
    expectUnreadable("certificate", "certificate: malformed: it ends before its announced length\n");
    der = issueList({.issuer = &root()}).der;
    der.pop_back();
    work.write("list", pem("X509 CRL", der));
    expectUnreadable("list", "list: malformed revocation list: it is damaged or cut off");
    work.write("certificate", pem("CERTIFICATE", der));
    expectUnreadable("certificate", "certificate: malformed certificate: it is damaged or cut off");
    work.write("cut", alice().certificate.pem().substr(0, 300));
    expectUnreadable("cut", "cut: a damaged PEM block: ");
    work.write("public", pem("PUBLIC KEY", fromHex("3000")));
    expectUnreadable("public", "public: ");
    work.write("cms", fromHex("300b06092a864886f70d0107"));
    expectUnreadable("cms", "cms: it does not decode: ");
}

TEST_F(InspectToolTest, AnnouncedGigabyteCostsNothing) {
    work.write("huge", fromHex("3084400000003000"));
    expectUnreadable("huge", "huge: malformed: it ends before its announced length\n");
    work.write("huge", fromHex("3084400000000609 2a864886f70d010702"));
    expectUnreadable("huge", "huge: it does not decode: ");
}

TEST_F(InspectToolTest, OneBadObjectLeavesTheOthersReadable) {
    std::string damaged = root().certificate.pem();
    damaged[100] = '!';
    work.write("mixed", alice().certificate.pem() + damaged + erin().certificate.pem());
    work.write("bad", std::string("nothing"));
    work.write("good", root().certificate.der);
    const Answer answer = inspect({"--json", "mixed", "bad", "good"});
    EXPECT_EQ(2, answer.status);
    const json objects = json::parse(answer.out);
    ASSERT_EQ(3U, objects.size());
    EXPECT_EQ("CN=alice,O=Interop,C=DE", objects[0]["subject"]);
    EXPECT_EQ("CN=erin,O=Interop,C=DE", objects[1]["subject"]);
    EXPECT_EQ("good", objects[2]["file"]);
    const std::vector<std::string> lines = linesOf(answer.err);
    ASSERT_EQ(2U, lines.size());
    EXPECT_EQ(0U, lines[0].find("norvcrypt: mixed: object 2: a damaged PEM block: "));
    EXPECT_EQ("norvcrypt: bad: no certificate, list, key or CMS structure", lines[1]);
}

TEST_F(InspectToolTest, OtherArmourAndManyDamagedBlocksHideNoObject) {
    std::string mixed = alice().certificate.pem();
    mixed += "-----BEGIN PGP MESSAGE-----\n\nhQEMA0RjlLwAAAAAAQf9GyPpC5nWbxS1hR\n=abcd\n-----END PGP MESSAGE-----\n";
    constexpr std::size_t blocks = 2000;
    for (std::size_t block = 0; block < blocks; ++block)
        mixed += "-----BEGIN CMS-----\n!\n-----END CMS-----\n";
    work.write("mixed", mixed + erin().certificate.pem());
    const Answer answer = inspect({"--json", "mixed"});
    EXPECT_EQ(2, answer.status);
    const json objects = json::parse(answer.out);
    ASSERT_EQ(2U, objects.size());
    EXPECT_EQ("CN=alice,O=Interop,C=DE", objects[0]["subject"]);
    EXPECT_EQ("CN=erin,O=Interop,C=DE", objects[1]["subject"]);
    const std::vector<std::string> lines = linesOf(answer.err);
    ASSERT_EQ(1 + blocks, lines.size());
    EXPECT_EQ("norvcrypt: mixed: object 2: OpenPGP armour, which gpg reads", lines[0]);
    EXPECT_EQ(0U, lines[1].find("norvcrypt: mixed: object 3: a damaged PEM block: "));
    EXPECT_EQ(0U, lines[blocks].find("norvcrypt: mixed: object 2002: a damaged PEM block: "));
}

// What stands in a mail beside what it answers, say: OpenSSL reads the first and the last of these.
TEST_F(InspectToolTest, BlocksThatAreIndentedStandBesideOthers) {
    const auto indented = [](const std::string& pem, const std::string& before) {
        std::string text = before;
        for (const char letter : pem)
            text += letter == '\n' ? "\n" + before : std::string(1, letter);
        return text + "\n";
    };
    const std::string proper = alice().certificate.pem();
    work.write("mixed", proper + indented(erin().certificate.pem(), "> ") + indented(proper, "  ") +
                            indented(run({.arguments = {"openssl", "dhparam", "-dsaparam", "512"}}).out, " ") +
                            root().certificate.pem());
    const Answer answer = inspect({"--json", "mixed"});
    EXPECT_EQ(0, answer.status) << answer.err;
    const json objects = json::parse(answer.out);
    ASSERT_EQ(3U, objects.size()) << answer.out;
    EXPECT_EQ("CN=alice,O=Interop,C=DE", objects[0]["subject"]);
    EXPECT_EQ(root().certificate.sha256(), objects[1]["sha256"]);
    EXPECT_EQ("CN=erin,O=Interop,C=DE", objects[2]["subject"]);
    // They count where one is wanted.
    work.write("body", sampleBody());
    const Answer encrypted = norvcrypt(Command{
        .arguments = {"encrypt", "--to", "mixed", "--in", "body", "--out", "msg"}, .directory = work.directory()});
    EXPECT_EQ(2, encrypted.status);
    EXPECT_EQ("norvcrypt: mixed holds 3 certificates: give each recipient a file of its own\n", encrypted.err);
}

// A mail that is signed beside its body is kept aside; the other files are told all the same.
TEST_F(InspectToolTest, NoRoomForWhatIsKeptAsideOfOneFile) {
    work.write("alice.pem", alice().certificate.pem());
    work.write("alice.key", alice().key.pkcs8Pem());
    work.write("mail", "From: alice@example.org\nSubject: long\n\n" + std::string(3U << 20U, 'x') + "\n");
    ASSERT_EQ(0, norvcrypt(Command{.arguments = {"smime", "sign", "--cert", "alice.pem", "--key", "alice.key", "--in",
                                                 "mail", "--out", "signed"},
                                   .directory = work.directory()})
                     .status);
    const Answer answer = run({.arguments = {"/bin/bash", "-c", "ulimit -f 100; \"$@\"", "-",
                                             norvtest::norvcryptProgram, "inspect", "--json", "signed", "alice.pem"},
                               .directory = work.directory()});
    EXPECT_EQ(2, answer.status);
    EXPECT_EQ(1U, linesOf(answer.err).size());
    EXPECT_EQ(0U, answer.err.find("norvcrypt: signed: cannot write the temporary file from ")) << answer.err;
    const json objects = json::parse(answer.out);
    ASSERT_EQ(1U, objects.size());
    EXPECT_EQ("alice.pem", objects[0]["file"]);
}

TEST_F(InspectToolTest, UnwritableOutput) {
    work.write("alice", alice().certificate.der);
    for (const bool asJson : {false, true}) {
        Command command{.arguments = {"inspect", "alice"}, .outputFile = "/dev/full", .directory = work.directory()};
        if (asJson)
            command.arguments.emplace_back("--json");
        const Answer answer = norvcrypt(command);
        EXPECT_EQ(2, answer.status);
        EXPECT_EQ("norvcrypt: cannot write standard output: No space left on device\n", answer.err);
    }
}

TEST_F(InspectToolTest, ManyAddressesStayLinear) {
    std::vector<GeneralName> names;
    names.reserve(12000);
    for (int number = 0; number < 12000; ++number)
        names.push_back(GeneralName::email("address" + std::to_string(number) + "@example.org"));
    work.write("many",
               issue({.subject = {{"CN", "Many"}}, .key = Key::ec(), .alternativeNames = names}).certificate.der);
    EXPECT_EQ(12000U, objectsIn("many").at(0)["emails"].size());
}

} // namespace
