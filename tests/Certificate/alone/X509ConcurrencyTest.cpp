// Meant for the thread sanitizer: what is shared between threads after it was warmed, and the key store.

#include "support/Threads.h"
#include "support/X509Testing.h"

#include <norvcrypto/KeyStore.h>

#include <atomic>

using namespace Norvane;
using namespace Norvane::Crypto;
using namespace Norvane::Crypto::NVX509;
using namespace x509testing;
using norvtest::threadCount;
using norvtest::together;

namespace {

const norvauthority::Name rootName{{"C", "DE"}, {"CN", "Root"}};

Identity root() {
    return issue({.subject = rootName,
                  .key = anyKey(),
                  .ca = true,
                  .keyUsage = 0x06,
                  .subjectKeyIdentifierValue = fromHex("a1a2a3")});
}

Identity leaf(const Identity& issuer, const std::string& serial) {
    return issue({.subject = {{"CN", "Leaf"}},
                  .key = anyKey(),
                  .issuer = &issuer,
                  .serial = serial,
                  .keyUsage = 0xC0,
                  .extendedKeyUsage = {"emailProtection"},
                  .alternativeNames = {norvauthority::GeneralName::dns("example.org"),
                                       norvauthority::GeneralName::directory(rootName),
                                       norvauthority::GeneralName::uri("http://example.org/"),
                                       norvauthority::GeneralName::ip("192.0.2.1")},
                  .crlDistributionPoints = {
                      {.name = norvauthority::DistributionPointName{.full = {norvauthority::GeneralName::uri(
                                                                        "http://example.org/ca.crl")}},
                       .issuers = {norvauthority::GeneralName::directory(rootName)}},
                      {.name = norvauthority::DistributionPointName{.relative = rootName}, .reasons = fromHex("60")}}});
}

/// Everything that may be asked of a shared certificate, as one text.
std::string account(const RefCertificate& certificate, const RefCertificate& issuer) {
    std::string all = certificate->subject().asString() + certificate->issuer().asString() + certificate->name() +
                      std::to_string(certificate->subject().hash()) + std::to_string(certificate->keyUsage()) +
                      std::to_string(certificate->extendedKeyUsage()) + std::to_string(certificate->version());
    try {
        all += certificate->serialNumber().hex() + std::to_string(certificate->serialNumber().asInt());
    } catch (const Exception& exception) {
        all += exception.where();
    }
    all += certificate->validityPeriod().notBefore()->asTime().asString();
    all += certificate->validityPeriod().notAfter()->asTime().asString();
    all += certificate->validityPeriod().valid(0) ? "valid" : "invalid";
    all += certificate->isCACert() ? "ca" : "no ca";
    all += certificate->isSelfSigned() ? "self" : "other";
    all += certificate->issuedBy(issuer, true) ? "issued" : "not issued";
    for (const auto& extension : certificate->extensions()) {
        all += extension->identifier()->asString() + hexOf(*extension->derEncodedValue());
    }
    for (const auto& name : certificate->subjectAlternativeName()->names()) {
        all += std::to_string(name.type()) + name.dn().asString();
        static_cast<void>(name.uri());
        static_cast<void>(name.ipAddress());
    }
    const auto points = certificate->crlDistributionPoints();
    for (const auto& point : points->distributionPoints()) {
        all += std::to_string(point->reasons()) + std::to_string(point->issuers().size());
        all += std::to_string(point->distributionPointName().fullName().size());
        all += point->distributionPointName().relativeName();
    }
    all += hexOf(*certificate->authorityKeyIdentifier()->keyId()) + hexOf(*certificate->subjectKeyIdentifier());
    all += certificate->basicConstraints().isNull() ? "no constraints" : "constraints";
    all += static_cast<evp_pkey_st*>(certificate->key()) != nullptr ? "key" : "no key";
    all += certificate == certificate ? "same" : "different"; // NOLINT(misc-redundant-expression)
    MemoryMediaOut pem;
    certificate->writePEM(pem);
    return all + text(pem.content());
}

TEST(X509ConcurrencyTest, WarmedCertificateIsReadFromEightThreads) {
    const auto ca = root();
    const auto issuer = read(ca);
    issuer->warm();
    // Several rounds: a schedule that runs the threads one after another shows no race.
    for (int round = 0; round < 6; ++round) {
        const std::string serial = round % 2 == 0 ? "1234567890abcdef" : "-1f";
        const auto issued = leaf(ca, serial);
        const auto certificate = read(issued);
        certificate->warm();
        const auto expected = account(read(issued), read(ca));
        std::vector<std::string> accounts(threadCount);
        together([&](int i) {
            const RefCertificate mine = certificate;
            accounts[static_cast<std::size_t>(i)] = account(mine, issuer);
        });
        for (const auto& found : accounts) {
            EXPECT_EQ(found, expected);
        }
    }
}

TEST(X509ConcurrencyTest, CertificateIsWarmedFromEightThreadsAtOnce) {
    const auto ca = root();
    const auto certificate = read(leaf(ca, "0a"));
    const auto issuer = read(ca);
    together([&](int) {
        certificate->warm();
        issuer->warm();
        EXPECT_NE(account(certificate, issuer).find("CN=Leaf"), std::string::npos);
    });
}

TEST(X509ConcurrencyTest, WarmedCertificateWithoutExtensionsIsReadFromEightThreads) {
    const auto certificate = read(issue({.subject = rootName, .key = anyKey(), .version = 1}));
    certificate->warm();
    together([&](int) {
        EXPECT_TRUE(certificate->extensions().empty());
        EXPECT_TRUE(certificate->subjectAlternativeName().isNull());
        EXPECT_TRUE(certificate->authorityKeyIdentifier().isNull());
        EXPECT_TRUE(certificate->subjectKeyIdentifier().isNull());
        EXPECT_TRUE(certificate->crlDistributionPoints().isNull());
        EXPECT_TRUE(certificate->basicConstraints().isNull());
        EXPECT_TRUE(certificate->isCACert());
        EXPECT_TRUE(certificate->issuedBy(certificate, false));
    });
}

TEST(X509ConcurrencyTest, WarmedOddCertificateIsReadFromEightThreads) {
    // What answers nothing must not be written again and again either.
    const auto certificate = read(issue(
        {.key = anyKey(),
         .alternativeNames = {norvauthority::GeneralName::ip("192.0.2."), norvauthority::GeneralName::uri(""),
                              norvauthority::GeneralName::directory({})},
         .authorityKeyIdentifierValue = fromHex("a1"),
         .crlDistributionPoints = {{.reasons = fromHex("00"), .issuers = {norvauthority::GeneralName::directory({})}},
                                   {.reasons = norvauthority::Bytes{}}}}));
    ASSERT_FALSE(certificate.isNull());
    certificate->warm();
    const auto expected = account(certificate, certificate);
    std::vector<std::string> accounts(threadCount);
    together([&](int i) { accounts[static_cast<std::size_t>(i)] = account(certificate, certificate); });
    for (const auto& found : accounts) {
        EXPECT_EQ(found, expected);
    }
}

TEST(X509ConcurrencyTest, WarmedListIsReadFromEightThreads) {
    const auto ca = root();
    const auto issuer = read(ca);
    const auto list =
        read(issueList({.issuer = &ca,
                        .revoked = {{.serial = "0a"}},
                        .crlNumber = "1234567890",
                        .deltaBase = "07",
                        .scope = norvauthority::IssuingDistributionPoint{
                            .name = norvauthority::DistributionPointName{
                                .full = {norvauthority::GeneralName::uri("http://example.org/ca.crl")}}}}));
    together([&](int) {
        list->warm();
        issuer->warm();
        EXPECT_EQ(list->crlInfo().issuer().asString(), "CN=Root,C=DE");
        EXPECT_EQ(list->crlNumber().hex(), "1234567890");
        EXPECT_EQ(list->baseCRLNumber().asInt(), 7);
        EXPECT_FALSE(list->lastUpdate()->asTime().asString().empty());
        EXPECT_FALSE(list->nextUpdate()->asTime().asString().empty());
        EXPECT_TRUE(list->isDeltaCRL());
        EXPECT_FALSE(list->isFreshestCRL());
        EXPECT_TRUE(list->issuedBy(issuer, true));
        EXPECT_EQ(list->crlInfo().extensions().size(), 4U);
        EXPECT_TRUE(list->crlInfo().find(oid("1.2.3")).isNull());
        EXPECT_EQ(list->issuingDistributionPoint().distributionPointName().fullName().size(), 1U);
    });
}

TEST(X509ConcurrencyTest, WarmedListWithoutAnythingIsReadFromEightThreads) {
    const auto ca = root();
    const auto list = read(issueList({.issuer = &ca,
                                      .issuerName = norvauthority::Name{},
                                      .nextUpdate = std::nullopt,
                                      .scope = norvauthority::IssuingDistributionPoint{.onlyUser = true},
                                      .authorityKeyIdentifier = false}));
    ASSERT_FALSE(list.isNull());
    list->warm();
    together([&](int) {
        EXPECT_EQ(list->crlInfo().issuer().asString(), "");
        EXPECT_TRUE(list->crlInfo().authorityKeyIdentifier().isNull());
        EXPECT_EQ(list->crlNumber().object(), nullptr);
        EXPECT_EQ(list->baseCRLNumber().object(), nullptr);
        EXPECT_TRUE(list->nextUpdate().isNull());
        EXPECT_FALSE(list->isDeltaCRL());
        EXPECT_TRUE(list->issuingDistributionPoint().distributionPointName().isNull());
        EXPECT_TRUE(list->issuingDistributionPoint().onlyUser());
    });
}

// What stays empty after it was asked for must not be written again by those who ask next.
TEST(X509ConcurrencyTest, WarmedEmptyAnswersAreReadFromEightThreads) {
    const auto ca = root();
    const auto certificate = read(
        issue({.subject = {},
               .key = anyKey(),
               .issuer = &ca,
               .notBefore = norvauthority::Time::generalized("19000301120000Z"),
               .alternativeNames = {norvauthority::GeneralName::uri("no uri"), norvauthority::GeneralName::uri(""),
                                    norvauthority::GeneralName::ip("192.0.2.1"), norvauthority::GeneralName::ip("xyz")},
               .crlDistributionPoints = {
                   {.reasons = fromHex("00"), .issuers = {norvauthority::GeneralName::directory(rootName)}},
                   {.name = norvauthority::DistributionPointName{.relative = norvauthority::Name{}}}}}));
    const auto list =
        read(issueList({.issuer = &ca, .scope = norvauthority::IssuingDistributionPoint{.onlyUser = true}}));
    certificate->warm();
    list->warm();
    together([&](int) {
        EXPECT_EQ(certificate->subject().asString(), "");
        EXPECT_TRUE(certificate->subject().listRDN().empty());
        EXPECT_EQ(certificate->name(), "");
        EXPECT_EQ(certificate->validityPeriod().notBefore()->asTime().asString(), "1900-03-01T12:00:00Z");
        const auto& names = certificate->subjectAlternativeName()->names();
        ASSERT_EQ(names.size(), 4U);
        EXPECT_TRUE(names.front().uri().isNull());
        EXPECT_TRUE(std::next(names.begin())->uri().isNull());
        EXPECT_EQ(std::next(names.begin(), 2)->ipAddress().asString(), "192.0.2.1");
        EXPECT_TRUE(names.back().ipAddress().isNull());
        const auto& points = certificate->crlDistributionPoints();
        ASSERT_EQ(points->distributionPoints().size(), 2U);
        EXPECT_EQ(points->distributionPoints().front()->reasons(), 0U);
        EXPECT_TRUE(points->distributionPoints().front()->distributionPointName().isNull());
        EXPECT_EQ(points->distributionPoints().back()->distributionPointName().relativeName(), "");
        EXPECT_TRUE(list->issuingDistributionPoint().onlyUser());
        EXPECT_TRUE(list->issuingDistributionPoint().distributionPointName().isNull());
    });
}

TEST(X509ConcurrencyTest, ReadersAndFiltersWorkSideBySide) {
    const auto ca = root();
    const auto der = buffer(ca.certificate.der);
    together([&](int) {
        const CertificateFactory factory;
        for (int i = 0; i < 20; ++i) {
            std::list<RefCertificate> found;
            factory.read(Buffer(der), found);
            EXPECT_TRUE(IssuerFilter(found.front())(found.front()));
        }
    });
}

/// One pair for everybody; its certificate is warm.
class Plugin : public KeyStorePlugin {
public:
    explicit Plugin(const KeyCertificatePair& pair) : m_pair(pair) {}
    KeyCertificatePair find(const DistinguishedName&, const ASN1::Integer&) override { return m_pair; }
    RefCertificate findEncryptionCertificate(const EmailAddress&) override { return m_pair->certificate; }
    KeyCertificatePair findSigningKey(const EmailAddress&) override { return m_pair; }
    KeyCertificatePair findDecryptionKey(const EmailAddress&) override { return m_pair; }

private:
    const KeyCertificatePair m_pair;
};

// The first test that touches the process-wide store: one thread makes it while the others wait for it.
TEST(X509ConcurrencyTest, ReadersWaitForTheStoreThatAnotherThreadMakes) {
    const Log log; // a reader that gave up would say so
    std::atomic<int> found{0};
    together([&](int i) {
        if (i == 0) {
            EXPECT_FALSE(RefKeyStore::instance(true, false).isNull());
            return;
        }
        if (!RefKeyStore::instance(false, false).isNull()) {
            ++found;
        }
    });
    EXPECT_EQ(found + static_cast<int>(log.records().size()), threadCount - 1);
    EXPECT_FALSE(RefKeyStore::instance(false, false).isNull());
}

TEST(X509ConcurrencyTest, LookUpsRunInEightThreads) {
    const auto certificate = read(root());
    certificate->warm();
    const KeyCertificatePair pair(certificate->key(), certificate);
    RefKeyStore::instance(true, false)->add(RefKeyStorePlugin(new Plugin(pair)));
    together([&](int) {
        const auto address = EmailAddress::rfc5321Parse("a@example.org", false);
        for (int i = 0; i < 50; ++i) {
            const auto store = RefKeyStore::instance(false, false);
            EXPECT_EQ(store->findSigningKey(address).get(), pair.get());
            EXPECT_EQ(store->findDecryptionKey(address).get(), pair.get());
            EXPECT_EQ(store->find(certificate->issuer(), certificate->serialNumber()).get(), pair.get());
            EXPECT_TRUE(store->findEncryptionCertificate(address) == certificate);
        }
    });
}

TEST(X509ConcurrencyTest, StoreIsReplacedWhileOthersReadIt) {
    together([&](int i) {
        for (int round = 0; round < 50; ++round) {
            if (i == 0) {
                RefKeyStore::instance(true, false);
            } else if (i == 1) {
                RefKeyStore::instance(false, true);
            } else {
                const auto store = RefKeyStore::instance(false, false);
                EXPECT_TRUE(store.isNull() || store->referenceCount() > 0);
            }
        }
    });
    RefKeyStore::instance(false, true);
}

} // namespace
