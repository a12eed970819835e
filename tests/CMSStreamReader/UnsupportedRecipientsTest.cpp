// Recipients whose algorithms are understood and not supported are named, and never taken for damaged ones; parameters that are none
// are damage.
#include "HandMade.h"

using namespace cmstest;

namespace {

const std::string mgf1 = "1.2.840.113549.1.1.8";
const std::string specified = "1.2.840.113549.1.1.9";
const std::string sha256 = "2.16.840.1.101.3.4.2.1";

Bytes algorithm(const std::string& identifier, const Bytes& parameters = der::null()) {
    return der::sequence({der::oid(identifier), parameters});
}

/// A message for Alice whose key is under RSAES-OAEP with these parameters (RFC 4055, 4.1).
Bytes underOaep(const Bytes& parameters) {
    return authEnveloped({.recipients = {der::sequence({der::integer("0"), nameIn(alice()),
                                                        algorithm("1.2.840.113549.1.1.7", parameters),
                                                        der::octetString(Bytes(256, 1))})}});
}

/// PasswordRecipientInfo (RFC 5652, 6.2.4) with this derivation, which may be absent.
Bytes underPassword(const Bytes& derivation) {
    const Bytes inner = der::sequence({der::oid("AES-256-CBC"), der::octetString(Bytes(16, 9))});
    return authEnveloped({.recipients = {cmstest::context(3, der::concat({der::integer("0"), derivation,
                                                                          algorithm("1.2.840.113549.1.9.16.3.9", inner),
                                                                          der::octetString(Bytes(32, 1))}))}});
}

void expectUnsupported(const Bytes& message, const Opening& open, const std::string& name) {
    for (const From from : {From::memory, From::stream}) {
        const Outcome outcome = outcomeOf(message, from, open);
        EXPECT_FALSE(outcome.opened);
        EXPECT_EQ(outcome.text, "");
        EXPECT_EQ(outcome.verdict, Reader::Unsupported);
        EXPECT_EQ(outcome.unsupported, name);
    }
    const Reader reader(Norvane::MemoryMediaIn(bufferOf(message)));
    EXPECT_EQ(reader.recipients().front().unsupported(), name);
}

} // namespace

TEST(UnsupportedRecipients, OaepWithAnotherDigest) {
    const Opening open = withKeys({&alice()});
    expectUnsupported(underOaep(der::sequence({cmstest::context(0, algorithm("1.2.840.113549.2.5"))})), open,
                      "RSAES-OAEP with MD5 (1.2.840.113549.2.5)");
    expectUnsupported(underOaep(der::sequence({cmstest::context(0, algorithm("1.2.3.4"))})), open,
                      "RSAES-OAEP with 1.2.3.4");
}

TEST(UnsupportedRecipients, OaepWithAnotherMask) {
    const Opening open = withKeys({&alice()});
    expectUnsupported(underOaep(der::sequence({cmstest::context(1, algorithm("1.2.3.5"))})), open,
                      "RSAES-OAEP with 1.2.3.5");
    expectUnsupported(underOaep(der::sequence({cmstest::context(0, algorithm(sha256)),
                                               cmstest::context(1, algorithm(mgf1, algorithm("1.2.3.6")))})),
                      open, "RSAES-OAEP with 1.2.3.6");
}

TEST(UnsupportedRecipients, OaepWithALabelFromElsewhere) {
    expectUnsupported(underOaep(der::sequence({cmstest::context(2, algorithm("1.2.3.7"))})), withKeys({&alice()}),
                      "RSAES-OAEP with 1.2.3.7");
}

TEST(UnsupportedRecipients, OaepParametersThatAreNoneAreDamage) {
    for (const Bytes& parameters : {Bytes(), der::null(), der::octetString({1}), der::sequence({der::integer("1")}),
                                    der::sequence({cmstest::context(1, algorithm(mgf1))}),
                                    der::sequence({cmstest::context(1, algorithm(mgf1, Bytes()))}),
                                    der::sequence({cmstest::context(1, algorithm(mgf1, der::octetString({1})))}),
                                    der::sequence({cmstest::context(2, algorithm(specified))}),
                                    der::sequence({cmstest::context(2, algorithm(specified, Bytes()))})}) {
        expectDamaged(underOaep(parameters), withKeys({&alice()}), true);
    }
}

TEST(UnsupportedRecipients, PasswordsWithoutADerivation) {
    expectUnsupported(underPassword({}), withPassword("secret"), "a key that is not derived from the password");
}

TEST(UnsupportedRecipients, PasswordsWithASaltFromElsewhere) {
    // PBKDF2-params (RFC 8018, A.2): otherSource instead of an OCTET STRING.
    const Bytes derivation = der::sequence({algorithm("1.2.3.8"), der::integer("0400"), algorithm("hmacWithSHA256")});
    expectUnsupported(underPassword(cmstest::context(0, der::concat({der::oid("1.2.840.113549.1.5.12"), derivation}))),
                      withPassword("secret"), "PBKDF2 with a salt of another source");
}

TEST(UnsupportedRecipients, PasswordParametersThatAreNoneAreDamage) {
    const Bytes pbkdf2 = der::oid("1.2.840.113549.1.5.12");
    const Bytes salt = der::octetString(Bytes(8, 1));
    const Bytes function = algorithm("hmacWithSHA256");
    for (const Bytes& parameters :
         {Bytes(), der::null(), der::sequence({salt}), der::sequence({salt, der::integer("0"), function}),
          der::sequence({salt, der::integer("-1"), function}),
          der::sequence(
              {salt, der::integer("0400"), der::integer("1f"), function}), // another key length than the cipher's
          der::sequence({salt, der::integer("0400"), der::integer("010000000000000020"), function})}) {
        expectDamaged(underPassword(cmstest::context(0, der::concat({pbkdf2, parameters}))), withPassword("secret"),
                      true);
    }
}
