#include "support/AddressSpace.h"
#include "support/HostileDer.h"
#include "support/X509Testing.h"

#include <norvcrypto/Certificate.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <openssl/pem.h>

#include <cstdarg>
#include <cstring>
#include <vector>

using namespace Norvane;
using namespace Norvane::Crypto;
using namespace Norvane::Crypto::NVX509;
using namespace x509testing;

namespace {

std::vector<pem_password_cb*> callbacks;
std::string vanishing;

} // namespace

// Notes the passphrase callback that the library hands to the PEM reader.
extern "C" int PEM_bytes_read_bio(unsigned char** der, long* length, char** found, const char* label, BIO* bio,
                                  pem_password_cb* callback, void* data) {
    callbacks.push_back(callback);
    static const auto original =
        reinterpret_cast<decltype(&PEM_bytes_read_bio)>(dlsym(RTLD_NEXT, "PEM_bytes_read_bio"));
    return original(der, length, found, label, bio, callback, data);
}

// Takes one file away at the moment at which it is opened.
extern "C" int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const auto mode = va_arg(arguments, unsigned int);
    va_end(arguments);
    if (!vanishing.empty() && vanishing == path) {
        unlink(path);
    }
    static const auto original = reinterpret_cast<int (*)(const char*, int, ...)>(dlsym(RTLD_NEXT, "open"));
    return original(path, flags, mode);
}

namespace {

class CertificateFactoryTest : public QuietQueue {
protected:
    CertificateFactory factory;
    std::list<RefCertificate> list;
};

class CertificateFactoryHostileTest : public CertificateFactoryTest {};

const Identity& alice() {
    static const Identity identity = issue({.subject = {{"CN", "Alice"}}, .key = anyKey()});
    return identity;
}
const Identity& bob() {
    static const Identity identity = issue({.subject = {{"CN", "Bob"}}, .key = anyKey()});
    return identity;
}

std::vector<std::string> names(const std::list<RefCertificate>& certificates) {
    std::vector<std::string> found;
    for (const auto& certificate : certificates) {
        found.push_back(certificate.isNull() ? "(empty)" : certificate->subject().asString());
    }
    return found;
}

using Names = std::vector<std::string>;

TEST_F(CertificateFactoryTest, DerGivesOneHandle) {
    factory.read(buffer(alice().certificate.der), list);
    EXPECT_EQ(names(list), Names{"CN=Alice"});
}

TEST_F(CertificateFactoryTest, UndecodableDerGivesOneEmptyHandle) {
    auto der = alice().certificate.der;
    der.resize(der.size() / 2);
    factory.read(buffer(der), list);
    EXPECT_EQ(names(list), Names{"(empty)"});
    EXPECT_TRUE(factory.readDER(buffer(der)).isNull());
}

TEST_F(CertificateFactoryTest, PemIsFollowedByOneEmptyHandle) {
    factory.read(buffer(alice().certificate.pem() + bob().certificate.pem()), list);
    EXPECT_EQ(names(list), (Names{"CN=Alice", "CN=Bob", "(empty)"}));
}

TEST_F(CertificateFactoryTest, EmptyBufferTakesThePemWay) {
    factory.read(Buffer(), list);
    EXPECT_EQ(names(list), Names{"(empty)"});
    EXPECT_TRUE(factory.readDER(Buffer()).isNull());
    list.clear();
    factory.readPem(Buffer(), list);
    EXPECT_TRUE(list.empty());
}

TEST_F(CertificateFactoryTest, TextThatIsNoPemGivesOneEmptyHandle) {
    factory.read(buffer(std::string("no certificate at all")), list);
    EXPECT_EQ(names(list), Names{"(empty)"});
}

TEST_F(CertificateFactoryTest, PemThatStartsWithTheCharacterZeroIsTakenForDer) {
    factory.read(buffer("0" + alice().certificate.pem()), list);
    EXPECT_EQ(names(list), Names{"(empty)"});
}

TEST_F(CertificateFactoryTest, ReadingAppends) {
    factory.read(buffer(alice().certificate.der), list);
    factory.read(buffer(bob().certificate.der), list);
    EXPECT_EQ(names(list), (Names{"CN=Alice", "CN=Bob"}));
}

TEST_F(CertificateFactoryTest, BytesAfterDerAreIgnored) {
    auto der = alice().certificate.der;
    der.insert(der.end(), bob().certificate.der.begin(), bob().certificate.der.end());
    factory.read(buffer(der), list);
    EXPECT_EQ(names(list), Names{"CN=Alice"});
    MemoryMediaOut out;
    list.front()->writeDER(out);
    EXPECT_EQ(bytes(out.content()), alice().certificate.der);
}

TEST_F(CertificateFactoryTest, OtherTextAndOtherBlocksAreSkipped) {
    factory.readPem(buffer("Subject: Alice\n" + anyKey().pkcs8Pem() + alice().certificate.pem() + "\nand then\n" +
                           bob().certificate.pem() + "the end\n"),
                    list);
    EXPECT_EQ(names(list), (Names{"CN=Alice", "CN=Bob"}));
}

TEST_F(CertificateFactoryTest, PemWithCarriageReturnsIsRead) {
    std::string dos;
    for (const char c : alice().certificate.pem()) {
        dos += c == '\n' ? "\r\n" : std::string(1, c);
    }
    factory.readPem(buffer(dos), list);
    EXPECT_EQ(names(list), Names{"CN=Alice"});
}

TEST_F(CertificateFactoryTest, PemEndsSilentlyAtABlockThatDoesNotDecode) {
    const auto broken = norvauthority::pem("CERTIFICATE", fromHex("3003020101"));
    factory.readPem(buffer(alice().certificate.pem() + broken + bob().certificate.pem()), list);
    EXPECT_EQ(names(list), Names{"CN=Alice"});
}

TEST_F(CertificateFactoryTest, BlockWithAnEncryptionHeaderIsRefusedWithoutAsking) {
    std::string encrypted = alice().certificate.pem();
    encrypted.insert(encrypted.find('\n') + 1, "Proc-Type: 4,ENCRYPTED\nDEK-Info: DES-EDE3-CBC,0123456789ABCDEF\n\n");
    callbacks.clear();
    factory.readPem(buffer(encrypted + bob().certificate.pem()), list);
    EXPECT_TRUE(list.empty());
    ASSERT_EQ(callbacks.size(), 1U);
    ASSERT_NE(callbacks[0], nullptr) << "OpenSSL's own callback would prompt";
    char passphrase[16] = "";
    EXPECT_EQ(callbacks[0](passphrase, sizeof passphrase, 0, nullptr), -1);
}

TEST_F(CertificateFactoryTest, OwnershipIsAsAsked) {
    const auto x509 = alice().certificate.x509();
    {
        const auto borrowed = factory(x509.get(), false);
        const auto owned = factory(alice().certificate.x509().release(), true); // leaks unless freed
        EXPECT_TRUE(borrowed == owned);
    }
    EXPECT_EQ(X509_get_version(x509.get()), 2);
}

// Files

TEST_F(CertificateFactoryTest, FilesAreReadWhole) {
    const TemporaryFolder folder;
    const auto pem = folder.write("both.pem", alice().certificate.pem() + bob().certificate.pem());
    const auto der = folder.write("alice.der", text(buffer(alice().certificate.der)));
    factory.read(pem, list);
    factory.read(File::Path(der), list);
    EXPECT_EQ(names(list), (Names{"CN=Alice", "CN=Bob", "(empty)", "CN=Alice"}));
}

TEST_F(CertificateFactoryTest, LargeFileIsReadWhole) {
    const TemporaryFolder folder;
    const std::string padding(3U << 20U, '\n');
    factory.read(folder.write("large.pem", padding + alice().certificate.pem() + padding + bob().certificate.pem()),
                 list);
    EXPECT_EQ(names(list), (Names{"CN=Alice", "CN=Bob", "(empty)"}));
}

TEST_F(CertificateFactoryTest, EmptyFileGivesOneEmptyHandle) {
    const TemporaryFolder folder;
    factory.read(folder.write("empty", ""), list);
    EXPECT_EQ(names(list), Names{"(empty)"});
}

TEST_F(CertificateFactoryTest, MissingFileGivesNothing) {
    const TemporaryFolder folder;
    factory.read(folder.path("none.pem"), list);
    factory.read(std::string(), list);
    factory.read(File::Path(), list);
    EXPECT_TRUE(list.empty());
}

TEST_F(CertificateFactoryTest, DirectoryGivesNothing) {
    const TemporaryFolder folder;
    factory.read(folder.path("."), list);
    EXPECT_TRUE(list.empty());
}

TEST_F(CertificateFactoryTest, FileThatCannotBeReadGivesNothing) {
    factory.read(std::string("/proc/self/mem"), list); // opens, but its first byte is not readable
    EXPECT_TRUE(list.empty());
}

TEST_F(CertificateFactoryTest, FileThatVanishesGivesNothing) {
    const TemporaryFolder folder;
    vanishing = folder.write("vanishing.pem", alice().certificate.pem());
    factory.read(vanishing, list);
    EXPECT_FALSE(std::filesystem::exists(vanishing)) << "the file was never opened";
    EXPECT_TRUE(list.empty());
    vanishing.clear();
}

TEST_F(CertificateFactoryTest, FileBeyondTwoGibibytesGivesNothing) {
    const TemporaryFolder folder;
    const auto path = folder.write("huge.pem", alice().certificate.pem());
    std::filesystem::resize_file(path, 3ULL << 30U); // takes no room: the rest is a hole
    factory.read(path, list);
    EXPECT_TRUE(list.empty());
}

// Hostile bytes

void askEverything(const RefCertificate& certificate) {
    certificate->warm();
    static_cast<void>(certificate->keyUsage());
    static_cast<void>(certificate->extendedKeyUsage());
    static_cast<void>(certificate->version());
    static_cast<void>(certificate->validityPeriod().valid(0));
    static_cast<void>(certificate->issuedBy(certificate, true));
    if (!certificate->subjectAlternativeName().isNull()) {
        for (const auto& name : certificate->subjectAlternativeName()->names()) {
            static_cast<void>(name.emailAddress());
        }
    }
    NullMediaOut out;
    certificate->writeDER(out);
    certificate->writePEM(out);
}

const Identity& rich() {
    static const Identity identity = [] {
        const auto name = norvauthority::Name{{"C", "DE"}, {"CN", "Root"}};
        const Identity ca = issue({.subject = name, .key = anyKey(), .ca = true, .keyUsage = 0x06});
        return issue(
            {.subject = {{"C", "DE"}, {"CN", "Rich"}, {"emailAddress", "rich@example.org", V_ASN1_IA5STRING}},
             .key = anyKey(),
             .issuer = &ca,
             .ca = false,
             .pathLength = 0,
             .keyUsage = 0x80C0,
             .extendedKeyUsage = {"emailProtection"},
             .alternativeNames = {norvauthority::GeneralName::email("rich@example.org"),
                                  norvauthority::GeneralName::directory(name),
                                  norvauthority::GeneralName::uri("http://example.org/"),
                                  norvauthority::GeneralName::ip("192.0.2.1")},
             .authorityIssuerAndSerial = true,
             .crlDistributionPoints = {{.name =
                                            norvauthority::DistributionPointName{
                                                .full = {norvauthority::GeneralName::uri("http://example.org/ca.crl")}},
                                        .reasons = fromHex("60"),
                                        .issuers = {norvauthority::GeneralName::directory(name)}},
                                       {.name = norvauthority::DistributionPointName{.relative = name}}},
             .ocsp = {"http://example.org/ocsp"}});
    }();
    return identity;
}

TEST_F(CertificateFactoryHostileTest, EveryPrefixIsRefused) {
    const auto& der = rich().certificate.der;
    for (std::size_t length = 0; length < der.size(); ++length) {
        ASSERT_TRUE(factory.readDER(Buffer(der.data(), static_cast<unsigned int>(length), false)).isNull()) << length;
        ASSERT_EQ(ERR_peek_error(), 0UL) << length;
    }
    askEverything(factory.readDER(buffer(der)));
}

TEST_F(CertificateFactoryHostileTest, EveryPemPrefixIsRefused) {
    const auto pem = rich().certificate.pem();
    const auto complete = pem.rfind('-') + 1;
    for (std::size_t length = 0; length < complete; ++length) {
        factory.readPem(buffer(pem.substr(0, length)), list);
        ASSERT_TRUE(list.empty()) << length;
        ASSERT_EQ(ERR_peek_error(), 0UL) << length;
    }
    factory.readPem(buffer(pem), list);
    EXPECT_EQ(list.size(), 1U);
}

TEST_F(CertificateFactoryHostileTest, ChangedBytesNeverCrashAndLeaveNoErrors) {
    const Log log;
    expectChangedBytesDoNoHarm(
        rich().certificate.der, [&](const Buffer& der) { return factory.readDER(der); }, askEverything);
}

TEST_F(CertificateFactoryHostileTest, AnnouncedLengthsTakeNoMemory) {
    for (const char* header : norvtest::hugeHeaders) {
        EXPECT_TRUE(factory.readDER(buffer(fromHex(header))).isNull()) << header;
    }
}

TEST_F(CertificateFactoryHostileTest, LengthsBeyondTwoGibibytesAreRefused) {
    const norvtest::AddressSpace zeroes(0x80000000U);
    const Buffer huge(zeroes.data(), 0x80000000U, true);
    factory.readPem(huge, list);
    EXPECT_TRUE(list.empty());
    EXPECT_TRUE(factory.readDER(huge).isNull());
}

TEST_F(CertificateFactoryHostileTest, OversizedCertificateIsReadInFull) {
    std::vector<norvauthority::GeneralName> many;
    for (int i = 0; i < 20000; ++i) {
        many.push_back(norvauthority::GeneralName::dns("host" + std::to_string(i) + ".example.org"));
    }
    const auto big = issue({.subject = {{"CN", "Big"}},
                            .key = anyKey(),
                            .alternativeNames = many,
                            .extensions = {{.oid = "1.2.3.4", .value = norvauthority::Bytes(1U << 20U)}}});
    const auto certificate = factory.readDER(buffer(big.certificate.der));
    ASSERT_FALSE(certificate.isNull());
    EXPECT_EQ(certificate->subjectAlternativeName()->names().size(), 20000U);
    EXPECT_EQ(certificate->find(oid("1.2.3.4"))->derEncodedValue()->length(), 1U << 20U);
}

} // namespace
