// norvcrypt tls check: a set-up that is in order, and each problem on its own.

#include "support/Costly.h"
#include "support/ToolTest.h"

#include <authority/Authority.h>

#include <filesystem>
#include <sys/stat.h>

using namespace interop;
using namespace norvauthority;
namespace fs = std::filesystem;

namespace {

constexpr const char* keyFile = "root/migadmin/etc/cert/server/apps/server.key";
constexpr const char* chainFile = "root/migadmin/etc/cert/server/apps/server.crt";
constexpr const char* bundle = "root/etc/cacert.pem";
constexpr const char* authorities = "root/migadmin/etc/cert/server/ca";
constexpr const char* lists = "root/migadmin/etc/cert/server/crl";

const Identity& authority(bool second = false) {
    const auto make = [](const char* name) {
        return issue({.subject = {{"CN", name}}, .key = Key::ec(), .ca = true, .keyUsage = 0x06});
    };
    static const Identity first = make("First Root");
    static const Identity other = make("Second Root");
    return second ? other : first;
}

const Identity& server() {
    static const Identity identity = issue({.subject = {{"CN", "server"}}, .key = Key::ec(), .issuer = &authority()});
    return identity;
}

class TlsCheckToolTest : public ToolTest {
protected:
    void SetUp() override {
        if (!installed("openssl"))
            GTEST_SKIP() << "openssl is not installed";
        umask(022);
        for (const std::string folder : {"root/migadmin/etc/cert/server/apps", "root/etc", authorities, lists})
            fs::create_directories(work.path(folder));
        work.write(keyFile, server().key.pkcs8Pem());
        fs::permissions(work.path(keyFile), fs::perms(0600));
        work.write(chainFile, server().certificate.pem() + authority().certificate.pem());
        work.write(bundle, authority().certificate.pem());
        add(authorities, "second.pem", authority(true).certificate.pem());
        add(lists, "first.crl", issueList({.issuer = &authority()}).pem());
        rehash(authorities);
        rehash(lists);
    }

    void add(const std::string& folder, const std::string& name, const std::string& content) const {
        work.write(folder + "/" + name, content);
    }
    void rehash(const std::string& folder) const {
        ASSERT_EQ(0, run(Command{.arguments = {"openssl", "rehash", work.path(folder)}}).status);
    }
    /// The link that openssl rehash made in a folder.
    [[nodiscard]] std::string link(const std::string& folder) const {
        for (const auto& entry : fs::directory_iterator(work.path(folder)))
            if (entry.is_symlink())
                return folder + "/" + entry.path().filename().string();
        ADD_FAILURE() << "no link in " << folder;
        return {};
    }
    void rename(const std::string& from, const std::string& to) const { fs::rename(work.path(from), work.path(to)); }

    Answer check() { return tool({"tls", "check", "--root", "root"}); }
    /// One problem, and that on its own: `path` and what is wrong with it begin the only line.
    void expectProblem(const std::string& path, const std::string& problem) {
        const Answer answer = check();
        EXPECT_EQ(1, answer.status);
        EXPECT_EQ("", answer.err);
        ASSERT_EQ(1U, linesOf(answer.out).size()) << answer.out;
        EXPECT_EQ(0U, answer.out.find(path + ": " + problem)) << answer.out;
    }
};

TEST_F(TlsCheckToolTest, ASetUpThatIsInOrder) {
    const Answer answer = check();
    EXPECT_EQ(0, answer.status);
    EXPECT_EQ("no problems\n", answer.out);
    EXPECT_EQ("", answer.err);
}

TEST_F(TlsCheckToolTest, MissingFilesAreAllNamed) {
    const Answer answer = tool({"tls", "check", "--root", "elsewhere"});
    EXPECT_EQ(1, answer.status);
    std::string expected;
    for (const char* path : {keyFile, chainFile, bundle, authorities, lists})
        expected += "elsewhere" + std::string(path).substr(4) + ": cannot be read: No such file or directory\n";
    EXPECT_EQ(expected, answer.out);
}

TEST_F(TlsCheckToolTest, AKeyThatOthersMayRead) {
    fs::permissions(work.path(keyFile), fs::perms(0640));
    expectProblem(keyFile, "others than its owner may use the private key: chmod 600");
}

TEST_F(TlsCheckToolTest, WhatOthersMayChange) {
    std::string expected;
    for (const char* path : {chainFile, bundle, authorities, lists}) {
        fs::permissions(work.path(path), fs::perms::others_write, fs::perm_options::add);
        expected += path + std::string(": others than its owner may change it: chmod go-w\n");
    }
    EXPECT_EQ(expected, check().out);
    fs::permissions(work.path(lists), fs::perms(0775));
    EXPECT_EQ(expected, check().out) << "the group";
}

TEST_F(TlsCheckToolTest, WhatIsNoFileAndNoDirectory) {
    std::string expected;
    for (const char* path : {keyFile, chainFile, bundle}) {
        fs::remove(work.path(path));
        ASSERT_EQ(0, mkfifo(work.path(path).c_str(), 0600)) << "would be waited for";
        expected += path + std::string(": no file\n");
    }
    for (const char* path : {authorities, lists}) {
        fs::remove_all(work.path(path));
        work.write(path, std::string("file"));
        expected += path + std::string(": no directory\n");
    }
    EXPECT_EQ(expected, check().out);
}

TEST_F(TlsCheckToolTest, AKeyOfAnotherCertificate) {
    work.write(keyFile, Key::ec().pkcs8Pem());
    expectProblem(chainFile, "the private key does not belong to the first certificate");
}

TEST_F(TlsCheckToolTest, AKeyThatNeedsAPassphrase) {
    work.write(keyFile, server().key.encryptedPem("secret"));
    expectProblem(keyFile, "no private key in PEM without a passphrase: ");
}

TEST_F(TlsCheckToolTest, CertificatesThatCostTooMuchAreNotDecoded) {
    const std::string costly = norvtest::explicitIdentity().certificate.pem();
    work.write(bundle, authority().certificate.pem() + costly);
    expectProblem(bundle, "a certificate that is refused: explicit elliptic curve parameters\n");
    work.write(bundle, authority().certificate.pem());
    add(authorities, "costly.pem", costly);
    const Answer answer = check();
    EXPECT_NE(std::string::npos,
              answer.out.find("costly.pem: a certificate that is refused: explicit elliptic curve parameters\n"))
        << answer.out;
}

TEST_F(TlsCheckToolTest, AChainThatIsNone) {
    work.write(chainFile, std::string("no certificate"));
    expectProblem(chainFile, "no certificate chain in PEM that can be used: ");
}

TEST_F(TlsCheckToolTest, AChainInTheWrongOrder) {
    work.write(chainFile, server().certificate.pem() + authority(true).certificate.pem());
    expectProblem(chainFile, "certificate 2 did not issue the one before it");
}

TEST_F(TlsCheckToolTest, ACertificateThatExpired) {
    const Identity old = issue({.subject = {{"CN", "old"}},
                                .key = server().key,
                                .issuer = &authority(),
                                .notBefore = Time::utc("250101000000Z"),
                                .notAfter = Time::utc("250201000000Z")});
    work.write(chainFile, old.certificate.pem());
    expectProblem(chainFile, "a certificate that expired at 2025-02-01T00:00:00Z: /CN=old\n");
}

TEST_F(TlsCheckToolTest, CertificatesThatExpireSoonWhereAskedFor) {
    const auto until = [this](int days) {
        work.write(chainFile, issue({.subject = {{"CN", "soon"}},
                                     .key = server().key,
                                     .issuer = &authority(),
                                     .notAfter = Time::fromNow(days * 86400 + 3600)})
                                  .certificate.pem());
        return tool({"tls", "check", "--root", "root", "--days", "7"});
    };
    EXPECT_EQ("no problems\n", until(7).out);
    const Answer soon = until(6);
    EXPECT_EQ(1, soon.status);
    EXPECT_EQ(0U, soon.out.find(chainFile + std::string(": a certificate that will expire at 20"))) << soon.out;
    EXPECT_EQ("no problems\n", check().out) << "not asked for";
}

TEST_F(TlsCheckToolTest, ACertificateThatIsNotValidYet) {
    const Identity early = issue({.subject = {{"CN", "early"}},
                                  .key = server().key,
                                  .issuer = &authority(),
                                  .notBefore = Time::generalized("20900101000000Z"),
                                  .notAfter = Time::generalized("20910101000000Z")});
    work.write(chainFile, early.certificate.pem());
    expectProblem(chainFile, "a certificate that is valid only from 2090-01-01T00:00:00Z: /CN=early\n");
}

TEST_F(TlsCheckToolTest, ABundleWithoutAnAuthority) {
    work.write(bundle, server().certificate.pem());
    expectProblem(bundle, "a certificate that is no authority's\n");
    work.write(bundle, std::string("nothing"));
    EXPECT_NE(std::string::npos, check().out.find(bundle + std::string(": no certificate\n")));
}

TEST_F(TlsCheckToolTest, ABundleThatOpenSslDropsForWhatElseIsInIt) {
    work.write(bundle, authority().certificate.pem() + "-----BEGIN X509 CRL-----\nMAA=\n-----END X509 CRL-----\n");
    expectProblem(bundle, "nothing in it is used: ");
}

TEST_F(TlsCheckToolTest, ABundleWithBlocksThatOpenSslPassesOver) {
    std::string indented = "  ";
    for (const char letter : server().certificate.pem())
        indented += letter == '\n' ? std::string("\n  ") : std::string(1, letter);
    work.write(bundle, authority().certificate.pem() + indented);
    const std::vector<std::string> lines = linesOf(check().out);
    ASSERT_EQ(2U, lines.size());
    EXPECT_EQ(bundle + std::string(": PEM that is indented, quoted or in small letters, which is not read here"),
              lines[0]);
    EXPECT_EQ(bundle + std::string(": a certificate that is no authority's"), lines[1]);
}

TEST_F(TlsCheckToolTest, AnAuthorityThatIsNotFiled) {
    fs::remove(work.path(link(authorities)));
    expectProblem(authorities + std::string("/second.pem"), "never found, since the certificate is not filed under ");
}

TEST_F(TlsCheckToolTest, AListThatIsNotFiled) {
    fs::remove(work.path(link(lists)));
    expectProblem(lists + std::string("/first.crl"), "never found, since the revocation list is not filed under ");
}

TEST_F(TlsCheckToolTest, AnAuthorityThatIsFiledUnderTheWrongHash) {
    const std::string wrong = authorities + std::string("/0123abcd.0");
    fs::copy(work.path(authorities + std::string("/second.pem")), work.path(wrong));
    expectProblem(wrong, "filed under the wrong hash: its certificate belongs under ");
}

TEST_F(TlsCheckToolTest, AHashOfOldVersionsBesideTheNewOneDoesNoHarm) {
    ASSERT_EQ(0, run(Command{.arguments = {"openssl", "rehash", "-compat", work.path(authorities)}}).status);
    EXPECT_EQ("no problems\n", check().out);
}

TEST_F(TlsCheckToolTest, AHashOfOldVersionsAloneIsNotFound) {
    const std::string current = link(authorities);
    ASSERT_EQ(0, run(Command{.arguments = {"openssl", "rehash", "-compat", work.path(authorities)}}).status);
    fs::remove(work.path(current));
    expectProblem(authorities + std::string("/second.pem"), "never found, since the certificate is not filed under ");
}

TEST_F(TlsCheckToolTest, ANumberThatIsNeverReached) {
    const std::string first = link(authorities);
    const std::string second = first.substr(0, first.size() - 1) + "2";
    fs::copy(work.path(authorities + std::string("/second.pem")), work.path(second));
    expectProblem(second, "never found, since " + fs::path(first).stem().string() + ".1 is missing\n");
}

TEST_F(TlsCheckToolTest, ALinkThatLeadsNowhere) {
    const std::string filed = link(authorities);
    rename(authorities + std::string("/second.pem"), "elsewhere.pem");
    expectProblem(filed, "a link that leads nowhere\n");
}

TEST_F(TlsCheckToolTest, DerIsNotReadFromADirectory) {
    const Bytes& der = authority(true).certificate.der;
    add(authorities, "other.der", std::string(der.begin(), der.end()));
    expectProblem(authorities + std::string("/other.der"), "DER, which is not read here: only PEM is\n");
}

TEST_F(TlsCheckToolTest, AStaleList) {
    add(lists, "first.crl",
        issueList({.issuer = &authority(),
                   .thisUpdate = Time::utc("250101000000Z"),
                   .nextUpdate = Time::utc("250108000000Z")})
            .pem());
    const Answer answer = check();
    EXPECT_EQ(1, answer.status);
    EXPECT_NE(std::string::npos, answer.out.find("the revocation list is stale since 2025-01-08T00:00:00Z"));
    EXPECT_EQ(1U, linesOf(answer.out).size()) << answer.out;
}

TEST_F(TlsCheckToolTest, AListThatAnotherSigned) {
    Identity forger = authority();
    forger.key = Key::ec();
    add(lists, "first.crl", issueList({.issuer = &forger}).pem());
    const Answer answer = check();
    EXPECT_EQ(1, answer.status);
    EXPECT_NE(std::string::npos, answer.out.find("the revocation list is not signed by its issuer\n")) << answer.out;
}

} // namespace
