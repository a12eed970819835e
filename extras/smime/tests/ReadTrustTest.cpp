// Whom to believe, and whether that is the sender.
#include "Mails.h"

using namespace smimetest;
using interop::alice;
using interop::bob;
using testing::Contains;
using testing::ElementsAre;
namespace Trust = Norvane::Crypto::Trust;

namespace {

constexpr unsigned int detached = CMS_BINARY | CMS_CRLFEOL | CMS_DETACHED;

/// Judged by the root that issued everybody.
Outcome judged(const std::string& mail, const std::vector<std::string>& from = {}) {
    static const auto material = [] {
        auto made = std::make_shared<Trust::Material>();
        made->addAnchor(x509testing::read(interop::root()));
        return made;
    }();
    static const Trust::Verifier verifier(material);
    static const Keys keys({&bob()});
    SMime::ReadOptions options;
    options.keys = &keys;
    options.trust = &verifier;
    options.from = from;
    return outcomeOf(mail, options);
}

std::string signedMail(const std::string& from, const std::string& entity = plainEntity) {
    return from + "\r\nSubject: x\r\n" + signedBy(alice(), entity, detached);
}

TEST(SMimeTrust, SignedByItsSenderWhoIsTrusted) {
    const Outcome outcome = judged(signedMail("From: \"Alice, A.\" <alice@EXAMPLE.org>"));
    EXPECT_EQ(outcome.answer.verdict, Verdict::accepted) << outcome.answer.detail;
    ASSERT_EQ(outcome.answer.layers.size(), 1U);
    const SMime::LayerSigner& signer = outcome.answer.layers[0].signers.at(0);
    EXPECT_TRUE(signer.isAccepted());
    EXPECT_EQ(signer.trust->chain.size(), 2U);
    EXPECT_EQ(signer.sender->relation, Trust::SenderRelation::from);
}

TEST(SMimeTrust, NobodyIsTrustedWithoutAnchors) {
    const Trust::Verifier verifier(std::make_shared<Trust::Material>());
    SMime::ReadOptions options;
    options.trust = &verifier;
    const Outcome outcome = outcomeOf(signedMail("From: alice@example.org"), options);
    EXPECT_EQ(outcome.answer.verdict, Verdict::refused);
    const SMime::LayerSigner& signer = outcome.answer.layers.at(0).signers.at(0);
    EXPECT_EQ(signer.result.verdict, CMS::SignatureVerdict::good);
    EXPECT_TRUE(signer.trust->has(Trust::ReasonCode::issuerMissing));
    EXPECT_EQ(outcome.answer.detail, signer.trust->reasons.front().text);
}

TEST(SMimeTrust, AnotherSenderIsRefused) {
    for (const std::string& from :
         {std::string("From: mallory@example.org"), std::string("From: alice@example.org\r\nfrom: mallory@example.org"),
          std::string("From: alice@example.org, mallory@example.org"), std::string("X: y"),
          std::string("From: alice@example.org@example.net"),
          std::string("From: \"alice@example.org\" <m@example.org>"),
          std::string("From: =?utf-8?q?alice=40example=2Eorg?= <m@example.org>"),
          std::string("From: m@example.org\r\nSender: alice@example.org")}) {
        const Outcome outcome = judged(signedMail(from));
        EXPECT_EQ(outcome.answer.verdict, Verdict::refused) << from;
        EXPECT_TRUE(outcome.answer.layers.at(0).signers.at(0).trust->accepted);
        EXPECT_FALSE(outcome.answer.layers[0].signers[0].sender->matches()) << from;
    }
    EXPECT_EQ(judged(signedMail("From: m@example.org"), {"alice@example.org"}).answer.verdict, Verdict::accepted);
}

// Some readers show the one whom the library for addresses leaves out.
TEST(SMimeTrust, AFromThatCannotBeReadToItsEndIsNobodys) {
    const std::string nul(1, '\0');
    for (const std::string& from : {"alice@example.org" + nul + " <boss@example.org>",
                                    std::string("alice@example.org\r\nFrom: boss@example.org@example.net"),
                                    "alice@example.org\r\nFrom: boss@example.org" + nul,
                                    std::string("alice@example.org; boss@example.org"),
                                    std::string("boss@example.org (, alice@example.org"),
                                    std::string("boss@example.org <, alice@example.org"),
                                    std::string("alice@example.org\" , boss@example.org"),
                                    std::string("alice@example.org [boss@example.org]"),
                                    std::string("alice@example.org ] <boss@example.org>"),
                                    std::string("alice@example.org [ <boss@example.org>"),
                                    std::string("alice@example.org) <boss@example.org>"),
                                    std::string("\"alice\"@example.org \\ <boss@example.org>"),
                                    std::string("alice@example.org[x] <boss@example.org>"),
                                    std::string("alice@example.org \f <boss@example.org>"),
                                    std::string("boss@example.org <alice@example.org>"),
                                    std::string("alice@example.org\f.example.net"),
                                    std::string("alice@example.org\x01m"),
                                    std::string("alice@example.org\v m"),
                                    std::string("alice@example.org\x7fm"),
                                    "alice@example.org\r\nFrom: " + std::string(101, ':') + " boss@example.org"}) {
        const Outcome outcome = judged(signedMail("From: " + from));
        EXPECT_EQ(outcome.answer.verdict, Verdict::refused) << from;
        EXPECT_TRUE(outcome.answer.layers.at(0).signers.at(0).trust->accepted);
    }
    for (const char* const from :
         {"Alice <alice@example.org>", "alice@example.org <alice@example.org>",
          "'Alice@Example.org' <alice@example.org>", "(c (d)) alice@example.org (e@f)",
          "\"A, \\\"@; (\" <alice@example.org>", "Doe, Alice <alice@example.org>", "Alice\t<alice@example.org>",
          "alice@example.org,", "Authors: alice@example.org;", "=?utf-8?q?a=40b=2C?= <alice@example.org>"})
        EXPECT_EQ(judged(signedMail(std::string("From: ") + from)).answer.verdict, Verdict::accepted) << from;
}

/// Mails of RFC 6532 have their addresses in UTF-8, certificates have domains as A-labels.
TEST(SMimeTrust, InternationalSenders) {
    const auto utf8Mailbox = norvauthority::GeneralName::otherName(
        "1.3.6.1.5.5.7.8.9",
        norvauthority::der::element(0x0C, norvauthority::bytes("\u00e4nna@xn--bcher-kva.example")));
    const Identity both = norvauthority::issue(
        {.subject = {{"CN", "both"}},
         .key = norvauthority::Key::ec(),
         .issuer = &interop::root(),
         .serial = "99",
         .keyUsage = 0x80,
         .alternativeNames = {norvauthority::GeneralName::email("anna@xn--bcher-kva.example"), utf8Mailbox}});
    const auto verdictOf = [&](const std::string& from) {
        return judged("From: " + from + "\r\n" + signedBy(both, plainEntity, detached)).answer.verdict;
    };
    for (const char* const from :
         {"anna@xn--bcher-kva.example", "Anna <anna@b\u00fccher.example>", "<anna@B\u00dcCHER.example>",
          "\u00e4nna@b\u00fccher.example", "\u00c4. <\u00e4nna@XN--bcher-kva.example>",
          "anna@b\u00fccher.example, \u00e4nna@b\u00fccher.example", "\"anna\"@b\u00fccher.example",
          "g\u00e4ste: anna@b\u00fccher.example, \"x, y\" <\u00e4nna@b\u00fccher.example>;"})
        EXPECT_EQ(verdictOf(from), Verdict::accepted) << from;
    for (const char* const from : {"\u00c4nna@b\u00fccher.example", "anna@bucher.example", "Anna@b\u00fccher.example",
                                   "anna@b\u00fccher.example, eve@b\u00fccher.example", "anna@b\374cher.example"})
        EXPECT_EQ(verdictOf(from), Verdict::refused) << from;
}

// Some readers leave blanks and NUL bytes out, and end lines at a CR.
TEST(SMimeTrust, ALineThatOthersTakeForAFromIsNobodys) {
    const std::string nul(1, '\0');
    for (const std::string& line :
         {std::string(" From: boss@example.org\r\n"), "Fro" + nul + "m: boss@example.org\r\n",
          std::string("X: y\rFrom: boss@example.org\r\n"), std::string("X: y\rZ: \rfrom : boss@example.org\r\n")}) {
        const Outcome outcome = judged(signedMail(line + "From: alice@example.org"));
        const bool isField = line.starts_with("X: ");
        EXPECT_EQ(outcome.answer.verdict, isField ? Verdict::refused : Verdict::damaged) << line;
        EXPECT_THAT(outcome.answer.from, Contains("not readable: a line that others may take for a From")) << line;
    }
    for (const char* const line : {"From alice@example.org Sun Nov 22 11:07:48 2026\r\n", "X: y\r\n From: folded\r\n"})
        EXPECT_EQ(judged(signedMail(line + std::string("From: alice@example.org"))).answer.verdict, Verdict::accepted);
}

// Who signs around what the sender signed speaks for himself alone, and so does who encrypts it.
TEST(SMimeTrust, APartThatTheSenderDidNotSignIsNotCoveredByAnotherOnesSignature) {
    const std::string entity = signedBy(alice(), plainEntity, detached);
    const std::size_t at = entity.find("boundary=\"") + 10;
    const std::string boundary = "--" + entity.substr(at, entity.find('"', at) - at);
    const std::string more = replaced(entity, boundary + "--", boundary + "\r\n\r\nmore\r\n" + boundary + "--");
    const std::string from = "From: alice@example.org\r\n";
    const Outcome outcome = judged(from + signedBy(bob(), more, CMS_BINARY));
    EXPECT_EQ(outcome.answer.verdict, Verdict::accepted) << outcome.answer.detail;
    EXPECT_EQ(outcome.content, plainEntity);
    EXPECT_THAT(pathsOf(outcome.answer.notCovered), ElementsAre("1.1.3"));
    EXPECT_THAT(pathsOf(judged(from + encryptedFor({&bob()}, more)).answer.notCovered), ElementsAre("1.1.3"));
    EXPECT_THAT(judged(from + signedBy(alice(), more, CMS_BINARY)).answer.notCovered, testing::IsEmpty());
    const std::string twice = replaced(entity, "\r\n\r\n", "\r\nContent-Type: text/html\r\n\r\n");
    EXPECT_EQ(judged(from + signedBy(bob(), twice, CMS_BINARY)).answer.verdict, Verdict::damaged);
    EXPECT_EQ(judged(from + signedBy(alice(), twice, CMS_BINARY)).answer.verdict, Verdict::accepted);
}

// Editors put it in front of a file. What is behind it is a field like any other.
TEST(SMimeTrust, AByteOrderMarkHidesNoFrom) {
    const std::string mark = "\xEF\xBB\xBF";
    const Outcome saved = judged(mark + signedMail("From: alice@example.org"));
    EXPECT_EQ(saved.answer.verdict, Verdict::accepted) << saved.answer.detail;
    EXPECT_THAT(saved.answer.oddities, ElementsAre("part 1: a byte order mark in front of the message"));
    const Outcome hidden = judged(mark + signedMail("From: boss@example.org\r\nFrom: alice@example.org"));
    EXPECT_EQ(hidden.answer.verdict, Verdict::refused);
    EXPECT_THAT(hidden.answer.from, ElementsAre("boss@example.org", "alice@example.org"));
}

// Whoever reads the content as a message is shown this From.
TEST(SMimeTrust, AFromThatIsHandedOnIsTheSignersWhetherDeclaredOrNot) {
    const std::string boss = "From: boss@example.org\r\nContent-Type: text/plain\r\n\r\nhello\r\n";
    EXPECT_EQ(judged(signedMail("From: alice@example.org", boss)).answer.verdict, Verdict::refused);
    const std::string own = "From: alice@example.org\r\nContent-Type: text/plain\r\n\r\nhello\r\n";
    EXPECT_EQ(judged(signedMail("From: alice@example.org", own)).answer.verdict, Verdict::accepted);
}

// What a mail client shows is the one From or the other.
TEST(SMimeTrust, TheSignerIsBothTheSenderOutsideAndTheOneThatIsCovered) {
    const std::string inside = "From: alice@example.org\r\nContent-Type: text/plain; hp=\"clear\"\r\n\r\nhello\r\n";
    EXPECT_EQ(judged(signedMail("From: alice@example.org", inside)).answer.verdict, Verdict::accepted);
    const Outcome outcome = judged(signedMail("From: boss@example.org", inside));
    EXPECT_EQ(outcome.answer.verdict, Verdict::refused);
    EXPECT_THAT(outcome.answer.from, ElementsAre("boss@example.org", "alice@example.org"));
    const std::string other = "From: boss@example.org\r\nContent-Type: text/plain; hp=\"clear\"\r\n\r\nhello\r\n";
    EXPECT_EQ(judged(signedMail("From: alice@example.org", other)).answer.verdict, Verdict::refused);
}

// Readers that take the message out of a layer show the header of that message, whatever lies within it.
TEST(SMimeTrust, TheSignerIsTheSenderOfEachMessageOnTheWayToTheContent) {
    const std::string inner = signedBy(alice(), plainEntity, detached);
    for (const char* const type : {"message/rfc822; forwarded=no", "message/global; forwarded=no"}) {
        const std::string wrapping = std::string("Content-Type: ") + type + "\r\n\r\n";
        for (const std::string& mail :
             {signedMail("From: alice@example.org", wrapping + "From: boss@example.org\r\n" + inner),
              fieldsOfAlice + encryptedFor({&bob()}, wrapping + "From: boss@example.org\r\n" + inner),
              fieldsOfAlice + encryptedFor({&bob()}, "From: boss@example.org\r\n" + inner)}) {
            const Outcome outcome = judged(mail);
            EXPECT_EQ(outcome.answer.verdict, Verdict::refused) << mail.substr(0, 100);
            EXPECT_THAT(outcome.answer.from, ElementsAre("alice@example.org", "boss@example.org"));
            for (const SMime::LayerSigner& signer : outcome.answer.layers.back().signers)
                EXPECT_EQ(signer.sender->relation, Trust::SenderRelation::none);
        }
        const std::string own = wrapping + "From: alice@example.org\r\n" + inner;
        EXPECT_EQ(judged(signedMail("From: alice@example.org", own)).answer.verdict, Verdict::accepted);
    }
}

// A From that the caller names stands in the place of the one outside; one that is covered is shown all the same.
TEST(SMimeTrust, AnAddressOfTheCallersHidesNoFromThatIsCovered) {
    const std::string boss = "From: boss@example.org\r\nContent-Type: text/plain; hp=\"clear\"\r\n\r\nhello\r\n";
    const Outcome outcome = judged(signedMail("From: m@example.org", boss), {"alice@example.org"});
    EXPECT_EQ(outcome.answer.verdict, Verdict::refused);
    EXPECT_THAT(outcome.answer.from, ElementsAre("alice@example.org", "boss@example.org"));
    const std::string own = "From: alice@example.org\r\nContent-Type: text/plain; hp=\"clear\"\r\n\r\nhello\r\n";
    EXPECT_EQ(judged(signedMail("From: m@example.org", own), {"alice@example.org"}).answer.verdict, Verdict::accepted);
}

TEST(SMimeTrust, OneOfTheLayersIsTheSenders) {
    const std::string inner = signedBy(alice(), plainEntity, detached);
    const std::string gateway = fieldsOfAlice + signedBy(bob(), encryptedFor({&bob()}, inner), detached);
    EXPECT_EQ(judged(gateway).answer.verdict, Verdict::accepted);
    const std::string nobody = fieldsOfAlice + signedBy(bob(), plainEntity, detached);
    EXPECT_EQ(judged(nobody).answer.verdict, Verdict::refused);
}

TEST(SMimeTrust, AForwardedMessageIsComparedWithItsOwnSender) {
    const std::string entity = "Content-Type: multipart/mixed; boundary=f\r\n\r\n--f\r\n"
                               "Content-Type: message/rfc822\r\n\r\nFrom: bob@example.org\r\n" +
                               signedBy(bob(), plainEntity, detached) + "\r\n--f--\r\n";
    const Outcome outcome = judged(signedMail("From: alice@example.org", entity));
    EXPECT_EQ(outcome.answer.verdict, Verdict::accepted) << outcome.answer.detail;
    ASSERT_EQ(outcome.answer.layers.size(), 3U);
    EXPECT_TRUE(outcome.answer.layers[2].signers.at(0).isAccepted());
    // A trusted signature within an attachment says nothing about the message.
    const Outcome bare = judged("From: bob@example.org\r\n" + entity);
    EXPECT_EQ(bare.answer.verdict, Verdict::notSMime);
}

// Fourteen parts, each signed by three people: thirty-two chains are built.
TEST(SMimeTrust, SignersWhoseCertificatesAreJudgedAreBounded) {
    const auto material = std::make_shared<Trust::Material>();
    material->addAnchor(x509testing::read(interop::root()));
    const Trust::Verifier verifier(material);
    SMime::ReadOptions options;
    options.trust = &verifier;
    const std::string part = signedBy({&alice(), &bob(), &interop::carol()}, plainEntity, detached);
    std::string mail = fieldsOfAlice + "Content-Type: multipart/mixed; boundary=many\r\n";
    for (int count = 0; count < 14; ++count)
        mail += "\r\n--many\r\n" + part;
    const Outcome outcome = outcomeOf(mail + "\r\n--many--\r\n", options);
    EXPECT_EQ(outcome.answer.verdict, Verdict::accepted) << outcome.answer.detail;
    EXPECT_EQ(outcome.answer.layers.size(), 14U);
    EXPECT_EQ(verifier.cacheCounts().hits + verifier.cacheCounts().misses, 32U);
    EXPECT_FALSE(outcome.answer.layers.back().signers.at(0).trust);
    EXPECT_EQ(outcome.answer.layers.back().status, LayerStatus::good);
}

// What is inside of a structure is read, and judged, before the signature that stands behind it; whose certificate is not judged is
// not believed.
TEST(SMimeTrust, WhoSignsAroundTooManyOthersIsNotJudged) {
    const auto around = [](int others) {
        const std::string part = signedBy({&alice(), &bob(), &interop::carol()}, plainEntity, detached);
        std::string many = "Content-Type: multipart/mixed; boundary=many\r\n";
        for (int count = 0; count < others; ++count)
            many += "\r\n--many\r\n" + part;
        return judged("From: alice@example.org\r\n" +
                      signedBy(alice(), many + "\r\n--many--\r\n", CMS_BINARY | CMS_CRLFEOL));
    };
    EXPECT_EQ(around(10).answer.verdict, Verdict::accepted);
    const Outcome outcome = around(11);
    EXPECT_EQ(outcome.answer.verdict, Verdict::refused);
    EXPECT_EQ(outcome.answer.detail, "no signer was judged");
    const SMime::LayerSigner& outside = outcome.answer.layers.at(0).signers.at(0);
    EXPECT_EQ(outside.result.verdict, CMS::SignatureVerdict::good);
    EXPECT_FALSE(outside.trust);
    EXPECT_FALSE(outside.isAccepted());
}

/// Signed when the signer says so.
std::string signedAt(const std::string& time, const Identity& signer) {
    const unsigned int flags = detached | CMS_PARTIAL | CMS_STREAM;
    const Structure structure(CMS_sign(nullptr, nullptr, nullptr, nullptr, flags));
    CMS_SignerInfo* const one =
        CMS_add1_signer(structure.get(), signer.certificate.x509().get(), signer.key.get(), EVP_sha256(), flags);
    const std::unique_ptr<ASN1_TIME, decltype(&ASN1_TIME_free)> moment(ASN1_TIME_new(), &ASN1_TIME_free);
    EXPECT_EQ(ASN1_TIME_set_string(moment.get(), time.c_str()), 1) << time;
    EXPECT_EQ(CMS_signed_add1_attr_by_NID(one, NID_pkcs9_signingTime, moment->type, moment.get(), -1), 1);
    const Bio out(BIO_new(BIO_s_mem()));
    const Bio content = sourceOf(plainEntity);
    EXPECT_EQ(SMIME_write_CMS(out.get(), structure.get(), content.get(), static_cast<int>(flags)), 1);
    ERR_clear_error();
    return "From: old@example.org\r\n" + textOf(out.get());
}

/// By now, or by the time that the signer states, when that is asked for.
TEST(SMimeTrust, TheSigningTimeIsTheMomentWhenAskedFor) {
    using norvauthority::Time;
    const Identity root = norvauthority::issue({.subject = {{"CN", "Old Root"}},
                                                .key = norvauthority::Key::ec(),
                                                .notBefore = Time::utc("100101000000Z"),
                                                .ca = true,
                                                .keyUsage = 0x06});
    const Identity old =
        norvauthority::issue({.subject = {{"CN", "old"}},
                              .key = norvauthority::Key::ec(),
                              .issuer = &root,
                              .serial = "5",
                              .notBefore = Time::utc("200101000000Z"),
                              .notAfter = Time::utc("210101000000Z"),
                              .keyUsage = 0x80,
                              .alternativeNames = {norvauthority::GeneralName::email("old@example.org")}});
    const auto material = std::make_shared<Trust::Material>();
    material->addAnchor(x509testing::read(root));
    const Trust::Verifier verifier(material);
    SMime::ReadOptions options;
    options.trust = &verifier;
    const auto read = [&](const std::string& time) { return outcomeOf(signedAt(time, old), options).answer; };
    EXPECT_EQ(read("20200701000000Z").verdict, Verdict::refused) << "now";
    options.trustOptions.atSigningTime = true;
    const Answer then = read("20200701000000Z");
    EXPECT_EQ(then.verdict, Verdict::accepted) << then.detail;
    EXPECT_EQ(then.layers.at(0).signers.at(0).trust->judgedAt, 1593561600); // 2020-07-01
    EXPECT_TRUE(read("20220701000000Z").layers.at(0).signers.at(0).trust->has(Trust::ReasonCode::certificateExpired));
    for (const char* const strange : {"00000101000000Z", "99991231235959Z"}) // a stranger chooses it
        EXPECT_EQ(read(strange).verdict, Verdict::refused) << strange;
}

TEST(SMimeTrust, AMisusedPolicyIsTheCallersFailure) {
    const Trust::Verifier verifier(std::make_shared<Trust::Material>());
    SMime::ReadOptions options;
    options.trust = &verifier;
    options.trustOptions.policies = {"no identifier"};
    Norvane::MediaOut nowhere = Norvane::NullMediaOut();
    EXPECT_THROW(SMime::read(Norvane::MemoryMediaIn(signedMail("From: alice@example.org")), nowhere, options),
                 Norvane::Exception);
}

} // namespace
