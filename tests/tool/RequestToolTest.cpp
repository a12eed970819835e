// norvcrypt request and genkey by kind, judged by the openssl program; what inspect says of requests, lists and encodings.

#include "support/Costly.h"
#include "support/ToolTest.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <optional>
#include <regex>
#include <set>
#include <sys/stat.h>
#include <tuple>

using namespace interop;
using nlohmann::json;

namespace {

class RequestToolTest : public ToolTest {
protected:
    Answer openssl(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), "openssl");
        return run({.arguments = arguments, .directory = work.directory()});
    }
};

TEST_F(RequestToolTest, EachKindOfKeyAsksAndOpensslAgrees) {
    const std::vector<std::array<std::string, 4>> kinds{
        {"rsa:2048", "Public-Key: (2048 bit)", "sha256WithRSAEncryption", "RSA"},
        {"P-256", "ASN1 OID: prime256v1", "ecdsa-with-SHA256", "EC"},
        {"p-384", "ASN1 OID: secp384r1", "ecdsa-with-SHA384", "EC"},
        {"Ed25519", "ED25519 Public-Key:", "ED25519", "ED25519"},
    };
    for (const auto& [kind, key, algorithm, name] : kinds) {
        SCOPED_TRACE(kind);
        const Answer made = tool({"request", "--new", kind, "--key", kind + ".key", "--subject",
                                  "CN=Dora \xC3\x84\\, Esq.,O=Example,C=DE", "--email", "dora@example.org",
                                  "d@example.com", "--dns", "mx.example.org", "--out", kind + ".csr"});
        ASSERT_EQ(0, made.status) << made.err;
        EXPECT_EQ("", made.err);
        EXPECT_EQ(0600U, work.mode(kind + ".key"));
        const Answer judged =
            openssl({"req", "-in", kind + ".csr", "-verify", "-noout", "-text", "-nameopt", "rfc2253,utf8,-esc_msb"});
        EXPECT_EQ(0, judged.status);
        EXPECT_NE(std::string::npos, judged.err.find("verify OK")) << judged.err;
        EXPECT_NE(std::string::npos, judged.out.find("Subject: CN=Dora \xC3\x84\\, Esq.,O=Example,C=DE")) << judged.out;
        EXPECT_NE(std::string::npos, judged.out.find(key)) << judged.out;
        EXPECT_NE(std::string::npos, judged.out.find("Signature Algorithm: " + algorithm)) << judged.out;
        EXPECT_NE(std::string::npos, judged.out.find("email:dora@example.org, email:d@example.com, DNS:mx.example.org"))
            << judged.out;
        const Answer shown = tool({"inspect", kind + ".csr", "--json"});
        ASSERT_EQ(0, shown.status) << shown.err;
        const json facts = json::parse(shown.out).at(0);
        EXPECT_EQ("request", facts.at("type"));
        EXPECT_EQ("CN=Dora \xC3\x84\\, Esq.,O=Example,C=DE", facts.at("subject"));
        EXPECT_EQ(name, facts.at("publicKey").at("algorithm"));
        EXPECT_EQ(true, facts.at("signedWithItsKey"));
        EXPECT_EQ(json({"dora@example.org", "d@example.com"}), facts.at("emails"));
        EXPECT_EQ(json({"mx.example.org"}), facts.at("dns"));
    }
    // DER is told apart by its content; a changed one is not signed with its key.
    ASSERT_EQ(0, openssl({"req", "-in", "P-256.csr", "-outform", "DER", "-out", "request.der"}).status);
    std::string der = work.read("request.der");
    der[der.find("Dora")] = 'N';
    work.write("changed.der", der);
    const json facts = json::parse(tool({"inspect", "request.der", "changed.der", "--json"}).out);
    EXPECT_EQ(true, facts.at(0).at("signedWithItsKey"));
    EXPECT_EQ(false, facts.at(1).at("signedWithItsKey"));
}

/// Decoding such a key takes a quarter of a second before anybody is asked.
TEST_F(RequestToolTest, RequestsThatCostTooMuchAreRefused) {
    namespace der = norvauthority::der;
    const norvauthority::Bytes algorithm = der::sequence({der::oid("1.2.840.10045.4.3.2")});
    const norvauthority::Bytes body =
        der::sequence({der::integer("0"), norvauthority::Name{{"CN", "x"}}.der(),
                       norvtest::explicitIdentity().key.publicDer(), der::element(der::contextConstructed(0), {})});
    work.write("request", der::sequence({body, algorithm, der::bitString({1})}));
    const Answer answer = tool({"inspect", "request"});
    EXPECT_EQ(2, answer.status);
    EXPECT_EQ("norvcrypt: request: certificate request refused: explicit elliptic curve parameters\n", answer.err);
}

// RFC 4514, section 2.4: what is escaped stands as a sign or as the byte in two digits; names are shown so.
TEST_F(RequestToolTest, SubjectsAreReadAsTheyAreShown) {
    work.write("alice.key", alice().key.pkcs8Pem());
    const auto subject = [this](const std::string& text) {
        const Answer made = tool({"request", "--key", "alice.key", "--subject", text, "--out", "csr"});
        EXPECT_EQ(0, made.status) << made.err;
        const std::string shown = openssl({"req", "-in", "csr", "-noout", "-subject", "-nameopt", "RFC2253"}).out;
        EXPECT_EQ(text, json::parse(tool({"inspect", "csr", "--json"}).out).at(0).at("subject"));
        return shown;
    };
    EXPECT_EQ("subject=CN=a\\0Ab,O=\\C3\\84\n", subject("CN=a\\0Ab,O=\xC3\x84"));
    EXPECT_EQ("subject=CN=\\\"a\\+b\\\\c\\,d\\<e\\>\\;\\\"\n", subject("CN=\\\"a\\+b\\\\c\\,d\\<e\\>\\;\\\""));
    EXPECT_EQ("subject=CN=\\ a\\ \n", subject("CN=\\ a\\ "));
    const auto made = [this](const std::string& text) {
        EXPECT_EQ(0, tool({"request", "--key", "alice.key", "--subject", text, "--out", "csr"}).status);
        return openssl({"req", "-in", "csr", "-noout", "-subject", "-nameopt", "RFC2253"}).out;
    };
    EXPECT_EQ("subject=CN=M\\C3\\BCller\\, Anna\n", made("CN=M\\C3\\bcller\\2C Anna"));
    EXPECT_EQ("subject=CN=a=b\n", made("CN=a\\=b"));
    before = work.names();
    for (const char* text : {"CN=DOMAIN\\user", "CN=a\\", "CN=a\\0", "CN=a\\0x", "CN=a\\\n"})
        expectFailure(tool({"request", "--key", "alice.key", "--subject", text, "--out", "other"}),
                      "a backslash in the subject stands in front of a sign");
    expectFailure(tool({"request", "--key", "alice.key", "--subject", "CN=a\\FF", "--out", "other"}), "no UTF-8: a");
}

TEST_F(RequestToolTest, AddressesThatAreNone) {
    work.write("alice.key", alice().key.pkcs8Pem());
    before = work.names();
    for (const char* address : {"alice", "@", "alice@", "@example.org", "a@example.org,b@example.org"})
        expectFailure(tool({"request", "--key", "alice.key", "--subject", "CN=A", "--email", address, "--out", "csr"}),
                      std::string("no mail address: ") + address);
    for (const char* name : {"Alice <alice@example.org>", "alice@example.org\n", "m\xC3\xBCller@example.org"})
        for (const char* option : {"--email", "--dns"})
            expectFailure(tool({"request", "--key", "alice.key", "--subject", "CN=A", option, name, "--out", "csr"}),
                          "not supported in a request, as it is empty, holds a blank or is not ASCII: ");
}

TEST_F(RequestToolTest, FromAKeyThatThereIs) {
    work.write("alice.key", alice().key.encryptedPem("swordfish"));
    work.write("pass", std::string("swordfish\n"));
    const Answer made = tool({"request", "--key", "alice.key", "--passphrase-file", "pass", "--subject", "CN=Alice"});
    ASSERT_EQ(0, made.status) << made.err;
    work.write("csr", made.out);
    EXPECT_EQ(alice().key.publicPem(), openssl({"req", "-in", "csr", "-pubkey", "-noout"}).out);
    before = work.names();
    expectFailure(tool({"request", "--key", "alice.key", "--subject", "CN=Alice"}), "give its passphrase");
    expectFailure(tool({"request", "--key", "alice.key", "--passphrase-file", "pass", "--subject", "Alice"}),
                  "the subject Alice is none: write it as CN=");
    expectFailure(tool({"request", "--key", "alice.key", "--passphrase-file", "pass", "--subject", "XY=Alice"}),
                  "no kind of name: XY");
    expectFailure(tool({"request", "--key", "alice.key", "--passphrase-file", "pass", "--subject", "C=Germany"}),
                  "the value of C in the subject is too long, too short or no UTF-8: Germany");
    expectFailure(tool({"request", "--key", "alice.key", "--passphrase-file", "pass", "--subject", "CN=A+O=B"}),
                  "write \\\\+ for the sign itself");
    expectFailure(tool({"request", "--key", "alice.key", "--passphrase-file", "pass", "--subject", "CN=A", "--email",
                        "m\xC3\xBCller@example.org"}),
                  "not ASCII");
    expectFailure(tool({"request", "--new", "P-256", "--key", "alice.key", "--subject", "CN=Alice"}),
                  "will not replace alice.key");
    expectFailure(tool({"request", "--new", "dsa", "--key", "new.key", "--subject", "CN=Alice"}),
                  "no kind of key: dsa");
    expectFailure(tool({"request", "--new", "P-256", "--key", "new.key", "--subject", "Alice"}), "the subject Alice");
}

TEST_F(RequestToolTest, GenkeyMakesEachKindAndTellsOfIt) {
    for (const auto& [kind, name, bits] : {std::tuple{"P-256", "EC", 256},
                                           {"P-384", "EC", 384},
                                           {"Ed25519", "ED25519", 256},
                                           {"rsa:2048", "RSA", 2048}}) {
        SCOPED_TRACE(kind);
        const Answer answer = tool({"genkey", "--kind", kind, "--out", "new.key", "--json", "--force"});
        ASSERT_EQ(0, answer.status) << answer.err;
        const json facts = json::parse(answer.out);
        EXPECT_EQ("new.key", facts.at("file"));
        EXPECT_EQ(name, facts.at("algorithm"));
        EXPECT_EQ(bits, facts.at("bits"));
        EXPECT_EQ(false, facts.at("encrypted"));
        EXPECT_EQ(0, openssl({"pkey", "-in", "new.key", "-noout", "-check"}).status);
        ASSERT_EQ(0, openssl({"pkey", "-in", "new.key", "-pubout", "-outform", "DER", "-out", "public"}).status);
        EXPECT_EQ(sha256(work.read("public")), facts.at("sha256"));
    }
    before = work.names();
    expectFailure(tool({"genkey", "--kind", "P-256", "--bits", "2048", "--out", "x"}), "--bits is for RSA keys");
    expectFailure(tool({"genkey", "--kind", "rsa:100", "--out", "x"}), "no kind of key: rsa:100");
    expectFailure(tool({"genkey", "--json", "--out", "-"}), "give --out a file");
}

TEST_F(RequestToolTest, ListsTellTheirEntriesPageByPage) {
    std::vector<norvauthority::Revoked> revoked;
    for (int number = 1; number <= 30; ++number)
        revoked.push_back({.serial = std::to_string(1000 + number),
                           .date = norvauthority::Time::utc("260102030405Z"),
                           .reason = number == 1   ? std::optional(1)
                                     : number == 2 ? std::optional(4)
                                                   : std::nullopt});
    work.write("crl", norvauthority::issueList({.issuer = &root(), .revoked = revoked}).pem());
    const auto entries = [this](const std::vector<std::string>& more) {
        std::vector<std::string> arguments{"inspect", "crl", "--json"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        const json facts = json::parse(tool(arguments).out).at(0);
        EXPECT_EQ(30, facts.at("entries"));
        return facts.value("revoked", json::array());
    };
    const json first = entries({});
    ASSERT_EQ(10U, first.size());
    EXPECT_EQ(json({{"entry", 1}, {"serial", "1001"}, {"time", "2026-01-02T03:04:05Z"}, {"reason", "keyCompromise"}}),
              first.at(0));
    EXPECT_EQ("superseded", first.at(1).at("reason"));
    EXPECT_FALSE(first.at(2).contains("reason"));
    const json later = entries({"--entries", "29-100"});
    ASSERT_EQ(2U, later.size());
    EXPECT_EQ(29, later.at(0).at("entry"));
    EXPECT_EQ("1030", later.at(1).at("serial"));
    EXPECT_EQ("1005", entries({"--entries", "5"}).at(0).at("serial"));
    EXPECT_EQ(0U, entries({"--entries", "31-40"}).size());
    before = work.names();
    for (const char* range : {"0", "5-4", "-", "1-", "a", "1-2-3", "99999999999"})
        expectFailure(tool({"inspect", "crl", "--entries", range}), "--entries takes");
}

TEST_F(RequestToolTest, CertificatesTellKeyAlgorithmAndWhatTheyAreFor) {
    const auto identity = norvauthority::issue({.subject = {{"CN", "E"}},
                                                .key = norvauthority::Key::ec("P-384"),
                                                .issuer = &root(),
                                                .extendedKeyUsage = {"emailProtection", "1.2.3.4.5"}});
    work.write("cert", identity.certificate.pem());
    const json facts = json::parse(tool({"inspect", "cert", "--json"}).out).at(0);
    EXPECT_EQ(json({{"algorithm", "EC"}, {"bits", 384}}), facts.at("publicKey"));
    EXPECT_EQ("sha256WithRSAEncryption", facts.at("signatureAlgorithm"));
    EXPECT_EQ(json({"emailProtection", "1.2.3.4.5"}), facts.at("extendedKeyUsage"));
}

TEST_F(RequestToolTest, TreesShowWhatOpensslParses) {
    work.write("cert.pem", alice().certificate.pem());
    const Answer ours = tool({"inspect", "--tree", "cert.pem"});
    ASSERT_EQ(0, ours.status) << ours.err;
    // Where each element is, and how long: without what strings hold, as it tells it.
    const auto numbers = [](const std::string& text, const std::regex& pattern) {
        std::set<std::string> all;
        for (const std::string& line : linesOf(text))
            if (std::smatch found; std::regex_search(line, found, pattern))
                all.insert(found[1].str() + "," + found[2].str() + "," + found[3].str());
        return all;
    };
    const auto mine = numbers(ours.out, std::regex("^ *([0-9]+): .*, ([0-9]+) \\+ ([0-9]+)"));
    const auto theirs = numbers(openssl({"asn1parse", "-in", "cert.pem"}).out,
                                std::regex("^ *([0-9]+):d=[0-9]+ +hl=([0-9]+) +l= *([0-9]+)"));
    EXPECT_LT(20U, theirs.size());
    EXPECT_TRUE(std::ranges::includes(mine, theirs)) << ours.out;
    EXPECT_NE(std::string::npos, ours.out.find("OBJECT, 2 + 3: commonName")) << ours.out;

    // Nested without an end, and more elements than anybody reads: both are bounded, and told.
    std::string deep;
    for (int level = 0; level < 5000; ++level)
        deep += "\x30\x80";
    work.write("deep", deep);
    const Answer nested = tool({"inspect", "--tree", "deep"});
    EXPECT_NE(std::string::npos, nested.out.find("(deeper than 64 levels: not shown)"));
    EXPECT_GT(80U, linesOf(nested.out).size());
    std::string many = "\x30\x83\x01\x86\xA0"; // 100,000 octets
    for (int at = 0; at < 50000; ++at)
        many += std::string("\x05\x00", 2);
    work.write("many", many);
    const Answer wide = tool({"inspect", "--tree", "many"});
    EXPECT_NE(std::string::npos, wide.out.find("(more than 20000 elements: the others are not shown)"));
    EXPECT_EQ(20002U, linesOf(wide.out).size());
    work.write("cut",
               alice().certificate.pem().empty() ? std::string() : std::string("\x30\x10\x02\x01\x05\x04\x20zz", 9));
    const Answer cut = tool({"inspect", "--tree", "cut"});
    EXPECT_EQ(0, cut.status) << cut.err;
    EXPECT_NE(std::string::npos, cut.out.find("octets are missing)")) << cut.out;
    work.write("text", std::string("no encoding at all"));
    EXPECT_EQ(2, tool({"inspect", "--tree", "text"}).status);
}

// What else a file holds was asked for each block that cannot be shown, and goes through all of it: for these, half an hour.
TEST_F(RequestToolTest, TreesOfManyDamagedBlocksAreSoonTold) {
    std::string blocks = alice().certificate.pem();
    for (int at = 0; at < 5000; ++at)
        blocks += "-----BEGIN CERTIFICATE-----\n!!!!\n-----END CERTIFICATE-----\n";
    work.write("many", blocks);
    const Answer answer = tool({"inspect", "--tree", "many"});
    EXPECT_EQ(2, answer.status);
    EXPECT_EQ(0U, answer.out.find("many: object 1\n     0: SEQUENCE, ")) << answer.out.substr(0, 100);
    const std::vector<std::string> lines = linesOf(answer.err);
    ASSERT_EQ(5000U, lines.size());
    EXPECT_EQ("norvcrypt: many: no DER, BER or PEM to be shown: it holds a certificate", lines.back());
}

/// What docs/json.md says: keys that are there always, and those that may be.
void expectKeys(const json& object, const std::set<std::string>& always, const std::set<std::string>& maybe) {
    for (const std::string& key : always)
        EXPECT_TRUE(object.contains(key)) << key << " in " << object;
    for (const auto& [key, value] : object.items())
        EXPECT_TRUE(always.contains(key) || maybe.contains(key)) << key << " is not documented: " << object;
}

TEST_F(RequestToolTest, JsonIsAsDocumented) {
    work.write("alice.pem", alice().certificate.pem());
    work.write("alice.key", alice().key.pkcs8Pem());
    work.write("bob.pem", bob().certificate.pem());
    chmod(work.path("alice.key").c_str(), 0600);
    work.write("pass", std::string("swordfish\n"));
    work.write("body", sampleBody());
    ASSERT_EQ(0, openssl({"pkcs12", "-export", "-inkey", "alice.key", "-in", "alice.pem", "-passout", "file:pass",
                          "-out", "alice.p12"})
                     .status);
    ASSERT_EQ(
        0, tool({"encrypt", "--to", "bob.pem", "alice.pem", "--password-file", "pass", "--in", "body", "--out", "msg"})
               .status);

    work.write("bob.key", bob().key.pkcs8Pem());
    const Answer decrypted =
        tool({"decrypt", "--cert", "bob.pem", "--key", "bob.key", "--in", "msg", "--out", "clear", "--json"});
    ASSERT_EQ(0, decrypted.status) << decrypted.err;
    EXPECT_EQ("", decrypted.err);
    EXPECT_EQ(sampleBody(), work.read("clear"));
    const json report = json::parse(decrypted.out);
    expectKeys(report, {"file", "decrypted", "contentMissing", "recipients"}, {});
    EXPECT_EQ(true, report.at("decrypted"));
    ASSERT_EQ(2U, report.at("recipients").size());
    for (const json& one : report.at("recipients"))
        expectKeys(one, {"kind", "outcome", "text"}, {"identifier", "keyFile", "certificateSha256"});
    EXPECT_EQ("no-key", report.at("recipients").at(0).at("outcome"));
    EXPECT_EQ("decrypted", report.at("recipients").at(1).at("outcome"));
    EXPECT_EQ("bob.key", report.at("recipients").at(1).at("keyFile"));
    EXPECT_EQ(2, tool({"decrypt", "--cert", "alice.pem", "--key", "alice.key", "--in", "msg", "--json"}).status);

    const Answer digested = tool({"digest", "body", "nothing", "alice.pem", "--json"});
    EXPECT_EQ(2, digested.status);
    const json digests = json::parse(digested.out);
    ASSERT_EQ(2U, digests.size());
    for (const json& one : digests)
        expectKeys(one, {"file", "type", "digest"}, {});
    EXPECT_EQ(sha256(sampleBody()), digests.at(0).at("digest"));

    const json taken =
        json::parse(tool({"p12", "alice.p12", "--passphrase-file", "pass", "--out-dir", "out", "--json"}).out);
    expectKeys(taken, {"file", "key"}, {"certificate"});
    EXPECT_EQ("out/cert.pem", taken.at("certificate"));

    const json made = json::parse(tool({"genkey", "--kind", "P-256", "--out", "k", "--json"}).out);
    expectKeys(made, {"file", "algorithm", "bits", "sha256", "encrypted"}, {});

    const Answer checked = tool({"tls", "check", "--root", work.directory(), "--json"});
    EXPECT_EQ(1, checked.status);
    const json problems = json::parse(checked.out);
    expectKeys(problems, {"root", "problems"}, {});
    ASSERT_LT(0U, problems.at("problems").size());
    for (const json& one : problems.at("problems"))
        expectKeys(one, {"file", "reason"}, {});

    ASSERT_EQ(0, tool({"sign", "--cert", "alice.pem", "--key", "alice.key", "--in", "body", "--out", "sig"}).status);
    const json verified = json::parse(tool({"verify", "--signature", "sig", "--in", "body", "--json"}).out);
    expectKeys(verified, {"verdict", "trustChecked", "signers", "problems"}, {"body", "notLooked"});
    for (const json& one : verified.at("signers"))
        expectKeys(one, {"verdict"},
                   {"reason", "text", "event", "certificate", "signatureAlgorithm", "digestAlgorithm", "signingTime",
                    "trust", "explanation"});
}

} // namespace
