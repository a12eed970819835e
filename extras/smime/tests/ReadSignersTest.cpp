// Signers and their certificates: the caller's, those that only have the name, those that are missing, and what is explained.
#include "Mails.h"

using namespace smimetest;
using interop::alice;
using interop::bob;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

constexpr unsigned int opaque = CMS_BINARY | CMS_CRLFEOL;
constexpr unsigned int detached = opaque | CMS_DETACHED;
constexpr unsigned int bare = detached | CMS_NOCERTS;

const CMS::SignatureResult& resultOf(const Outcome& outcome, std::size_t signer = 0) {
    return outcome.answer.layers.at(0).signers.at(signer).result;
}

/// Bob's key under the issuer and serial number of alice's certificate.
NVX509::RefCertificate namedLikeAlice(int number) {
    return x509testing::read(norvauthority::issue({.subject = {{"CN", "alike " + std::to_string(number)}},
                                                   .key = bob().key,
                                                   .issuer = &interop::root(),
                                                   .serial = alice().serial}));
}

TEST(SMimeSigners, TheCallersCertificatesAreUsedWhereAMessageHasNone) {
    const std::string mail = fieldsOfAlice + signedBy(alice(), plainEntity, bare);
    EXPECT_EQ(resultOf(outcomeOf(mail)).reason, CMS::SignatureReason::certificateMissing);
    SMime::ReadOptions options;
    options.certificates = {x509testing::read(bob()), x509testing::read(alice())};
    const Outcome outcome = outcomeOf(mail, options);
    EXPECT_EQ(outcome.answer.verdict, Verdict::signatureGood) << outcome.answer.detail;
    EXPECT_TRUE(resultOf(outcome).certificate == x509testing::read(alice()));
    options.certificates = {x509testing::read(bob())};
    EXPECT_EQ(resultOf(outcomeOf(mail, options)).reason, CMS::SignatureReason::certificateMissing);
    // One that only has the name does not stand in the way of that in the message.
    options.certificates = {namedLikeAlice(1)};
    EXPECT_EQ(resultOf(outcomeOf(fieldsOfAlice + signedBy(alice(), plainEntity, detached), options)).verdict,
              CMS::SignatureVerdict::good);
}

TEST(SMimeSigners, ACertificateInTheMessageCountsForNothingWhereTheCallersAloneDo) {
    SMime::ReadOptions options;
    options.onlyTheseCertificates = true;
    options.certificates = {x509testing::read(alice())};
    EXPECT_EQ(outcomeOf(fieldsOfAlice + signedBy(alice(), plainEntity, detached), options).answer.verdict,
              Verdict::signatureGood);
    const Outcome others = outcomeOf(fieldsOfAlice + signedBy(bob(), plainEntity, detached), options);
    EXPECT_EQ(others.answer.verdict, Verdict::refused);
    EXPECT_EQ(resultOf(others).reason, CMS::SignatureReason::certificateMissing);
}

TEST(SMimeSigners, FourCertificatesThatOnlyHaveTheNameAreTried) {
    const std::string mail = fieldsOfAlice + signedBy(alice(), plainEntity, bare);
    SMime::ReadOptions options;
    for (int number = 1; number <= 3; ++number)
        options.certificates.push_back(namedLikeAlice(number));
    EXPECT_EQ(resultOf(outcomeOf(mail, options)).verdict, CMS::SignatureVerdict::refused);
    options.certificates.push_back(options.certificates.front()); // a copy counts once
    options.certificates.push_back(x509testing::read(alice()));
    EXPECT_EQ(resultOf(outcomeOf(mail, options)).verdict, CMS::SignatureVerdict::good);
    // Whether hers comes behind four others nobody knows: that is no refusal.
    options.certificates.insert(options.certificates.begin(), namedLikeAlice(4));
    EXPECT_EQ(resultOf(outcomeOf(mail, options)).verdict, CMS::SignatureVerdict::unsupported);
    EXPECT_EQ(resultOf(outcomeOf(mail, options)).reason, CMS::SignatureReason::tooManyCertificates);
}

TEST(SMimeSigners, ComparisonsWithTheCallersCertificatesAreBounded) {
    const std::string mail = fieldsOfAlice + signedBy({&alice(), &bob()}, plainEntity, bare);
    SMime::ReadOptions options;
    options.certificates.resize(CMS::maximumComparisons / 2 + 1);
    options.certificates.front() = x509testing::read(alice());
    options.certificates.back() = x509testing::read(bob());
    const Outcome outcome = outcomeOf(mail, options);
    EXPECT_EQ(resultOf(outcome, 0).verdict, CMS::SignatureVerdict::good);
    EXPECT_EQ(resultOf(outcome, 1).verdict, CMS::SignatureVerdict::unsupported);
    EXPECT_EQ(resultOf(outcome, 1).reason, CMS::SignatureReason::tooMuchWork);
}

TEST(SMimeSigners, WhyASignatureIsRefusedIsExplainedForTheFirst) {
    const std::string entity = signedBy(alice(), plainEntity, bare);
    const std::string changed = replaced(entity, "yours\r\n", "yours\r\n\r\n");
    SMime::ReadOptions options;
    options.certificates = {x509testing::read(alice())};
    EXPECT_FALSE(outcomeOf(fieldsOfAlice + changed, options).answer.layers.at(0).signers.at(0).explanation);
    options.explain = true;
    EXPECT_FALSE(outcomeOf(fieldsOfAlice + entity, options).answer.layers.at(0).signers.at(0).explanation);
    const Outcome outcome = outcomeOf(fieldsOfAlice + "Content-Type: multipart/mixed; boundary=two\r\n\r\n--two\r\n" +
                                          changed + "\r\n--two\r\n" + changed + "\r\n--two--\r\n",
                                      options);
    ASSERT_EQ(outcome.answer.layers.size(), 2U);
    const SMime::LayerSigner& first = outcome.answer.layers[0].signers.at(0);
    ASSERT_TRUE(first.explanation);
    EXPECT_EQ(first.explanation->findings.at(0).change, SMime::Change::lastLineEndAdded);
    EXPECT_EQ(first.result.verdict, CMS::SignatureVerdict::refused); // it changes no verdict
    EXPECT_EQ(outcome.answer.layers[1].status, LayerStatus::signatureWrong);
    EXPECT_FALSE(outcome.answer.layers[1].signers.at(0).explanation);
}

// A certificate of more than a megabyte: what is explained is no longer, and the verdict is the same.
TEST(SMimeSigners, WhyALongSignatureIsRefusedIsNotExplained) {
    const norvauthority::Identity large =
        norvauthority::issue({.subject = {{"CN", "large"}},
                              .key = alice().key,
                              .issuer = &interop::root(),
                              .extensions = {{.oid = "1.2.3.4", .value = norvauthority::Bytes(1100000, 0x00)}}});
    const std::string changed = replaced(signedBy(large, plainEntity, detached), "yours\r\n", "yours\r\n\r\n");
    SMime::ReadOptions options;
    options.explain = true;
    const Outcome outcome = outcomeOf(fieldsOfAlice + changed, options);
    EXPECT_EQ(outcome.answer.layers.at(0).status, LayerStatus::signatureWrong) << outcome.answer.detail;
    EXPECT_FALSE(outcome.answer.layers[0].signers.at(0).explanation);
}

/// A multipart/signed with another second part.
std::string withSignature(const std::string& fields, const std::string& body) {
    return fieldsOfAlice +
           "Content-Type: multipart/signed; protocol=\"application/pkcs7-signature\"; boundary=b\r\n\r\n--b\r\n" +
           plainEntity + "\r\n--b\r\nContent-Type: application/pkcs7-signature\r\n" + fields + "\r\n" + body +
           "\r\n--b--\r\n";
}

std::string base64Of(const std::string& entity) {
    return entity.substr(entity.find("\r\n\r\n") + 4);
}

const std::string inBase64 = "Content-Transfer-Encoding: base64\r\n";

// Whose text is shown? Another program takes the one within the signature.
TEST(SMimeSigners, ASignatureBesideATextThatCarriesAnotherIsDamaged) {
    const Outcome outcome = outcomeOf(withSignature(inBase64, base64Of(signedBy(alice(), plainEntity, opaque))));
    EXPECT_EQ(outcome.answer.layers.at(0).status, LayerStatus::damaged);
    EXPECT_THAT(outcome.answer.detail, HasSubstr("carries a content of its own"));
    EXPECT_EQ(outcome.answer.verdict, Verdict::damaged);
}

TEST(SMimeSigners, ASignatureByNobodyIsNotGood) {
    const std::unique_ptr<PKCS7, decltype(&PKCS7_free)> nobody(PKCS7_new(), PKCS7_free);
    PKCS7_set_type(nobody.get(), NID_pkcs7_signed);
    PKCS7_content_new(nobody.get(), NID_pkcs7_data);
    PKCS7_set_detached(nobody.get(), 1);
    unsigned char* encoded = nullptr;
    const int length = i2d_PKCS7(nobody.get(), &encoded);
    ASSERT_GT(length, 0);
    const std::string body(reinterpret_cast<const char*>(encoded), static_cast<std::size_t>(length));
    OPENSSL_free(encoded);
    const Outcome outcome = outcomeOf(withSignature("Content-Transfer-Encoding: binary\r\n", body));
    EXPECT_EQ(outcome.answer.layers.at(0).status, LayerStatus::signatureWrong);
    EXPECT_THAT(outcome.answer.detail, HasSubstr("the signature has no signer"));
    EXPECT_EQ(outcome.answer.verdict, Verdict::refused);
}

TEST(SMimeSigners, AHeaderOfTheSignatureBeyondTheBudget) {
    SMime::ReadOptions options;
    options.budget.headerFields = 10;
    std::string fields;
    for (int count = 0; count < 10; ++count)
        fields += "X: y\r\n";
    const Outcome outcome = outcomeOf(withSignature(fields, ""), options);
    EXPECT_EQ(outcome.answer.layers.at(0).status, LayerStatus::tooCostly);
    EXPECT_EQ(outcome.answer.verdict, Verdict::tooCostly);
    EXPECT_THAT(outcome.answer.detail, HasSubstr("the header of the part with the signature is too long"));
}

TEST(SMimeSigners, ASignatureThatIsTooLongToBeKept) {
    SMime::ReadOptions options;
    options.budget.spill = plainEntity.size() + 100;
    const Outcome outcome = outcomeOf(withSignature("", std::string(1000, 'x')), options);
    EXPECT_EQ(outcome.answer.verdict, Verdict::tooCostly);
    EXPECT_THAT(outcome.answer.detail, HasSubstr("the parts to be kept are longer than the budget allows"));
}

TEST(SMimeSigners, PartsBehindASignatureBeyondTheBudget) {
    SMime::ReadOptions options;
    options.budget.parts = 3;
    std::string mail = withSignature(inBase64, base64Of(signedBy(alice(), plainEntity, opaque)));
    std::string more;
    for (int count = 0; count < 9; ++count)
        more += "--b\r\n\r\nmore\r\n";
    const Outcome outcome = outcomeOf(replaced(mail, "--b--", more + "--b--"), options);
    ASSERT_FALSE(outcome.answer.notCovered.empty());
    EXPECT_LT(outcome.answer.notCovered.size(), 9U);
    EXPECT_EQ(outcome.answer.notCovered.back().type, "and those behind it");
}

// The signed part and its signature, where the budget counts one part.
TEST(SMimeSigners, ThePartsOfASignedMessageAreListedWithinTheBudget) {
    SMime::ReadOptions options;
    options.listParts = true;
    options.budget.parts = 1;
    const Outcome outcome = outcomeOf(fieldsOfAlice + signedBy(alice(), plainEntity, detached), options);
    EXPECT_EQ(outcome.answer.verdict, Verdict::signatureGood) << outcome.answer.detail;
    EXPECT_EQ(outcome.answer.parts.size(), 1U);
    EXPECT_THAT(outcome.answer.oddities, ElementsAre(HasSubstr("more than 1 parts that hold no others")));
}

TEST(SMimeSigners, AHundredRecipientsAreTold) {
    const std::vector<const Identity*> recipients(101, &bob());
    const Outcome outcome = outcomeOf(fieldsOfAlice + encryptedFor(recipients, plainEntity));
    EXPECT_EQ(outcome.answer.verdict, Verdict::decrypted) << outcome.answer.detail;
    EXPECT_EQ(outcome.answer.layers.at(0).recipients.size(), 100U);
}

TEST(SMimeSigners, AForwardedMessageWithAHeaderBeyondTheBudget) {
    SMime::ReadOptions options;
    options.budget.headerFields = 10;
    std::string fields;
    for (int count = 0; count < 11; ++count)
        fields += "X: y\r\n";
    const Outcome outcome =
        outcomeOf(fieldsOfAlice + "Content-Type: message/rfc822\r\n\r\n" + fields + "\r\n" + plainEntity, options);
    EXPECT_EQ(outcome.answer.verdict, Verdict::notSMime);
    EXPECT_THAT(outcome.answer.oddities, Contains(HasSubstr("a header of more than 10 fields")));
}

// RFC 9788, 2.2: a name, a colon, a value. What is not that announces nothing.
TEST(SMimeSigners, AnHpOuterWithoutAColonAnnouncesNothing) {
    const std::string entity = "Subject: inside\r\nHP-Outer: Subject\r\n" +
                               replaced(plainEntity, "charset=utf-8", "charset=utf-8; hp=\"cipher\"");
    const Outcome outcome = outcomeOf(fieldsOfAlice + encryptedFor({&bob()}, entity));
    ASSERT_EQ(outcome.answer.headers.fields.size(), 1U);
    EXPECT_EQ(outcome.answer.headers.fields[0].name, "Subject");
    EXPECT_EQ(outcome.answer.headers.fields[0].state, SMime::FieldState::differs);
}

TEST(SMimeSigners, FormsAndSchemesHaveNames) {
    EXPECT_STREQ(nameOf(SMime::SignedForm::asTheyStand), "as-they-stand");
    EXPECT_STREQ(nameOf(SMime::SignedForm::canonical), "canonical");
    EXPECT_STREQ(nameOf(SMime::HeaderScheme::none), "none");
    EXPECT_STREQ(nameOf(SMime::HeaderScheme::clear), "clear");
    EXPECT_STREQ(nameOf(SMime::HeaderScheme::cipher), "cipher");
    EXPECT_STREQ(nameOf(SMime::HeaderScheme::wrapped), "wrapped");
    EXPECT_STREQ(nameOf(SMime::HeaderScheme::parameter), "parameter");
}

TEST(SMimeSigners, NumbersBehindTheLastAreUnknown) {
    for (const int more : {1, 2, 1000}) {
        EXPECT_STREQ(nameOf(LayerKind{static_cast<int>(LayerKind::other) + more}), "unknown");
        EXPECT_STREQ(nameOf(LayerStatus{static_cast<int>(LayerStatus::tooCostly) + more}), "unknown");
        EXPECT_STREQ(nameOf(SMime::SignedForm{static_cast<int>(SMime::SignedForm::canonical) + more}), "unknown");
        EXPECT_STREQ(nameOf(SMime::HeaderScheme{static_cast<int>(SMime::HeaderScheme::parameter) + more}), "unknown");
        EXPECT_STREQ(nameOf(SMime::FieldState{static_cast<int>(SMime::FieldState::missing) + more}), "unknown");
        EXPECT_STREQ(nameOf(Verdict{static_cast<int>(Verdict::tooCostly) + more}), "unknown");
    }
}

} // namespace
