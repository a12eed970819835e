// What looking for extensions costs: whoever makes a certificate or a list chooses how many it has, and whoever sends a
// message how many candidates for its issuer there are.

#include "support/Interpose.h"
#include "support/X509Testing.h"

#include <norvcrypto/Certificate.h>
#include <norvcrypto/CertificateRevocationList.h>

#include <openssl/objects.h>

#include <cstddef>
#include <string>
#include <vector>

namespace {

std::size_t s_looks = 0;

} // namespace

// Comparing identifiers looks at the octets of both.
extern "C" const unsigned char* OBJ_get0_data(const ASN1_OBJECT* object) {
    ++s_looks;
    return norvtest::next<&OBJ_get0_data>("OBJ_get0_data")(object);
}

namespace {

using namespace Norvane::Crypto::NVX509;
using namespace x509testing;

constexpr std::size_t extensionCount = 300;
constexpr int candidateCount = 300;

class ExtensionSearch : public QuietQueue {};

std::vector<norvauthority::Extension> manyExtensions() {
    std::vector<norvauthority::Extension> extensions;
    for (std::size_t i = 0; i < extensionCount; ++i) {
        extensions.push_back({.oid = "1.2.3." + std::to_string(1000 + i), .value = {0x05, 0x00}});
    }
    return extensions;
}

const norvauthority::Identity& withManyExtensions() {
    static const auto identity = norvauthority::issue({.subject = {{"CN", "Many"}},
                                                       .key = anyKey(),
                                                       .ca = true,
                                                       .subjectKeyIdentifier = false,
                                                       .authorityKeyIdentifier = false,
                                                       .extensions = manyExtensions()});
    return identity;
}

/// Looks at identifiers that asking for the issuer takes, with as many candidates.
template <class Ask> std::size_t looksOf(Ask ask) {
    const std::size_t before = s_looks;
    for (int i = 0; i < candidateCount; ++i) {
        ask();
    }
    return s_looks - before;
}

TEST_F(ExtensionSearch, AnAbsentExtensionIsLookedForOnce) {
    const auto certificate = read(withManyExtensions());
    const auto candidate = read(withManyExtensions());
    ASSERT_GE(certificate->extensions().size(), extensionCount);
    // Two octet strings a comparison, for the key identifiers of both; once each.
    EXPECT_LT(looksOf([&] { EXPECT_TRUE(certificate->issuedBy(candidate, false)); }), 8 * extensionCount);
    IssuerFilter filter(certificate);
    EXPECT_LT(looksOf([&] { EXPECT_TRUE(filter(candidate)); }), 8 * extensionCount);
    EXPECT_LT(looksOf([&] {
                  EXPECT_TRUE(certificate->subjectAlternativeName().isNull());
                  EXPECT_TRUE(certificate->crlDistributionPoints().isNull());
                  EXPECT_TRUE(certificate->authorityKeyIdentifier().isNull());
                  EXPECT_TRUE(certificate->subjectKeyIdentifier().isNull());
              }),
              8 * extensionCount);
}

TEST_F(ExtensionSearch, OfAListToo) {
    const auto list = read(norvauthority::issueList(
        {.issuer = &withManyExtensions(), .authorityKeyIdentifier = false, .extensions = manyExtensions()}));
    const auto candidate = read(withManyExtensions());
    ASSERT_GE(list->crlInfo().extensions().size(), extensionCount);
    candidate->warm();
    EXPECT_LT(looksOf([&] { EXPECT_TRUE(list->issuedBy(candidate, false)); }), 8 * extensionCount);
}

} // namespace
