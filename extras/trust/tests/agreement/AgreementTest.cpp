// The verdicts on generated chains are those of RFC 5280 and of `openssl verify`; where these two differ it is said why.

#include "Cases.h"
#include "Differences.h"
#include "OpensslVerify.h"

#include <norvcrypto-trust/Trust.h>
#include <norvcrypto/Crypto.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <set>

using namespace agreement;
namespace Trust = Norvane::Crypto::Trust;
namespace NVX509 = Norvane::Crypto::NVX509;

namespace {

std::vector<Case> allCases() {
    std::vector<Case> all;
    for (auto* const some :
         {pathCases, periodCases, constraintCases, usageCases, listCases, listScopeCases, policyCases, algorithmCases})
        for (Case& one : some()) {
            if (one.anchors.empty())
                one.anchors = {root().certificate};
            if (one.untrusted.empty() && !one.alone)
                one.untrusted = {middle().certificate};
            all.push_back(std::move(one));
        }
    return all;
}

const std::vector<Case>& cases() {
    static const std::vector<Case> all = allCases();
    return all;
}

/// The reasons that an error of `openssl verify` may stand for.
std::set<Code> reasonsOf(const Error& error) {
    static const std::map<int, std::set<Code>> table{
        {1, {Code::tooMuchWork}},
        {2, {Code::issuerMissing}},
        {3, {Code::listMissing, Code::listSignerMissing}},
        {7, {Code::signatureWrong}},
        {8, {Code::listSignatureWrong}},
        {9, {Code::certificateNotYetValid}},
        {10, {Code::certificateExpired}},
        {11, {Code::listNotYetValid}},
        {12, {Code::listExpired}},
        {14, {Code::validityUnreadable}},
        {18, {Code::selfSigned}},
        {19, {Code::rootNotTrusted}},
        {20, {Code::issuerMissing}},
        {22, {Code::chainTooLong}},
        {23, {Code::revoked}},
        {25, {Code::pathLengthExceeded}},
        {26, {Code::keyUsageForbids, Code::extendedKeyUsageForbids}},
        {32, {Code::certificateSigningForbidden}},
        {34, {Code::criticalExtensionUnknown}},
        {35, {Code::listSigningForbidden}},
        {36, {Code::listCriticalExtensionUnknown}},
        {42, {Code::policyInvalid}},
        {43, {Code::policyMissing}},
        {44, {Code::listScopeDiffers}},
        {47, {Code::nameNotPermitted}},
        {48, {Code::nameExcluded}},
        {49, {Code::nameConstraintsUnsupported}},
        {51, {Code::nameConstraintsUnsupported}},
        {54, {Code::listIssuerMissing}},
        {66, {Code::keyTooShort}},
        {67, {Code::keyTooShort}},
        {68, {Code::digestTooWeak}},
        {79, {Code::notAnAuthority}},
    };
    return table.at(error.number);
}

/// Whether both say the same: one reason for each error.
bool sameReasons(const std::vector<Error>& errors, std::vector<Finding> findings) {
    for (const Error& error : errors) {
        const auto found = std::find_if(findings.begin(), findings.end(), [&error](const Finding& finding) {
            return static_cast<int>(finding.depth) == error.depth && reasonsOf(error).contains(finding.code);
        });
        if (found == findings.end())
            return false;
        findings.erase(found);
    }
    return findings.empty();
}

NVX509::RefCertificate handle(const Certificate& certificate) {
    return NVX509::CertificateFactory()(certificate.x509().release(), true);
}

Trust::Options optionsOf(const Case& one) {
    Trust::Options options;
    options.at = one.at;
    options.purpose = one.purpose == For::sign      ? Trust::Purpose::sign
                      : one.purpose == For::encrypt ? Trust::Purpose::encrypt
                                                    : Trust::Purpose::any;
    options.revocation = one.revocation == Lists::required    ? Trust::Revocation::required
                         : one.revocation == Lists::available ? Trust::Revocation::available
                                                              : Trust::Revocation::none;
    options.policies = one.policies;
    options.maximumDepth = one.depth.value_or(options.maximumDepth);
    options.partialChain = one.partialChain;
    return options;
}

/// Everything from the material, and the same with the untrusted certificates and the lists from the message.
Trust::Verdict judged(const Case& one, bool fromMessage) {
    const auto material = std::make_shared<Trust::Material>();
    for (const Certificate& anchor : one.anchors)
        material->addAnchor(handle(anchor));
    std::list<NVX509::RefCertificate> certificates;
    for (const Certificate& certificate : one.untrusted)
        certificates.push_back(handle(certificate));
    std::list<NVX509::RefCertificateRevocationList> lists;
    for (const Crl& list : one.lists)
        lists.push_back(NVX509::CertificateRevocationListFactory()(list.crl().release(), true));
    const Trust::Verifier verifier(material);
    if (fromMessage)
        return verifier.judge(handle(one.leaf), certificates, lists, optionsOf(one));
    for (const auto& certificate : certificates)
        material->addUntrusted(certificate);
    for (const auto& list : lists)
        material->addList(list);
    return verifier.judge(handle(one.leaf), {}, {}, optionsOf(one));
}

std::vector<Finding> findingsOf(const Trust::Verdict& verdict) {
    std::vector<Finding> findings;
    for (const Trust::Reason& reason : verdict.reasons)
        findings.push_back({reason.code, reason.depth});
    std::sort(findings.begin(), findings.end());
    return findings;
}

std::string textOf(const Trust::Verdict& verdict) {
    std::string text;
    for (const Trust::Reason& reason : verdict.reasons)
        text += std::to_string(reason.depth) + " " + Trust::nameOf(reason.code) + ": " + reason.text + "\n";
    for (const Trust::Reason& note : verdict.notes)
        text += std::to_string(note.depth) + " (note) " + Trust::nameOf(note.code) + ": " + note.text + "\n";
    return text;
}

std::vector<Finding> sorted(std::vector<Finding> findings) {
    std::sort(findings.begin(), findings.end());
    return findings;
}

class AgreementTest : public testing::TestWithParam<Case> {
protected:
    static void SetUpTestSuite() { Norvane::Crypto::initialize(); }
};

TEST_P(AgreementTest, OpensslSaysWhatIsExpectedOfIt) {
    static const std::map<std::string, OpensslAnswer> answers = askOpenssl(cases());
    const OpensslAnswer& answer = answers.at(GetParam().name);
    std::vector<Error> expected = GetParam().openssl;
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(expected, answer.errors) << answer.said;
    EXPECT_EQ(GetParam().opensslAccepts.value_or(expected.empty()), answer.accepted) << answer.said;
}

TEST_P(AgreementTest, TheVerdictHasTheReasonsOfTheStandard) {
    const Trust::Verdict verdict = judged(GetParam(), false);
    EXPECT_EQ(sorted(GetParam().reasons), findingsOf(verdict)) << textOf(verdict);
    EXPECT_EQ(GetParam().reasons.empty(), verdict.accepted);
}

TEST_P(AgreementTest, MaterialOfAMessageGivesTheSameVerdict) {
    const auto other = fromMessages().find(GetParam().name);
    const std::vector<Finding>& expected = other == fromMessages().end() ? GetParam().reasons : other->second;
    const Trust::Verdict verdict = judged(GetParam(), true);
    EXPECT_EQ(sorted(expected), findingsOf(verdict)) << textOf(verdict);
}

TEST_P(AgreementTest, DifferencesAreListedAndNoneIsThatIsNot) {
    const Case& one = GetParam();
    const bool opensslAccepts = one.opensslAccepts.value_or(one.openssl.empty());
    EXPECT_EQ(opensslAccepts != one.reasons.empty(), otherVerdicts().contains(one.name));
    EXPECT_EQ(!opensslAccepts && !one.reasons.empty() && !sameReasons(one.openssl, one.reasons),
              otherReasons().contains(one.name));
}

INSTANTIATE_TEST_SUITE_P(Chains, AgreementTest, testing::ValuesIn(cases()),
                         [](const auto& test) { return test.param.name; });

/// A list of differences that names no case would hide that the case is gone.
TEST(AgreementListTest, EveryDifferenceIsThatOfACase) {
    std::set<std::string> names;
    for (const Case& one : cases())
        EXPECT_TRUE(names.insert(one.name).second) << one.name;
    for (const auto& [name, reasons] : fromMessages())
        EXPECT_TRUE(names.contains(name)) << name;
    for (const auto* const list : {&otherVerdicts(), &otherReasons()})
        for (const auto& [name, why] : *list) {
            EXPECT_TRUE(names.contains(name)) << name;
            EXPECT_NE("", why);
        }
}

} // namespace
