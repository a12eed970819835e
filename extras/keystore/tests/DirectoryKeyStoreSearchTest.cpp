// Searching by issuer and serial number, and by key identifier, among folders whose certificates cannot be used: each is only
// looked at as far as its name, and none keeps the others from being found.

#include "Store.h"

#include <gmock/gmock.h>

using namespace keystoretesting;
using testing::Contains;
using testing::HasSubstr;

namespace {

class DirectoryKeyStoreSearchTest : public DirectoryKeyStoreTest {
protected:
    /// What is found by the issuer and the serial number of a certificate.
    static std::string found(const RefDirectoryKeyStore& store, const norvauthority::Identity& wanted) {
        const auto certificate = x509testing::read(wanted);
        const auto hit = store->search(certificate->issuer(), certificate->serialNumber());
        return hit ? hit->folder : "nobody";
    }
    static std::string foundByKeyIdentifier(const RefDirectoryKeyStore& store, const std::string& identifier) {
        const auto hit = store->searchKeyIdentifier(x509testing::buffer(identifier));
        return hit ? hit->folder : "nobody";
    }
};

TEST_F(DirectoryKeyStoreSearchTest, FindsByIssuerAndSerialNumberAndTellsTheFolder) {
    const auto alice = identity("alice");
    m_store.add("alice", "", alice);
    m_store.add("old", "", identity("old", {.notAfter = norvauthority::Time::fromNow(-100)}));
    const auto store = open();
    const auto certificate = x509testing::read(alice);
    const auto hit = store->search(certificate->issuer(), certificate->serialNumber());
    ASSERT_TRUE(hit);
    EXPECT_EQ(hit->folder, "alice");
    EXPECT_EQ(who(hit->pair), "alice");
    EXPECT_FALSE(hit->pair->key.isNull());
    EXPECT_TRUE(hit->isValid);
    EXPECT_EQ(found(store, identity("somebody else")), "nobody");
}

/// A certificate whose public key is of a kind that nobody knows.
norvauthority::Identity withUnknownKey(norvauthority::Identity who) {
    auto& der = who.certificate.der;
    const norvauthority::Bytes rsa = {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x01};
    const auto at = std::search(der.begin(), der.end(), rsa.begin(), rsa.end());
    EXPECT_NE(at, der.end());
    at[8] = 0x63;
    return who;
}

TEST_F(DirectoryKeyStoreSearchTest, AFolderThatCannotBeUsedIsNotFoundAndTheOthersAre) {
    const auto good = identity("good");
    const auto unknown = withUnknownKey(identity("unknown", {.serial = "70"}));
    m_store.add("a-open", "", identity("open"));
    m_store.folder("a-open", 0777);
    m_store.add("b-no-pem", "", identity("no PEM"));
    m_store.file("b-no-pem/cert.pem", "nothing", 0644);
    m_store.add("c-link", "", identity("link"));
    m_store.remove("c-link/cert.pem");
    std::filesystem::create_symlink(m_store.path("b-no-pem/cert.pem"), m_store.path("c-link/cert.pem"));
    m_store.add("d-negative", "", identity("negative", {.serial = "-5"}));
    m_store.add("e-unknown", "", unknown);
    m_store.add("f-good", "", good);
    const auto store = open();
    EXPECT_EQ(found(store, good), "f-good");
    EXPECT_EQ(found(store, identity("same number", {.serial = "70"})), "nobody");
    const auto sameName = norvauthority::issue({.subject = {{"CN", "unknown"}}, .key = sharedKey(), .serial = "70"});
    EXPECT_EQ(found(store, sameName), "nobody");
    EXPECT_THAT(problemsOf(store), Contains(HasSubstr("e-unknown/cert.pem: the public key of the certificate cannot")));
}

// RFC 5280, 4.2.1.2: an OCTET STRING. Read whole, a certificate with another value is still found by its issuer.
TEST_F(DirectoryKeyStoreSearchTest, CertificatesWithoutAUsableKeyIdentifierAreFoundByTheirIssuer) {
    const auto without = identity("without", {.ca = false, .subjectKeyIdentifier = false});
    const auto first = identity("first", {.version = 1});
    const auto strange = identity(
        "strange", {.subjectKeyIdentifier = false, .extensions = {{.oid = "2.5.29.14", .value = {0x02, 0x01, 0x05}}}});
    m_store.add("first", "", first);
    m_store.add("strange", "", strange);
    m_store.add("without", "", without);
    const auto store = open();
    EXPECT_EQ(found(store, without), "without");
    EXPECT_EQ(found(store, first), "first");
    EXPECT_EQ(found(store, strange), "strange");
    EXPECT_EQ(foundByKeyIdentifier(store, "\x05"), "nobody");
    EXPECT_EQ(foundByKeyIdentifier(store, ""), "nobody");
}

// One folder for each octet of a certificate, which is another one there: all names are read, and the good folder is found.
TEST_F(DirectoryKeyStoreSearchTest, ACertificateThatIsDamagedAnywhereKeepsNobodyFromBeingFound) {
    const auto good = identity("good");
    const auto damaged = identity("damaged");
    for (std::size_t at = 0; at < damaged.certificate.der.size(); at += 1) {
        auto one = damaged;
        one.certificate.der[at] ^= 0x03;
        m_store.add("d" + std::to_string(at), "", one);
    }
    m_store.add("good", "", good);
    const auto store = open();
    EXPECT_EQ(found(store, good), "good");
    EXPECT_EQ(found(store, identity("nobody")), "nobody");
}

// What a certificate begins with is looked at in place; each of these lacks something there, or has something else.
TEST_F(DirectoryKeyStoreSearchTest, ACertificateThatLacksSomethingKeepsNobodyFromBeingFound) {
    namespace der = norvauthority::der;
    using norvauthority::Bytes;
    const auto good = identity("good", {.subjectKeyIdentifierValue = Bytes{'g', 'o', 'o', 'd'}});
    const Bytes name = good.name.der();
    const Bytes serial = der::integer(good.serial);
    const Bytes algorithm = der::sequence({der::oid("1.2.840.113549.1.1.11"), der::null()});
    const Bytes version = der::element(0xA0, der::integer("2"));
    const Bytes type = der::oid("2.5.29.14");
    const Bytes identifier = der::octetString(der::octetString({'g', 'o', 'o', 'd'}));
    const auto named = der::concat({version, serial, algorithm, name});
    const auto extensions = [&](const Bytes& content) { return der::concat({named, der::element(0xA3, content)}); };
    const auto extension = [&](const Bytes& content) { return extensions(der::sequence({der::sequence({content})})); };
    const std::vector<Bytes> all{
        {},
        version,
        serial,
        der::concat({version, serial}),
        der::concat({version, algorithm, name}),
        der::concat({serial, algorithm}),
        der::concat({version, serial, algorithm, der::null()}),
        der::concat({version, der::null(), algorithm, name}),
        der::concat({version, Bytes{0x02, 0x00}, algorithm, name}),
        der::concat({version, Bytes{0x02, 0x01, 0x81}, algorithm, name}),
        der::concat({version, version, serial, algorithm, name}),
        named,
        der::concat({named, {0xFF}}),
        der::concat({named, {0x30, 0x05}}),
        der::concat({named, {0x30, 0x80, 0x00, 0x00}}),
        extensions({}),
        extensions(der::null()),
        extensions({0x30, 0x05}),
        extensions(der::sequence({})),
        extensions(der::sequence({Bytes{0xFF}})),
        extensions(der::sequence({Bytes{0x30, 0x7F}})),
        extension({}),
        extension(type),
        extension(identifier),
        extension(der::concat({type, Bytes{0x01, 0x01, 0xFF}})),
        extension(der::concat({type, der::null()})),
        extension(der::concat({type, der::octetString({})})),
        extension(der::concat({type, der::octetString({0x30})})),
        extension(der::concat({type, der::octetString(der::null())})),
        extension(der::concat({type, identifier})),
        extension(der::concat({type, Bytes{0x01, 0x01, 0xFF}, identifier})),
    };
    for (std::size_t at = 0; at < all.size(); ++at) {
        auto one = good;
        one.certificate.der = der::sequence({der::sequence({all[at]}), algorithm, der::bitString({1})});
        m_store.add("a" + std::to_string(at), "", one);
    }
    m_store.add("good", "", good);
    m_store.folder("none");
    m_store.add("empty", "", good);
    m_store.file("empty/cert.pem", "-----BEGIN CERTIFICATE-----\n-----END CERTIFICATE-----\n", 0644);
    const auto store = open();
    EXPECT_EQ(found(store, good), "good");
    EXPECT_EQ(foundByKeyIdentifier(store, "good"), "good");
    EXPECT_EQ(found(store, identity("nobody")), "nobody");
}

TEST_F(DirectoryKeyStoreSearchTest, NothingIsFoundWithoutAName) {
    const auto who = identity("who");
    m_store.add("x", "", who);
    const auto store = open();
    const auto certificate = x509testing::read(who);
    EXPECT_FALSE(store->search(DistinguishedName(), certificate->serialNumber()));
    EXPECT_FALSE(store->search(certificate->issuer(), ASN1::Integer()));
    EXPECT_EQ(found(store, who), "x");
}

// Names that are read behind the certificate and its key are taken from them.
TEST_F(DirectoryKeyStoreSearchTest, WhoWasFoundByAddressIsFoundByKeyIdentifierToo) {
    m_store.add("x", "x@example.com\n",
                identity("x", {.subjectKeyIdentifierValue = norvauthority::Bytes{'k', 'e', 'y'}}));
    const auto store = open();
    EXPECT_EQ(signerFor(store, "x@example.com"), "x");
    EXPECT_EQ(foundByKeyIdentifier(store, "key"), "x");
    EXPECT_EQ(foundByKeyIdentifier(store, "kez"), "nobody");
}

// Certificates are no secret. One in a block that says to be encrypted (RFC 1421, 4.6.1.1) does not decode, and nobody is asked.
TEST_F(DirectoryKeyStoreSearchTest, ACertificateThatSaysToBeEncryptedIsRefusedWithoutAQuestion) {
    const auto who = identity("who");
    m_store.add("x", "*\n", who);
    std::string pem = who.certificate.pem();
    pem.insert(pem.find('\n') + 1,
               "Proc-Type: 4,ENCRYPTED\nDEK-Info: AES-128-CBC,00112233445566778899AABBCCDDEEFF\n\n");
    m_store.file("x/cert.pem", pem, 0644);
    const auto store = open();
    EXPECT_THAT(problemsOf(store), testing::ElementsAre("x/cert.pem: certificate 1 in it does not decode"));
    EXPECT_EQ(found(store, who), "nobody");
}

} // namespace
