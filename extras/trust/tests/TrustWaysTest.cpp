// Chains that OpenSSL builds wrong at first: another way is looked for where there is somebody else of the name.

#include "Chains.h"
#include "Extensions.h"

using namespace trusttesting;

namespace {

/// Certificates without identifiers of keys: nothing but the signature tells who issued what.
class TrustWays : public TrustTest {
protected:
    static CertificateRequest silent(CertificateRequest request = {}) {
        request.subjectKeyIdentifier = false;
        request.authorityKeyIdentifier = false;
        return request;
    }
    static CertificateRequest numbered(const std::string& serial, CertificateRequest request = {}) {
        request.serial = serial;
        return silent(request);
    }
    const Identity m_upper = authority("Upper", 2, &m_root, numbered("b1"));
    const Identity m_right = authority("Middle", 3, &m_upper, numbered("b2"));
    const Identity m_wrongKey = authority("Middle", 4, &m_upper, numbered("b3"));
    const Identity m_anna = user(m_right, silent());
};

TEST_F(TrustWays, AnAuthorityWithTwoKeys) {
    Case one;
    one.anchor(m_root).message(m_upper).message(m_wrongKey).message(m_right);
    EXPECT_EQ(shown(one.judge(m_anna)), "accepted ");
    Case without;
    without.anchor(m_root).message(m_upper).message(m_wrongKey);
    const Verdict verdict = without.judge(m_anna);
    EXPECT_EQ(shown(verdict), "refused signature-wrong 0");
    EXPECT_EQ(verdict.chain.size(), 4U);
}

/// What the operator put there counts like what came with the message.
TEST_F(TrustWays, AnAuthorityWithTwoKeysAmongTheIntermediates) {
    Case one;
    one.anchor(m_root);
    for (const Identity* each : {&m_upper, &m_wrongKey, &m_right}) {
        one.material->addUntrusted(read(*each));
    }
    EXPECT_EQ(shown(one.judge(m_anna)), "accepted ");
}

TEST_F(TrustWays, ARootInTheMessageThatIsCrossSigned) {
    const Identity other = authority("Other root", 5);
    const Identity cross = authority("Other root", 5, &m_root, {.serial = "c1"});
    const Identity anna = user(other);
    for (const bool rootFirst : {true, false}) {
        Case one;
        one.anchor(m_root);
        rootFirst ? one.message(other).message(cross) : one.message(cross).message(other);
        EXPECT_EQ(shown(one.judge(anna)), "accepted ") << rootFirst;
    }
    Case without;
    without.anchor(m_root).message(other);
    EXPECT_EQ(shown(without.judge(anna)), "refused root-not-trusted 1");
}

/// Going on without one that the right way needs, too, would break that.
TEST_F(TrustWays, TheOneNextToWhatIsWrongGoesFirst) {
    const Identity stranger = authority("Stranger", 7);
    const Identity namesake = authority("Upper", 6, &stranger, numbered("b4"));
    Case one;
    one.anchor(m_root).message(m_upper).message(namesake).message(m_wrongKey).message(m_right);
    EXPECT_EQ(shown(one.judge(m_anna)), "accepted ");
    // The same where it is the issuer who may not issue.
    const Identity noAuthority = authority("Middle", 3, &m_upper, numbered("b5", {.ca = false}));
    Case other;
    other.anchor(m_root).message(m_upper).message(namesake).message(noAuthority).message(m_right);
    EXPECT_EQ(shown(other.judge(m_anna)), "accepted ");
    Case without;
    without.anchor(m_root).message(m_upper).message(noAuthority);
    EXPECT_EQ(shown(without.judge(m_anna)), "refused not-an-authority 1");
}

TEST_F(TrustWays, AnAuthorityWithTwoConstraints) {
    const auto constrained = [&](const std::string& serial, const std::string& domain) {
        return authority(
            "Middle", 3, &m_upper,
            numbered(serial, {.extensions = {{"2.5.29.30", nameConstraints({GeneralName::email(domain)}, {}), true}}}));
    };
    Case one;
    one.anchor(m_root)
        .message(m_upper)
        .message(constrained("b6", "example.net"))
        .message(constrained("b7", "example.org"));
    EXPECT_EQ(shown(one.judge(m_anna)), "accepted ");
    const auto excluding = authority(
        "Middle", 3, &m_upper,
        numbered("b8",
                 {.extensions = {{"2.5.29.30", nameConstraints({}, {GeneralName::email("example.org")}), true}}}));
    Case other;
    other.anchor(m_root).message(m_upper).message(excluding).message(m_right);
    EXPECT_EQ(shown(other.judge(m_anna)), "accepted ");
    const norvauthority::Bytes minimum = norvauthority::der::element(0x80, {0x01});
    const auto odd = authority(
        "Middle", 3, &m_upper,
        numbered("b9", {.extensions = {
                            {"2.5.29.30", nameConstraints({GeneralName::email("example.org")}, {}, minimum), true}}}));
    Case third;
    third.anchor(m_root).message(m_upper).message(odd).message(m_right);
    EXPECT_EQ(shown(third.judge(m_anna)), "accepted ");
}

TEST_F(TrustWays, AnAuthorityWithTwoPolicies) {
    const auto under = [&](const std::string& serial, const std::string& policy) {
        return authority("Middle", 3, &m_root,
                         numbered(serial, {.extensions = {{"2.5.29.32", certificatePolicies({policy})}}}));
    };
    const Identity first = under("b6", "1.2.3");
    const Identity second = under("b7", "1.2.4");
    const Identity anna = user(first, silent({.extensions = {{"2.5.29.32", certificatePolicies({"1.2.4"})}}}));
    Case one;
    one.anchor(m_root).message(first).message(second);
    one.options.policies = {"1.2.4"};
    EXPECT_EQ(shown(one.judge(anna)), "accepted ");
}

/// The reasons are those of the way that OpenSSL takes itself.
TEST_F(TrustWays, WhenNoWayHoldsTheFirstIsTold) {
    const Identity first = authority("Middle", 3, &m_upper, numbered("b6", {.ca = false}));
    Case one;
    one.anchor(m_root).message(m_upper).message(first).message(m_wrongKey);
    EXPECT_EQ(shown(one.judge(m_anna)), "refused not-an-authority 1");
}

} // namespace
