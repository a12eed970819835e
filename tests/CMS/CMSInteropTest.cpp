// Other programs check what this library signs, and this library checks what they sign.
#include "support/Cms.h"

#include <cstdlib>

using namespace cmstest;
using Crypto::Hasher;

namespace {

/// Runs a command line with standard input closed; true when it exits with 0. What it says goes to `log`, which a
/// failed test shows.
class Workbench {
public:
    [[nodiscard]] bool run(const std::string& command) const {
        const std::string line = "( " + command + " ) </dev/null >>" + path("log") + " 2>&1";
        return std::system(line.c_str()) == 0; // NOLINT(cert-env33-c): the commands are this file's own
    }
    [[nodiscard]] std::string path(const std::string& name) const { return m_folder.path(name); }
    [[nodiscard]] std::string write(const std::string& name, const Bytes& content) const {
        return m_folder.write(name, std::string(content.begin(), content.end()));
    }
    [[nodiscard]] Bytes read(const std::string& name) const {
        std::ifstream file(path(name), std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    /// The authority's and an identity's certificate and key: authority.pem, certificate.pem, key.pem.
    void writeIdentity(const Identity& identity) const {
        static_cast<void>(write("authority.pem", bytesOf(identities().authority.certificate.pem())));
        static_cast<void>(write("authority.der", identities().authority.certificate.der));
        static_cast<void>(write("certificate.pem", bytesOf(identity.certificate.pem())));
        static_cast<void>(write("key.pem", bytesOf(identity.key.pkcs8Pem())));
    }
    [[nodiscard]] std::string log() const {
        const Bytes content = read("log");
        return {content.begin(), content.end()};
    }

private:
    x509testing::TemporaryFolder m_folder;
};

bool isInstalled(const std::string& program) {
    return Workbench().run("command -v " + program);
}

#define REQUIRE_PROGRAM(name)                                                                                          \
    if (!isInstalled(name)) {                                                                                          \
        GTEST_SKIP() << (name) << " is not installed";                                                                 \
    }                                                                                                                  \
    static_assert(true)

struct Algorithms {
    const char* name;
    const Identity& (*identity)();
    Hasher::Type type;
    const char* digest;
};

const Identity& rsa() {
    return identities().rsa;
}
const Identity& dsa() {
    return identities().dsa;
}
const Identity& ec() {
    return identities().ec;
}

class Interop : public ::testing::TestWithParam<Algorithms> {
protected:
    [[nodiscard]] static const Identity& identity() { return GetParam().identity(); }
};

const Bytes& body() {
    static const Bytes content = bodyOf(20000);
    return content;
}

/// A home for gpgsm that trusts the test authority; its agent ends with it.
class GpgHome {
public:
    explicit GpgHome(const Workbench& bench) : m_bench(bench) {
        const std::string fingerprint = fingerprintOf(identities().authority);
        ready = m_bench.run("mkdir -m 700 " + home()) &&
                m_bench.run("echo '" + fingerprint + " S relax' >" + home() + "/trustlist.txt") &&
                m_bench.run(command("--import " + m_bench.path("authority.pem")));
    }
    ~GpgHome() { static_cast<void>(m_bench.run("gpgconf --homedir " + home() + " --kill all")); }
    GpgHome(const GpgHome&) = delete;
    GpgHome& operator=(const GpgHome&) = delete;
    [[nodiscard]] std::string command(const std::string& arguments) const {
        return "gpgsm --homedir " + home() +
               " --batch --no-tty --disable-crl-checks --disable-dirmngr --pinentry-mode loopback " + arguments;
    }
    bool ready = false;

private:
    [[nodiscard]] std::string home() const { return m_bench.path("gpg"); }
    static std::string fingerprintOf(const Identity& identity) {
        unsigned char digest[20];
        EXPECT_EQ(EVP_Digest(identity.certificate.der.data(), identity.certificate.der.size(), digest, nullptr,
                             EVP_sha1(), nullptr),
                  1);
        return norvauthority::toHex(Bytes(digest, digest + 20));
    }
    const Workbench& m_bench;
};

} // namespace

TEST_P(Interop, OpensslAcceptsWhatIsSigned) {
    const Workbench bench;
    bench.writeIdentity(identity());
    for (const Bytes& content : {body(), Bytes()}) {
        const auto signature = bench.write("signature", signedByStream(identity(), content, 3000, GetParam().type));
        const auto file = bench.write("body", content);
        const std::string verify = "openssl cms -verify -binary -inform DER -in " + signature + " -CAfile " +
                                   bench.path("authority.pem") + " -out " + bench.path("out") + " -content ";
        EXPECT_TRUE(bench.run(verify + file)) << bench.log();
        EXPECT_EQ(bench.read("out"), content);
        Bytes altered = content;
        altered.push_back('!');
        EXPECT_FALSE(bench.run(verify + bench.write("altered", altered)));
    }
}

TEST_P(Interop, WhatOpensslSignsIsAccepted) {
    const Workbench bench;
    bench.writeIdentity(identity());
    const auto file = bench.write("body", body());
    for (const std::string attributes : {"", " -noattr"}) {
        for (const std::string shape : {"", " -nodetach", " -nodetach -stream"}) {
            SCOPED_TRACE(attributes + shape);
            ASSERT_TRUE(bench.run("openssl cms -sign -binary -outform DER -md " + std::string(GetParam().digest) +
                                  " -signer " + bench.path("certificate.pem") + " -inkey " + bench.path("key.pem") +
                                  attributes + shape + " -in " + file + " -out " + bench.path("signature")))
                << bench.log();
            const RecordedLog log;
            const Received received(bench.read("signature"));
            EXPECT_TRUE(received.accepts(body(), certificateOf(identity())));
            Norvane::MediaIn content = CMS::embeddedContent(received.verifier.contentInfo());
            EXPECT_EQ(content.isNull(), shape.empty());
            if (!content.isNull()) {
                EXPECT_TRUE(received.verifier.isValid(content, received.signer(), certificateOf(identity())));
            }
            EXPECT_TRUE(log.records().empty());
            EXPECT_FALSE(received.accepts(bodyOf(20001), certificateOf(identity())));
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Openssl, Interop,
                         ::testing::Values(Algorithms{"RsaSha1", rsa, Hasher::SHA1, "sha1"},
                                           Algorithms{"RsaSha256", rsa, Hasher::SHA256, "sha256"},
                                           Algorithms{"RsaSha512", rsa, Hasher::SHA512, "sha512"},
                                           Algorithms{"DsaSha1", dsa, Hasher::SHA1, "sha1"},
                                           Algorithms{"DsaSha256", dsa, Hasher::SHA256, "sha256"},
                                           Algorithms{"EcSha1", ec, Hasher::SHA1, "sha1"},
                                           Algorithms{"EcSha256", ec, Hasher::SHA256, "sha256"},
                                           Algorithms{"EcSha512", ec, Hasher::SHA512, "sha512"}),
                         [](const auto& tested) { return std::string(tested.param.name); });

TEST(InteropGpgsm, AcceptsWhatIsSigned) {
    REQUIRE_PROGRAM("gpgsm");
    const Workbench bench;
    bench.writeIdentity(identities().rsa);
    const GpgHome home(bench);
    ASSERT_TRUE(home.ready) << bench.log();
    const auto signature = bench.write("signature", signedByStream(identities().rsa, body()));
    EXPECT_TRUE(bench.run(home.command("--verify " + signature + " " + bench.write("body", body())))) << bench.log();
    Bytes altered = body();
    altered[7] ^= 1U;
    EXPECT_FALSE(bench.run(home.command("--verify " + signature + " " + bench.write("altered", altered))));
}

TEST(InteropGpgsm, SignsWhatIsAccepted) {
    REQUIRE_PROGRAM("gpgsm");
    const Workbench bench;
    bench.writeIdentity(identities().rsa);
    const GpgHome home(bench);
    ASSERT_TRUE(home.ready) << bench.log();
    const auto file = bench.write("body", body());
    ASSERT_TRUE(bench.run(
        "openssl pkcs12 -export -keypbe PBE-SHA1-3DES -certpbe PBE-SHA1-3DES -macalg sha1 -passout pass:x -in " +
        bench.path("certificate.pem") + " -inkey " + bench.path("key.pem") + " -out " + bench.path("alice.p12")))
        << bench.log();
    if (!bench.run(
            "echo x >" + bench.path("passphrase") + " && " +
            home.command("--passphrase-fd 9 --import " + bench.path("alice.p12") + " 9<" + bench.path("passphrase")))) {
        GTEST_SKIP() << "this gpgsm does not import a key unattended: " << bench.log();
    }
    for (const std::string shape : {"--detach-sign", "--sign"}) {
        ASSERT_TRUE(
            bench.run(home.command("--yes --passphrase-fd 9 --local-user alice --output " + bench.path("signature") +
                                   " " + shape + " " + file + " 9<" + bench.path("passphrase"))))
            << bench.log();
        const Received received(bench.read("signature"));
        EXPECT_TRUE(received.accepts(body(), certificateOf(identities().rsa))) << shape;
    }
}

TEST(InteropNss, AcceptsWhatIsSignedAndSignsWhatIsAccepted) {
    REQUIRE_PROGRAM("cmsutil");
    REQUIRE_PROGRAM("certutil");
    REQUIRE_PROGRAM("pk12util");
    const Workbench bench;
    bench.writeIdentity(identities().rsa);
    const std::string base = " -d sql:" + bench.path("nss") + " ";
    const auto file = bench.write("body", body());
    ASSERT_TRUE(bench.run("mkdir " + bench.path("nss")) && bench.run("certutil -N --empty-password" + base) &&
                bench.run("certutil -A -n authority -t CT,C,C -a -i " + bench.path("authority.pem") + base) &&
                bench.run("openssl pkcs12 -export -name alice -passout pass: -in " + bench.path("certificate.pem") +
                          " -inkey " + bench.path("key.pem") + " -out " + bench.path("alice.p12")) &&
                bench.run("pk12util -W '' -i " + bench.path("alice.p12") + base))
        << bench.log();
    const auto signature = bench.write("signature", signedByStream(identities().rsa, body()));
    EXPECT_TRUE(bench.run("cmsutil -D -c " + file + " -i " + signature + base)) << bench.log();
    Bytes altered = body();
    altered[7] ^= 1U;
    EXPECT_FALSE(bench.run("cmsutil -D -c " + bench.write("altered", altered) + " -i " + signature + base));
    for (const std::string shape : {"", " -T"}) {
        ASSERT_TRUE(
            bench.run("cmsutil -S -N alice -H SHA256" + shape + " -i " + file + " -o " + bench.path("foreign") + base))
            << bench.log();
        const Received received(bench.read("foreign"));
        EXPECT_TRUE(received.accepts(body(), certificateOf(identities().rsa))) << shape;
    }
}
