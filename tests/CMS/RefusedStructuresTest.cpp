// Structures that hold certificates which cost too much, or too many of them.
#include "support/Cms.h"
#include "support/Costly.h"

#include <gmock/gmock.h>

using namespace cmstest;
using norvtest::certificatesOnly;

namespace {

const Bytes& ordinary() {
    static const Bytes der = identities().ec.certificate.der;
    return der;
}

/// What is thrown is what bytes that are no structure give; the reason stands in the log.
void expectRefused(const Bytes& structure, const std::string& reason) {
    const RecordedLog log;
    PiecewiseIn in(structure);
    const Caught failure = caught([&] { const CMS::RefContentInfo message(in); });
    EXPECT_EQ(failure.where, "CMS::_ContentInfo::_ContentInfo");
    EXPECT_EQ(failure.code, 4);
    EXPECT_EQ(failure.line, 389U);
    EXPECT_EQ(failure.details, std::vector<std::string>{"ASN1 Decode failed:"});
    ASSERT_EQ(log.records().size(), 1U);
    EXPECT_EQ(log.records().front().event, 0x300005EU);
    ASSERT_EQ(log.records().front().fields.size(), 2U);
    EXPECT_THAT(log.records().front().fields.back(), testing::EndsWith("norvcrypto / ASN1_d2i_bio / " + reason + "; "));
    EXPECT_EQ(ERR_peek_error(), 0UL);
    EXPECT_EQ(in.body().position(), structure.size()) << "read like one that is decoded";
}

std::size_t certificatesIn(const Bytes& structure) {
    PiecewiseIn in(structure);
    return CMS::signedData(CMS::RefContentInfo(in)).certificates().size();
}

} // namespace

TEST(RefusedStructures, ExplicitCurvesAreSaidToBeRefused) {
    const Bytes& bad = norvtest::explicitIdentity().certificate.der;
    const std::string reason = "refused: explicit elliptic curve parameters";
    expectRefused(certificatesOnly({bad}), reason);
    expectRefused(certificatesOnly({ordinary(), ordinary(), bad}), reason);
    expectRefused(norvtest::indefinite(certificatesOnly({ordinary(), bad})), reason);
}

TEST(RefusedStructures, ManyRelativePointsAreSaidToBeRefused) {
    expectRefused(certificatesOnly({norvtest::relativePoints(1000, 100, identities().ec.key).der}),
                  "refused: too many distribution points relative to the issuer");
}

TEST(RefusedStructures, SoManyCertificatesAndNoMore) {
    EXPECT_EQ(certificatesIn(certificatesOnly(std::vector<Bytes>(50, ordinary()))), 50U);
    expectRefused(certificatesOnly(std::vector<Bytes>(2501, ordinary())),
                  "refused: more than 2500 public keys in one structure");
}

TEST(RefusedStructures, BytesBehindOneThatIsRefusedStayUnread) {
    Bytes input = certificatesOnly({norvtest::explicitIdentity().certificate.der});
    const std::size_t size = input.size();
    norvauthority::der::append(input, certificatesOnly({ordinary()}));
    const RecordedLog log;
    PiecewiseIn in(input);
    EXPECT_EQ(caught([&] { const CMS::RefContentInfo message(in); }).line, 389U);
    EXPECT_EQ(in.body().position(), size);
    EXPECT_EQ(CMS::signedData(CMS::RefContentInfo(in)).certificates().size(), 1U);
}
