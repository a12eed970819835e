#include "support/AddressSpace.h"
#include "support/HostileDer.h"
#include "support/Thrown.h"
#include "support/X509Testing.h"

#include <norvcrypto/CertificateRevocationList.h>

#include <dlfcn.h>

#include <openssl/pem.h>
#include <openssl/x509.h>

#include <vector>

using namespace Norvane;
using namespace Norvane::Crypto;
using namespace Norvane::Crypto::NVX509;
using namespace x509testing;
using IssuedTime = norvauthority::Time;
using Scope = norvauthority::IssuingDistributionPoint;

namespace {

std::vector<pem_password_cb*> callbacks;

} // namespace

// Notes the passphrase callback that the library hands to the PEM reader.
extern "C" X509_CRL* PEM_read_bio_X509_CRL(BIO* bio, X509_CRL** list, pem_password_cb* callback, void* data) {
    callbacks.push_back(callback);
    static const auto original =
        reinterpret_cast<decltype(&PEM_read_bio_X509_CRL)>(dlsym(RTLD_NEXT, "PEM_read_bio_X509_CRL"));
    return original(bio, list, callback, data);
}

namespace {

class CertificateRevocationListTest : public QuietQueue {
protected:
    CertificateRevocationListFactory factory;
};

class CertificateRevocationListHostileTest : public CertificateRevocationListTest {};

const norvauthority::Name rootName{{"C", "DE"}, {"CN", "Root"}};

const Identity& root() {
    static const Identity identity = issue({.subject = rootName,
                                            .key = anyKey(),
                                            .ca = true,
                                            .keyUsage = 0x06,
                                            .subjectKeyIdentifierValue = fromHex("a1a2a3")});
    return identity;
}

norvauthority::DistributionPointName pointName() {
    return {.full = {norvauthority::GeneralName::uri("http://example.org/ca.crl")}};
}

const norvauthority::Crl& full() {
    static const norvauthority::Crl list = issueList({.issuer = &root(),
                                                      .revoked = {{.serial = "0a", .reason = 1}, {.serial = "0b"}},
                                                      .thisUpdate = IssuedTime::utc("200102030405Z"),
                                                      .nextUpdate = IssuedTime::generalized("20500607080910Z"),
                                                      .crlNumber = "1234567890abcdef12",
                                                      .deltaBase = "07",
                                                      .scope = Scope{.name = pointName(), .onlyUser = true},
                                                      .freshest = {{.name = pointName()}}});
    return list;
}

const norvauthority::Crl& plain() {
    static const norvauthority::Crl list = issueList({.issuer = &root()});
    return list;
}

RefCertificateRevocationList withScope(const Scope& scope) {
    return read(issueList({.issuer = &root(), .scope = scope}));
}

RefCertificateRevocationList withExtension(const char* identifier, const char* value) {
    return read(issueList({.issuer = &root(), .extensions = {{.oid = identifier, .value = fromHex(value)}}}));
}

// Without a list

TEST_F(CertificateRevocationListTest, WithoutListEveryAnswerIsEmpty) {
    const auto none = factory(nullptr, true);
    ASSERT_FALSE(none.isNull());
    EXPECT_EQ(static_cast<X509_crl_st*>(none), nullptr);
    EXPECT_TRUE(none->crlInfo().isNull());
    EXPECT_EQ(none->crlInfo().issuer().asString(), "");
    EXPECT_TRUE(none->crlInfo().extensions().empty());
    EXPECT_TRUE(none->crlInfo().find(oid("2.5.29.20")).isNull());
    EXPECT_TRUE(none->crlInfo().authorityKeyIdentifier().isNull());
    EXPECT_EQ(none->crlNumber().object(), nullptr);
    EXPECT_EQ(none->baseCRLNumber().object(), nullptr);
    EXPECT_TRUE(none->lastUpdate().isNull());
    EXPECT_TRUE(none->nextUpdate().isNull());
    EXPECT_FALSE(none->isDeltaCRL());
    EXPECT_FALSE(none->isFreshestCRL());
    EXPECT_FALSE(none->issuedBy(read(root()), false));
    EXPECT_EQ(none->idpFlags(), 0U);
    EXPECT_EQ(none->idpReasons(), 0x807FU);
    EXPECT_EQ(none->issuingDistributionPoint().reasons(), 0x807FU);
    none->warm();
}

TEST_F(CertificateRevocationListTest, WithoutListNothingIsWritten) {
    const auto none = factory(nullptr, false);
    MemoryMediaOut out;
    none->writeDER(out);
    none->writePEM(out);
    EXPECT_EQ(out.content().length(), 0U);
}

// Fields

TEST_F(CertificateRevocationListTest, IssuerIsReadOnce) {
    const auto list = read(full());
    EXPECT_EQ(list->crlInfo().issuer().asString(), "CN=Root,C=DE");
    EXPECT_EQ(&list->crlInfo(), &list->crlInfo());
    EXPECT_EQ(&list->crlInfo().issuer(), &list->crlInfo().issuer());
}

TEST_F(CertificateRevocationListTest, NumbersAreReadOnceAndOwned) {
    const auto list = read(full());
    EXPECT_EQ(list->crlNumber().hex(), "1234567890abcdef12");
    EXPECT_EQ(list->baseCRLNumber().asInt(), 7);
    EXPECT_EQ(&list->crlNumber(), &list->crlNumber());
    EXPECT_EQ(&list->baseCRLNumber(), &list->baseCRLNumber());
}

TEST_F(CertificateRevocationListTest, AbsentNumbersAreEmptyIntegers) {
    const auto list = read(plain());
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(list->crlNumber().object(), nullptr);
        EXPECT_EQ(list->baseCRLNumber().object(), nullptr);
    }
}

TEST_F(CertificateRevocationListTest, NumbersThatAreNoneAreEmptyIntegers) {
    EXPECT_EQ(withExtension("2.5.29.20", "020181")->crlNumber().object(), nullptr) << "negative";
    EXPECT_EQ(withExtension("2.5.29.20", "0500")->crlNumber().object(), nullptr) << "no integer";
    EXPECT_EQ(withExtension("2.5.29.27", "ff")->baseCRLNumber().object(), nullptr) << "no DER";
    const auto twice = read(issueList(
        {.issuer = &root(), .crlNumber = "1", .extensions = {{.oid = "2.5.29.20", .value = fromHex("020102")}}}));
    EXPECT_EQ(twice->crlNumber().object(), nullptr) << "two numbers";
}

TEST_F(CertificateRevocationListTest, TimesAreReadOnce) {
    const auto list = read(full());
    EXPECT_EQ(list->lastUpdate()->asTime().asString(), "2020-01-02T03:04:05Z");
    EXPECT_EQ(list->nextUpdate()->asTime().asString(), "2050-06-07T08:09:10Z");
    EXPECT_EQ(&*list->lastUpdate(), &*list->lastUpdate());
    EXPECT_EQ(&*list->nextUpdate(), &*list->nextUpdate());
}

TEST_F(CertificateRevocationListTest, MissingTimeIsAnEmptyHandle) {
    const auto list = read(issueList({.issuer = &root(), .nextUpdate = std::nullopt}));
    EXPECT_TRUE(list->nextUpdate().isNull());
    EXPECT_TRUE(list->nextUpdate().isNull());
    EXPECT_FALSE(list->lastUpdate().isNull());
}

TEST_F(CertificateRevocationListTest, ExtensionsStandInTheOrderOfTheList) {
    const auto list = read(full());
    std::vector<std::string> identifiers;
    for (const auto& extension : list->crlInfo().extensions()) {
        identifiers.push_back(extension->identifier()->asString());
    }
    EXPECT_EQ(identifiers, (std::vector<std::string>{"2.5.29.35", "2.5.29.20", "2.5.29.27", "2.5.29.28", "2.5.29.46"}));
    EXPECT_EQ(list->crlInfo().extensions().size(), 5U) << "built once";
}

TEST_F(CertificateRevocationListTest, FindGivesTheFirstMatchOrTheOneEmptyExtension) {
    const auto list = read(issueList(
        {.issuer = &root(),
         .extensions = {{.oid = "1.2.3.4", .value = fromHex("0501")}, {.oid = "1.2.3.4", .value = fromHex("0502")}}}));
    const auto& info = list->crlInfo();
    EXPECT_EQ(hexOf(*info.find(oid("1.2.3.4"))->derEncodedValue()), "0501");
    EXPECT_TRUE(info.find(oid("1.2.3.5")).isNull());
    EXPECT_EQ(&info.find(oid("1.2.3.5")), &info.find(ASN1::RefObjectIdentifier()));
    EXPECT_EQ(&info.find(oid("1.2.3.5")),
              dlsym(RTLD_DEFAULT, "_ZN7Norvane6Crypto6NVX50929CertificateRevocationListInfo7m_emptyE"));
}

TEST_F(CertificateRevocationListTest, AuthorityKeyIdentifierIsReadOnce) {
    const auto list = read(full());
    const auto& identifier = list->crlInfo().authorityKeyIdentifier();
    ASSERT_FALSE(identifier.isNull());
    EXPECT_EQ(hexOf(*identifier->keyId()), "a1a2a3");
    EXPECT_EQ(&*list->crlInfo().authorityKeyIdentifier(), &*identifier);
    EXPECT_TRUE(read(issueList({.issuer = &root(), .authorityKeyIdentifier = false}))
                    ->crlInfo()
                    .authorityKeyIdentifier()
                    .isNull());
}

TEST_F(CertificateRevocationListTest, InfoIsAViewThatCanBeCopied) {
    const auto list = read(full());
    const CertificateRevocationListInfo copy = list->crlInfo();
    EXPECT_EQ(copy.issuer().asString(), "CN=Root,C=DE");
    EXPECT_TRUE(CertificateRevocationListInfo(nullptr).isNull());
}

TEST_F(CertificateRevocationListTest, DeltaListsAndPointersToThemAreTold) {
    EXPECT_TRUE(read(full())->isDeltaCRL());
    EXPECT_TRUE(read(full())->isFreshestCRL());
    const auto list = read(plain());
    EXPECT_FALSE(list->isDeltaCRL());
    EXPECT_FALSE(list->isDeltaCRL());
    EXPECT_FALSE(list->isFreshestCRL());
    EXPECT_TRUE(withExtension("2.5.29.27", "ff")->isDeltaCRL()) << "carried, though unreadable";
}

TEST_F(CertificateRevocationListTest, VersionOneListsHaveNoExtensions) {
    const auto list = read(issueList({.issuer = &root(), .version = 1}));
    EXPECT_TRUE(list->crlInfo().extensions().empty());
    EXPECT_TRUE(list->issuedBy(read(root()), true));
}

// Scope

TEST_F(CertificateRevocationListTest, WithoutScopeTheListCoversAllReasons) {
    const auto list = read(plain());
    EXPECT_EQ(list->idpFlags(), 0U);
    EXPECT_EQ(list->idpReasons(), 0x807FU);
    EXPECT_EQ(list->issuingDistributionPoint().reasons(), 0x807FU);
    EXPECT_FALSE(list->issuingDistributionPoint().onlyUser());
    EXPECT_TRUE(list->issuingDistributionPoint().distributionPointName().isNull());
}

TEST_F(CertificateRevocationListTest, ScopeFlagsFollowTheIssuingDistributionPoint) {
    EXPECT_EQ(withScope({.name = pointName()})->idpFlags(), 0x01U);
    EXPECT_EQ(withScope({.onlyUser = true})->idpFlags(), 0x05U);
    EXPECT_EQ(withScope({.onlyCa = true})->idpFlags(), 0x09U);
    EXPECT_EQ(withScope({.onlyAttribute = true})->idpFlags(), 0x11U);
    EXPECT_EQ(withScope({.indirect = true})->idpFlags(), 0x21U);
    EXPECT_EQ(withScope({.reasons = fromHex("60")})->idpFlags(), 0x41U);
}

TEST_F(CertificateRevocationListTest, ContradictingScopesAreInvalid) {
    EXPECT_EQ(withScope({.onlyUser = true, .onlyCa = true})->idpFlags(), 0x01U | 0x04U | 0x08U | 0x02U);
    EXPECT_EQ(withScope({.onlyCa = true, .onlyAttribute = true})->idpFlags(), 0x1BU);
    EXPECT_EQ(withScope({.onlyUser = true, .onlyCa = true, .indirect = true, .onlyAttribute = true})->idpFlags(),
              0x3FU);
}

TEST_F(CertificateRevocationListTest, ScopeIsOwnedByTheListAndShown) {
    const auto list = withScope({.name = pointName(), .onlyUser = true, .indirect = true});
    const auto& scope = list->issuingDistributionPoint();
    EXPECT_TRUE(scope.onlyUser());
    EXPECT_FALSE(scope.onlyCA());
    EXPECT_TRUE(scope.indirectCRL());
    EXPECT_FALSE(scope.onlyAttr());
    ASSERT_EQ(scope.distributionPointName().fullName().size(), 1U);
    EXPECT_EQ(scope.distributionPointName().fullName().front().type(), 6);
    EXPECT_EQ(scope.reasons(), 0x807FU);
}

TEST_F(CertificateRevocationListTest, ReasonsMaskTakesTwoBytesWithinTheDefinedBits) {
    const auto expectReasons = [](const char* bits, unsigned int mask) {
        const auto list = withScope({.reasons = fromHex(bits)});
        EXPECT_EQ(list->idpReasons(), mask) << bits;
        EXPECT_EQ(list->issuingDistributionPoint().reasons(), mask) << bits;
        EXPECT_EQ(list->idpFlags(), 0x41U) << bits;
    };
    expectReasons("ff", 0x7F);
    expectReasons("ffff", 0x807F);
    expectReasons("60", 0x60);
    expectReasons("6080", 0x8060);
    expectReasons("607f", 0x60);
    expectReasons("0080ff", 0x8000);
    expectReasons("", 0x807F); // a bit string without bits leaves the mask as it was
}

TEST_F(CertificateRevocationListTest, UnreadableScopeIsInvalidAndCoversAllReasons) {
    const auto list = withExtension("2.5.29.28", "ffff");
    EXPECT_EQ(list->idpFlags(), 0x02U);
    EXPECT_EQ(list->idpReasons(), 0x807FU);
    EXPECT_TRUE(list->issuingDistributionPoint().distributionPointName().isNull());
}

TEST_F(CertificateRevocationListTest, ScopeThatOccursTwiceIsInvalid) {
    const auto list = read(issueList({.issuer = &root(),
                                      .scope = Scope{.onlyUser = true},
                                      .extensions = {{.oid = "2.5.29.28", .value = Scope{.onlyCa = true}.der()}}}));
    EXPECT_EQ(list->idpFlags(), 0x02U);
}

// Issued by

TEST_F(CertificateRevocationListTest, IssuedByItsIssuer) {
    EXPECT_TRUE(read(plain())->issuedBy(read(root()), true));
    EXPECT_TRUE(read(plain())->issuedBy(read(root()), false));
}

TEST_F(CertificateRevocationListTest, NobodyElseIssuedIt) {
    EXPECT_FALSE(read(plain())->issuedBy(RefCertificate(), false));
    EXPECT_FALSE(read(plain())->issuedBy(read(issue({.subject = {{"CN", "Other"}}, .key = anyKey()})), false));
}

TEST_F(CertificateRevocationListTest, IssuedByWantsEqualKeyIdentifiersWhereTheListNamesOne) {
    const auto other = read(issue({.subject = rootName,
                                   .key = anyKey(),
                                   .ca = true,
                                   .keyUsage = 0x06,
                                   .subjectKeyIdentifierValue = fromHex("ffff")}));
    EXPECT_FALSE(read(plain())->issuedBy(other, false));
    EXPECT_TRUE(read(issueList({.issuer = &root(), .authorityKeyIdentifier = false}))->issuedBy(other, true));
}

TEST_F(CertificateRevocationListTest, IssuedByChecksCrlSignOnRequestOnly) {
    norvauthority::CertificateRequest request{
        .subject = rootName, .key = anyKey(), .ca = true, .subjectKeyIdentifierValue = fromHex("a1a2a3")};
    EXPECT_FALSE(read(plain())->issuedBy(read(issue(request)), true)) << "no key usage grants nothing";
    request.keyUsage = 0x04; // keyCertSign
    EXPECT_FALSE(read(plain())->issuedBy(read(issue(request)), true));
    EXPECT_TRUE(read(plain())->issuedBy(read(issue(request)), false));
}

// Handles

TEST_F(CertificateRevocationListTest, HandlesAreNeverEqualNotEvenToThemselves) {
    const auto list = read(plain());
    const auto copy = list;
    EXPECT_FALSE(list == list); // NOLINT(misc-redundant-expression)
    EXPECT_FALSE(list == copy);
    EXPECT_FALSE(RefCertificateRevocationList() == RefCertificateRevocationList());
    EXPECT_TRUE(list != list); // NOLINT(misc-redundant-expression)
}

TEST_F(CertificateRevocationListTest, EmptyHandleConvertsToNull) {
    EXPECT_EQ(static_cast<X509_crl_st*>(RefCertificateRevocationList()), nullptr);
    EXPECT_TRUE(RefCertificateRevocationList().isNull());
}

TEST_F(CertificateRevocationListTest, NullBodyIsRefused) {
    const auto thrown = norvtest::thrownBy(
        [] { const RefCertificateRevocationList handle(static_cast<CertificateRevocationList*>(nullptr)); });
    norvtest::expectFailure(thrown, "RefCounted constructor for RefImpl failed.", 4, "", 0);
}

TEST_F(CertificateRevocationListTest, OwnershipIsAsAsked) {
    const auto list = plain().crl();
    {
        const auto borrowed = factory(list.get(), false);
        const RefCertificateRevocationList body(new CertificateRevocationList(list.get()));
        const auto owned = factory(plain().crl().release(), true); // leaks unless freed
        EXPECT_EQ(static_cast<X509_crl_st*>(borrowed), list.get());
        EXPECT_EQ(body->referenceCount(), 1);
    }
    EXPECT_EQ(X509_CRL_get_version(list.get()), 1);
}

// Writing

TEST_F(CertificateRevocationListTest, ListsAreWrittenAndTheStreamNotEnded) {
    MemoryMediaOut der;
    read(full())->writeDER(der);
    EXPECT_EQ(bytes(der.content()), full().der);
    EXPECT_FALSE(der.ended());
    MemoryMediaOut pem;
    read(full())->writePEM(pem);
    EXPECT_EQ(text(pem.content()), full().pem());
    EXPECT_FALSE(pem.ended());
}

TEST_F(CertificateRevocationListTest, ExceptionOfTheTargetArrives) {
    expectTargetsExceptionArrives(read(full()), full().der);
}

// Reading

TEST_F(CertificateRevocationListTest, DerAndPemAreToldApartByTheFirstByte) {
    EXPECT_FALSE(factory.read(buffer(full().der)).isNull());
    EXPECT_FALSE(factory.read(buffer(full().pem())).isNull());
    EXPECT_FALSE(factory.read(buffer("text before\n" + full().pem())).isNull());
    EXPECT_TRUE(factory.read(buffer("0" + full().pem())).isNull()) << "taken for DER";
    EXPECT_FALSE(factory.readPEM(buffer("0\n" + full().pem())).isNull());
    EXPECT_TRUE(factory.read(Buffer()).isNull());
    EXPECT_TRUE(factory.readDER(Buffer()).isNull());
    EXPECT_TRUE(factory.readPEM(Buffer()).isNull());
    EXPECT_TRUE(factory.readDER(buffer(full().pem())).isNull());
    EXPECT_TRUE(factory.readPEM(buffer(full().der)).isNull());
}

TEST_F(CertificateRevocationListTest, TheFirstListOfPemIsRead) {
    const auto list = factory.readPEM(buffer(root().certificate.pem() + full().pem() + plain().pem()));
    ASSERT_FALSE(list.isNull());
    EXPECT_EQ(list->crlNumber().hex(), "1234567890abcdef12");
}

TEST_F(CertificateRevocationListTest, BytesAfterDerAreIgnored) {
    auto der = full().der;
    der.push_back(0x42);
    const auto list = factory.readDER(buffer(der));
    ASSERT_FALSE(list.isNull());
    MemoryMediaOut out;
    list->writeDER(out);
    EXPECT_EQ(bytes(out.content()), full().der);
}

TEST_F(CertificateRevocationListTest, BlockWithAnEncryptionHeaderIsRefusedWithoutAsking) {
    std::string encrypted = full().pem();
    encrypted.insert(encrypted.find('\n') + 1, "Proc-Type: 4,ENCRYPTED\nDEK-Info: DES-EDE3-CBC,0123456789ABCDEF\n\n");
    callbacks.clear();
    EXPECT_TRUE(factory.readPEM(buffer(encrypted)).isNull());
    ASSERT_EQ(callbacks.size(), 1U);
    ASSERT_NE(callbacks[0], nullptr) << "OpenSSL's own callback would prompt";
    char passphrase[16] = "";
    EXPECT_EQ(callbacks[0](passphrase, sizeof passphrase, 0, nullptr), -1);
}

TEST_F(CertificateRevocationListTest, FilesAreReadWhole) {
    const TemporaryFolder folder;
    const auto pem = folder.write("ca.pem", std::string(100000, '\n') + full().pem());
    const auto der = folder.write("ca.crl", text(buffer(full().der)));
    EXPECT_FALSE(factory.read(pem).isNull());
    EXPECT_FALSE(factory.read(File::Path(der)).isNull());
}

TEST_F(CertificateRevocationListTest, FilesThatCannotBeReadGiveAnEmptyHandle) {
    const TemporaryFolder folder;
    EXPECT_TRUE(factory.read(folder.path("none.crl")).isNull());
    EXPECT_TRUE(factory.read(std::string()).isNull());
    EXPECT_TRUE(factory.read(File::Path()).isNull());
    EXPECT_TRUE(factory.read(folder.path(".")).isNull());
    EXPECT_TRUE(factory.read(folder.write("empty.crl", "")).isNull());
    EXPECT_TRUE(factory.read(std::string("/proc/self/mem")).isNull()) << "opens, but cannot be read";
}

TEST_F(CertificateRevocationListTest, HundredThousandEntriesAreRead) {
    const auto list = read(issueList({.issuer = &root(), .numbered = 100000}));
    ASSERT_FALSE(list.isNull());
    EXPECT_EQ(sk_X509_REVOKED_num(X509_CRL_get_REVOKED(list)), 100000);
}

// Hostile bytes

void askEverything(const RefCertificateRevocationList& list) {
    list->warm();
    static_cast<void>(list->issuedBy(read(root()), true));
    NullMediaOut out;
    list->writeDER(out);
    list->writePEM(out);
}

TEST_F(CertificateRevocationListHostileTest, EveryPrefixIsRefused) {
    const auto& der = full().der;
    for (std::size_t length = 0; length < der.size(); ++length) {
        ASSERT_TRUE(factory.read(Buffer(der.data(), static_cast<unsigned int>(length), false)).isNull()) << length;
        ASSERT_EQ(ERR_peek_error(), 0UL) << length;
    }
    askEverything(factory.readDER(buffer(der)));
}

TEST_F(CertificateRevocationListHostileTest, EveryPemPrefixIsRefused) {
    const auto pem = full().pem();
    for (std::size_t length = 0; length <= pem.rfind('-'); ++length) {
        ASSERT_TRUE(factory.read(buffer(pem.substr(0, length))).isNull()) << length;
        ASSERT_EQ(ERR_peek_error(), 0UL) << length;
    }
}

TEST_F(CertificateRevocationListHostileTest, ChangedBytesNeverCrashAndLeaveNoErrors) {
    expectChangedBytesDoNoHarm(
        full().der, [&](const Buffer& der) { return factory.readDER(der); }, askEverything);
}

TEST_F(CertificateRevocationListHostileTest, AnnouncedLengthsTakeNoMemory) {
    for (const char* header : norvtest::hugeHeaders) {
        EXPECT_TRUE(factory.read(buffer(fromHex(header))).isNull()) << header;
    }
}

TEST_F(CertificateRevocationListHostileTest, LengthsBeyondTwoGibibytesAreRefused) {
    const norvtest::AddressSpace zeroes(0x80000000U);
    const Buffer huge(zeroes.data(), 0x80000000U, true);
    EXPECT_TRUE(factory.readPEM(huge).isNull());
    EXPECT_TRUE(factory.readDER(huge).isNull());
}

// Lists made elsewhere

struct Expected {
    const char* file;
    const char* issuer;
    const char* lastUpdate;
    int entries;
};

void PrintTo(const Expected& expected, std::ostream* out) {
    *out << expected.file;
}

class Rfc4134List : public testing::TestWithParam<Expected> {};

TEST_P(Rfc4134List, IsReadAsOpenSslShowsIt) {
    const auto& expected = GetParam();
    X509_SAMPLE_OR_SKIP(der, std::string("rfc4134/") + expected.file);
    const auto list = CertificateRevocationListFactory().read(buffer(*der));
    ASSERT_FALSE(list.isNull());
    EXPECT_EQ(list->crlInfo().issuer().asString(), expected.issuer);
    EXPECT_EQ(list->lastUpdate()->asTime().asString(), expected.lastUpdate);
    EXPECT_TRUE(list->nextUpdate().isNull());
    EXPECT_EQ(list->crlNumber().object(), nullptr);
    EXPECT_FALSE(list->isDeltaCRL());
    const auto* revoked = X509_CRL_get_REVOKED(list);
    EXPECT_EQ(revoked == nullptr ? 0 : sk_X509_REVOKED_num(revoked), expected.entries);
    MemoryMediaOut out;
    list->writeDER(out);
    EXPECT_EQ(bytes(out.content()), *der);
    EXPECT_EQ(ERR_peek_error(), 0UL);
}

INSTANTIATE_TEST_SUITE_P(All, Rfc4134List,
                         testing::Values(Expected{"CarlDSSCRLEmpty.crl", "CN=CarlDSS", "1999-08-20T07:00:00Z", 0},
                                         Expected{"CarlDSSCRLForAll.crl", "CN=CarlDSS", "1999-08-27T07:00:00Z", 5},
                                         Expected{"CarlDSSCRLForCarl.crl", "CN=CarlDSS", "1999-08-25T07:00:00Z", 1},
                                         Expected{"CarlRSACRLEmpty.crl", "CN=CarlRSA", "1999-08-20T07:00:00Z", 0},
                                         Expected{"CarlRSACRLForAll.crl", "CN=CarlRSA", "1999-08-27T07:00:00Z", 3},
                                         Expected{"CarlRSACRLForCarl.crl", "CN=CarlRSA", "1999-08-25T07:00:00Z", 1}));

TEST_F(CertificateRevocationListTest, Rfc4134IssuersAreRecognised) {
    X509_SAMPLE_OR_SKIP(listDer, "rfc4134/CarlRSACRLForAll.crl");
    X509_SAMPLE_OR_SKIP(carlsDer, "rfc4134/CarlRSASelf.cer");
    X509_SAMPLE_OR_SKIP(alicesDer, "rfc4134/AliceRSASignByCarl.cer");
    const auto list = factory.readDER(buffer(*listDer));
    EXPECT_TRUE(list->issuedBy(CertificateFactory().readDER(buffer(*carlsDer)), true));
    EXPECT_FALSE(list->issuedBy(CertificateFactory().readDER(buffer(*alicesDer)), false));
}

} // namespace
