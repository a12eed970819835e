// The authority's certificates and lists are read back by OpenSSL's own decoders.

#include <authority/Authority.h>

#include <gtest/gtest.h>
#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/x509v3.h>

#include <ctime>
#include <memory>
#include <stdexcept>

using namespace norvauthority;

namespace {

std::string oneLine(const X509_NAME* name) {
    const std::unique_ptr<BIO, decltype(&BIO_free)> bio(BIO_new(BIO_s_mem()), BIO_free);
    X509_NAME_print_ex(bio.get(), name, 0, XN_FLAG_RFC2253);
    char* start = nullptr;
    const long length = BIO_get_mem_data(bio.get(), &start);
    return {start, static_cast<std::size_t>(length)};
}

std::string serialOf(const ASN1_INTEGER* serial) {
    const std::unique_ptr<BIGNUM, decltype(&BN_free)> number(ASN1_INTEGER_to_BN(serial, nullptr), BN_free);
    char* digits = BN_bn2hex(number.get());
    std::string text = digits;
    OPENSSL_free(digits);
    return text;
}

class AuthorityTest : public testing::Test {
protected:
    static const Identity& root() {
        static const Identity ca =
            issue({.subject = {{"C", "DE"}, {"CN", "Root"}}, .ca = true, .pathLength = 2, .keyUsage = 0x06});
        return ca;
    }
};

TEST(DerTest, IntegersAreMinimalTwosComplement) {
    EXPECT_EQ("020100", toHex(der::integer("0")));
    EXPECT_EQ("02017f", toHex(der::integer("7f")));
    EXPECT_EQ("02020080", toHex(der::integer("80")));
    EXPECT_EQ("0201ff", toHex(der::integer("-1")));
    EXPECT_EQ("020180", toHex(der::integer("-80")));
    EXPECT_EQ("0202ff7f", toHex(der::integer("-81")));
    EXPECT_EQ("0202ff00", toHex(der::integer("-100")));
}

TEST(DerTest, LengthsAreMinimal) {
    EXPECT_EQ("0400", toHex(der::octetString({})));
    EXPECT_EQ("047f", toHex(der::octetString(Bytes(127))).substr(0, 4));
    EXPECT_EQ("048180", toHex(der::octetString(Bytes(128))).substr(0, 6));
    EXPECT_EQ("04820100", toHex(der::octetString(Bytes(256))).substr(0, 8));
}

TEST(DerTest, NamedBitsDropTrailingZeroes) {
    EXPECT_EQ("03020106", toHex(der::namedBits(0x06)));
    EXPECT_EQ("03020780", toHex(der::namedBits(0x80)));
    EXPECT_EQ("0303070080", toHex(der::namedBits(0x8000)));
    EXPECT_EQ("030100", toHex(der::namedBits(0)));
}

TEST_F(AuthorityTest, SelfSignedAuthorityVerifiesWithItsOwnKey) {
    const X509Ptr x509 = root().certificate.x509();
    EXPECT_EQ(1, X509_verify(x509.get(), root().key.get()));
    EXPECT_EQ("CN=Root,C=DE", oneLine(X509_get_subject_name(x509.get())));
    EXPECT_EQ("CN=Root,C=DE", oneLine(X509_get_issuer_name(x509.get())));
    EXPECT_EQ(2, X509_get_version(x509.get()));
    EXPECT_EQ(2, X509_get_pathlen(x509.get()));
    EXPECT_EQ(0x06U, X509_get_key_usage(x509.get()));
    EXPECT_NE(0U, X509_get_extension_flags(x509.get()) & EXFLAG_CA);
    EXPECT_EQ(nullptr, X509_get0_authority_key_id(x509.get()));
}

TEST_F(AuthorityTest, IssuedCertificateCarriesWhatWasAsked) {
    const Identity alice =
        issue({.subject = {{"CN", "Alice"}, {"emailAddress", "a@example.org", V_ASN1_IA5STRING}},
               .key = Key::ec(),
               .issuer = &root(),
               .serial = "0123456789abcdef0123456789abcdef01234567",
               .notBefore = Time::at(0),
               .notAfter = Time::at(4102444800),
               .keyUsage = 0x80C0,
               .extendedKeyUsage = {"emailProtection", "1.2.3.4"},
               .alternativeNames = {GeneralName::email("a@example.org"), GeneralName::dns("example.org"),
                                    GeneralName::uri("ldap://x"), GeneralName::ip("192.0.2.1"),
                                    GeneralName::directory({{"CN", "Dir"}})},
               .crlDistributionPoints = {{.name = {{.full = {GeneralName::uri("http://crl")}}},
                                          .reasons = Bytes{0x60},
                                          .issuers = {GeneralName::directory({{"CN", "Lists"}})}}},
               .ocsp = {"http://ocsp"},
               .caIssuers = {"http://ca"},
               .extensions = {{.oid = "1.2.3.5", .value = {0x05, 0x00}, .critical = true}}});
    const X509Ptr x509 = alice.certificate.x509();
    const X509Ptr ca = root().certificate.x509();
    EXPECT_EQ(1, X509_verify(x509.get(), root().key.get()));
    EXPECT_EQ(X509_V_OK, X509_check_issued(ca.get(), x509.get()));
    EXPECT_EQ("0123456789ABCDEF0123456789ABCDEF01234567", serialOf(X509_get0_serialNumber(x509.get())));
    EXPECT_EQ("emailAddress=a@example.org,CN=Alice", oneLine(X509_get_subject_name(x509.get())));
    EXPECT_EQ(V_ASN1_UTCTIME, ASN1_STRING_type(X509_get0_notBefore(x509.get())));
    EXPECT_EQ(V_ASN1_GENERALIZEDTIME, ASN1_STRING_type(X509_get0_notAfter(x509.get())));
    EXPECT_EQ(0x80C0U, X509_get_key_usage(x509.get()));
    EXPECT_EQ(static_cast<unsigned int>(XKU_SMIME), X509_get_extended_key_usage(x509.get()));
    EXPECT_EQ(1, X509_check_email(x509.get(), "a@example.org", 0, 0));
    EXPECT_EQ(1, X509_check_host(x509.get(), "example.org", 0, 0, nullptr));
    EXPECT_EQ(1, X509_check_ip_asc(x509.get(), "192.0.2.1", 0));
    EXPECT_NE(nullptr, X509_get0_subject_key_id(x509.get()));
    EXPECT_NE(nullptr, X509_get0_authority_key_id(x509.get()));
    EXPECT_NE(0U, X509_get_extension_flags(x509.get()) & EXFLAG_CRITICAL);
    EXPECT_EQ(0U, X509_get_extension_flags(x509.get()) & EXFLAG_INVALID);
    const std::unique_ptr<CRL_DIST_POINTS, decltype(&CRL_DIST_POINTS_free)> points(
        static_cast<CRL_DIST_POINTS*>(X509_get_ext_d2i(x509.get(), NID_crl_distribution_points, nullptr, nullptr)),
        CRL_DIST_POINTS_free);
    ASSERT_NE(nullptr, points);
    ASSERT_EQ(1, sk_DIST_POINT_num(points.get()));
    const DIST_POINT* point = sk_DIST_POINT_value(points.get(), 0);
    EXPECT_EQ(0x60, point->reasons->data[0]);
    EXPECT_EQ(1, sk_GENERAL_NAME_num(point->CRLissuer));
    EXPECT_EQ(1, sk_GENERAL_NAME_num(point->distpoint->name.fullname));
}

TEST_F(AuthorityTest, NegativeSerialNumber) {
    const Identity odd = issue({.subject = {{"CN", "Odd"}}, .key = Key::ec(), .issuer = &root(), .serial = "-1f"});
    EXPECT_EQ("-1F", serialOf(X509_get0_serialNumber(odd.certificate.x509().get())));
}

TEST_F(AuthorityTest, OddTimesStandAsGiven) {
    const Identity odd = issue({.subject = {{"CN", "Odd"}},
                                .key = Key::ec(),
                                .notBefore = Time::utc("2601010000Z"),
                                .notAfter = Time::generalized("20260101000000.5+0100")});
    const X509Ptr x509 = odd.certificate.x509();
    const ASN1_TIME* end = X509_get0_notAfter(x509.get());
    EXPECT_EQ("20260101000000.5+0100", std::string(reinterpret_cast<const char*>(ASN1_STRING_get0_data(end))));
    EXPECT_EQ(10, ASN1_STRING_length(X509_get0_notBefore(x509.get())) - 1);
}

TEST_F(AuthorityTest, VersionOneHasNoExtensions) {
    const Identity old = issue({.subject = {{"CN", "Old"}}, .key = Key::ec(), .version = 1, .ca = true});
    const X509Ptr x509 = old.certificate.x509();
    EXPECT_EQ(0, X509_get_version(x509.get()));
    EXPECT_EQ(0, X509_get_ext_count(x509.get()));
}

TEST_F(AuthorityTest, EveryKindOfKeySigns) {
    for (const Key& key : {Key::rsa(1024), Key::dsa(), Key::ec(), Key::ed25519()}) {
        const Identity self = issue({.subject = {{"CN", "Self"}}, .key = key});
        EXPECT_EQ(1, X509_verify(self.certificate.x509().get(), key.get()));
    }
}

TEST_F(AuthorityTest, KeysSurviveTheirTexts) {
    const Key key = Key::rsa(1024);
    EXPECT_EQ(1, EVP_PKEY_eq(key.get(), Key::fromPem(key.pkcs8Pem()).get()));
    EXPECT_EQ(1, EVP_PKEY_eq(key.get(), Key::fromDer(key.traditionalDer()).get()));
    EXPECT_EQ(1, EVP_PKEY_eq(key.get(), Key::fromDer(key.pkcs8()).get()));
    EXPECT_THROW(static_cast<void>(Key::fromPem(key.encryptedPem("secret"))), std::runtime_error);
}

TEST_F(AuthorityTest, WrongSigningKeyGivesAWrongSignature) {
    const Identity forged =
        issue({.subject = {{"CN", "Forged"}}, .key = Key::ec(), .issuer = &root(), .signingKey = Key::ec()});
    EXPECT_NE(1, X509_verify(forged.certificate.x509().get(), root().key.get()));
    ERR_clear_error();
}

TEST_F(AuthorityTest, ListCarriesWhatWasAsked) {
    const Crl made = issueList({.issuer = &root(),
                                .revoked = {{.serial = "-1f", .reason = 1}, {.serial = "abcdef"}},
                                .crlNumber = "ff",
                                .deltaBase = "fe",
                                .scope = IssuingDistributionPoint{.name = {{.full = {GeneralName::uri("http://crl")}}},
                                                                  .onlyUser = true,
                                                                  .reasons = Bytes{0xFF, 0xFF},
                                                                  .indirect = true}});
    const CrlPtr list = made.crl();
    EXPECT_EQ(1, X509_CRL_verify(list.get(), root().key.get()));
    EXPECT_EQ(2, sk_X509_REVOKED_num(X509_CRL_get_REVOKED(list.get())));
    const std::unique_ptr<ISSUING_DIST_POINT, decltype(&ISSUING_DIST_POINT_free)> scope(
        static_cast<ISSUING_DIST_POINT*>(
            X509_CRL_get_ext_d2i(list.get(), NID_issuing_distribution_point, nullptr, nullptr)),
        ISSUING_DIST_POINT_free);
    ASSERT_NE(nullptr, scope);
    EXPECT_GT(scope->onlyuser, 0);
    EXPECT_LE(scope->onlyCA, 0);
    EXPECT_GT(scope->indirectCRL, 0);
    EXPECT_EQ(2, scope->onlysomereasons->length);
}

TEST_F(AuthorityTest, LargeLists) {
    const CrlPtr list = issueList({.issuer = &root(), .numbered = 100000}).crl();
    EXPECT_EQ(100000, sk_X509_REVOKED_num(X509_CRL_get_REVOKED(list.get())));
    EXPECT_EQ(1, X509_CRL_verify(list.get(), root().key.get()));
}

TEST_F(AuthorityTest, ContentTypesKeepTheirOctets) {
    // 1.2.840.113549.1.7.4294967299: the last arc is 2^32 + 3.
    const Bytes wrapped = fromHex("2a864886f70d0107 9080808003");
    const Pkcs7Ptr structure = pkcs7(contentInfo(wrapped, der::null()));
    EXPECT_EQ(wrapped.size(), OBJ_length(structure->type));
    EXPECT_NE(NID_pkcs7_enveloped, OBJ_obj2nid(structure->type));
}

} // namespace
