// What is read up to its limits, and no further.
#include "Mails.h"
#include "Multiparts.h"

using namespace smimetest;
using interop::alice;
using interop::bob;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

constexpr unsigned int wire = CMS_BINARY | CMS_CRLFEOL;
constexpr unsigned int detached = wire | CMS_DETACHED;

/// With the keys of bob.
Outcome readWithin(const SMime::ReadBudget& budget, const std::string& mail, bool listParts = false) {
    static const Keys keys({&bob()});
    SMime::ReadOptions options;
    options.keys = &keys;
    options.budget = budget;
    options.listParts = listParts;
    return outcomeOf(mail, options);
}

TEST(SMimeLimits, PartsAreLookedAtUpToTheBudget) {
    SMime::ReadBudget budget;
    budget.parts = 3;
    EXPECT_THAT(readWithin(budget, fieldsOfAlice + mixedOf(3)).answer.oddities, IsEmpty());
    const Outcome more = readWithin(budget, fieldsOfAlice + mixedOf(4));
    EXPECT_THAT(more.answer.oddities, ElementsAre("part 1: more than 3 parts; the others were not looked at"));
    ASSERT_THAT(pathsOf(more.answer.notCovered), ElementsAre("1.1", "1.2", "1.3", "1.4"));
    EXPECT_EQ(more.answer.notCovered.back().type, "and those behind it");

    // The two of a multipart/signed count, those behind them and those in the text.
    budget.parts = 5;
    const std::string mail = fieldsOfAlice + signedBy(alice(), mixedOf(3), detached);
    EXPECT_THAT(readWithin(budget, mail).answer.oddities, IsEmpty());
    budget.parts = 4;
    EXPECT_THAT(readWithin(budget, mail).answer.oddities, Contains(HasSubstr("more than 4 parts")));
    const std::string entity = signedBy(alice(), plainEntity, detached);
    const std::size_t at = entity.find("boundary=\"") + 10;
    const std::string boundary = "--" + entity.substr(at, entity.find('"', at) - at);
    const std::string behind =
        fieldsOfAlice +
        replaced(entity, boundary + "--", boundary + "\r\n\r\n3\r\n" + boundary + "\r\n\r\n4\r\n" + boundary + "--");
    const Outcome both = readWithin(budget, behind);
    ASSERT_THAT(pathsOf(both.answer.notCovered), ElementsAre("1.3", "1.4"));
    EXPECT_EQ(both.answer.notCovered.back().type, "text/plain");
    budget.parts = 3;
    const Outcome one = readWithin(budget, behind);
    ASSERT_THAT(pathsOf(one.answer.notCovered), ElementsAre("1.3", "1.4"));
    EXPECT_EQ(one.answer.notCovered.back().type, "and those behind it");
}

TEST(SMimeLimits, StructuresAreReadUpToTheBudget) {
    SMime::ReadBudget budget;
    budget.layers = 2;
    const std::string inner = encryptedFor({&bob()}, plainEntity);
    for (const std::string& two :
         {encryptedFor({&bob()}, inner), signedBy(alice(), inner, detached), signedBy(alice(), inner, wire)}) {
        budget.layers = 2;
        EXPECT_EQ(readWithin(budget, fieldsOfAlice + two).content, plainEntity);
        budget.layers = 1;
        const Outcome outcome = readWithin(budget, fieldsOfAlice + two);
        EXPECT_EQ(outcome.answer.verdict, Verdict::tooCostly);
        EXPECT_THAT(outcome.answer.detail, HasSubstr("more than 1 structures"));
        EXPECT_EQ(outcome.content, "");
    }
    budget.layers = 1;
    const std::string within = fieldsOfAlice + encryptedFor({&bob()}, signedBy(alice(), plainEntity, detached));
    const Outcome tooMany = readWithin(budget, within);
    EXPECT_EQ(tooMany.answer.verdict, Verdict::tooCostly);
    EXPECT_THAT(tooMany.answer.detail, HasSubstr("more than 1 structures"));
    budget.layers = 2;
    EXPECT_EQ(readWithin(budget, within).answer.verdict, Verdict::signatureGood);
}

// What cannot be read of the budget is that of the content all the same: there is no verdict without it.
TEST(SMimeLimits, AStructureBeyondTheBudgetIsThatOfTheContent) {
    SMime::ReadBudget budget;
    budget.layers = 0;
    for (const std::string& entity : {encryptedFor({&bob()}, plainEntity), signedBy(alice(), plainEntity, wire),
                                      signedBy(alice(), plainEntity, detached)}) {
        const Outcome outcome = readWithin(budget, fieldsOfAlice + entity);
        EXPECT_EQ(outcome.answer.verdict, Verdict::tooCostly);
        EXPECT_EQ(outcome.answer.detail, "part 1: more than 0 structures");
        ASSERT_EQ(outcome.answer.layers.size(), 1U);
        EXPECT_TRUE(outcome.answer.layers[0].coversContent);
        EXPECT_THAT(outcome.answer.notCovered, IsEmpty());
    }
}

TEST(SMimeLimits, EntitiesLieAsDeepAsTheBudgetAllows) {
    SMime::ReadBudget budget;
    const std::string forwarded = "Content-Type: message/rfc822\r\n\r\nFrom: bob@example.org\r\n\r\nhello\r\n";
    for (const std::string& entity : {mixedOf(1), forwarded}) {
        const std::string mail = fieldsOfAlice + signedBy(alice(), entity, detached);
        budget.depth = 2;
        const Outcome whole = readWithin(budget, mail);
        EXPECT_EQ(whole.answer.verdict, Verdict::signatureGood) << whole.answer.detail;
        EXPECT_THAT(whole.answer.oddities, IsEmpty());
        budget.depth = 1;
        const Outcome half = readWithin(budget, mail);
        EXPECT_EQ(half.answer.verdict, Verdict::signatureGood) << half.answer.detail;
        EXPECT_THAT(half.answer.oddities, ElementsAre(HasSubstr(" 1.1.1: ")));
        EXPECT_EQ(half.content, entity);
        budget.depth = 0;
        EXPECT_EQ(readWithin(budget, mail).answer.verdict, Verdict::tooCostly);
    }
}

TEST(SMimeLimits, HeadersAreAsLongAsTheBudgetAllows) {
    const std::string mail = fieldsOfAlice + signedBy(alice(), plainEntity, detached);
    const std::string header = mail.substr(0, mail.find("\r\n\r\n") + 4);
    SMime::ReadBudget octets;
    octets.headerOctets = header.size();
    EXPECT_EQ(readWithin(octets, mail).answer.verdict, Verdict::signatureGood);
    --octets.headerOctets;
    const Outcome tooLong = readWithin(octets, mail);
    EXPECT_EQ(tooLong.answer.verdict, Verdict::tooCostly);
    EXPECT_THAT(tooLong.answer.detail,
                HasSubstr("a header of more than " + std::to_string(header.size() - 1) + " bytes"));
    SMime::ReadBudget fields;
    fields.headerFields = 5;
    ASSERT_THAT(header, HasSubstr("\r\nMIME-Version: "));
    EXPECT_EQ(readWithin(fields, mail).answer.verdict, Verdict::signatureGood);
    fields.headerFields = 4;
    const Outcome tooMany = readWithin(fields, mail);
    EXPECT_EQ(tooMany.answer.verdict, Verdict::tooCostly);
    EXPECT_THAT(tooMany.answer.detail, HasSubstr("a header of more than 4 fields"));
}

TEST(SMimeLimits, PartsAreKeptUpToTheBudget) {
    const std::string mail = fieldsOfAlice + signedBy(alice(), plainEntity, detached);
    const Outcome listed = readWithin({}, mail, true);
    ASSERT_EQ(listed.answer.parts.size(), 2U);
    ASSERT_EQ(listed.answer.parts[1].type, "application/pkcs7-signature");
    SMime::ReadBudget budget;
    budget.spill = plainEntity.size() + listed.answer.parts[1].octets;
    EXPECT_EQ(readWithin(budget, mail).answer.verdict, Verdict::signatureGood);
    --budget.spill;
    const Outcome signature = readWithin(budget, mail);
    EXPECT_EQ(signature.answer.verdict, Verdict::tooCostly);
    EXPECT_THAT(signature.answer.detail, HasSubstr("the parts to be kept are longer than the budget allows"));
    budget.spill = plainEntity.size() - 1;
    const Outcome text = readWithin(budget, mail);
    EXPECT_EQ(text.answer.verdict, Verdict::tooCostly);
    EXPECT_THAT(text.answer.detail, HasSubstr("the parts to be kept are longer than the budget allows"));
}

TEST(SMimeLimits, BoundariesHaveTwoHundredOctets) {
    const auto mixed = [](const std::string& boundary) {
        return outcomeOf(fieldsOfAlice + "Content-Type: multipart/mixed; boundary=" + boundary + "\r\n\r\n--" +
                         boundary + "\r\n\r\nx\r\n--" + boundary + "--\r\n");
    };
    EXPECT_THAT(mixed(std::string(200, 'b')).answer.oddities, IsEmpty());
    const Outcome tooLong = mixed(std::string(201, 'b'));
    EXPECT_THAT(tooLong.answer.oddities, ElementsAre("part 1: a multipart with too long a boundary"));
    EXPECT_THAT(
        outcomeOf(fieldsOfAlice + "Content-Type: multipart/mixed\r\n\r\n--\r\n\r\nx\r\n----\r\n").answer.oddities,
        ElementsAre("part 1: a multipart without a boundary"));
    const std::string signedMixed = signedBy(alice(), plainEntity, detached);
    const std::size_t at = signedMixed.find("boundary=\"") + 10;
    const std::string boundary = signedMixed.substr(at, signedMixed.find('"', at) - at);
    for (const std::size_t length : {200U, 201U}) {
        std::string renamed = signedMixed;
        for (std::size_t found = renamed.find(boundary); found != std::string::npos;
             found = renamed.find(boundary, found + length))
            renamed.replace(found, boundary.size(), std::string(length, 'b'));
        const Answer answer = outcomeOf(fieldsOfAlice + renamed).answer;
        EXPECT_EQ(answer.verdict, length == 200 ? Verdict::signatureGood : Verdict::damaged);
        EXPECT_EQ(answer.layers.at(0).detail, length == 200 ? "" : "the boundary is missing or too long");
    }
}

// What is read twice lies in memory as long as it is short.
TEST(SMimeLimits, SixtyFourKilobytesAreKeptInMemory) {
    SMime::ReadOptions options;
    options.spillTemplate = "/nonexistent/fileXXXXXX";
    const std::string start = "Content-Type: text/plain\r\n\r\n";
    static const Keys keys({&bob()});
    options.keys = &keys;
    for (const std::size_t length : {65536U, 65537U}) {
        const std::string entity = start + std::string(length - start.size(), 'x');
        for (const std::string& part :
             {signedBy(alice(), entity, detached), encryptedFor({&bob()}, entity, EVP_aes_128_gcm())}) {
            const std::string mail = fieldsOfAlice + part;
            Norvane::MemoryMediaOut content;
            const auto read = [&] { return SMime::read(Norvane::MemoryMediaIn(mail), content, options); };
            if (length == 65536)
                EXPECT_THAT(read().verdict, testing::AnyOf(Verdict::signatureGood, Verdict::decrypted));
            else
                EXPECT_THROW(read(), Norvane::MediaException);
        }
    }
}

TEST(SMimeLimits, ThirtyTwoSignersAreJudged) {
    const auto material = std::make_shared<Norvane::Crypto::Trust::Material>();
    material->addAnchor(x509testing::read(interop::root()));
    const Norvane::Crypto::Trust::Verifier verifier(material);
    SMime::ReadOptions options;
    options.trust = &verifier;
    std::list<norvauthority::Identity> eleven;
    std::vector<const norvauthority::Identity*> signers;
    for (int number = 0; number != 11; ++number) {
        eleven.push_back(norvauthority::issue({.subject = {{"CN", "one of eleven"}},
                                               .key = alice().key,
                                               .issuer = &interop::root(),
                                               .serial = std::to_string(100 + number)}));
        signers.push_back(&eleven.back());
    }
    const std::string part = "--b\r\n" + signedBy(signers, plainEntity, detached) + "\r\n";
    const Outcome outcome = outcomeOf(fieldsOfAlice + "Content-Type: multipart/mixed; boundary=b\r\n\r\n" + part +
                                          part + part + "--b--\r\n",
                                      options);
    std::size_t judged = 0;
    for (const SMime::Layer& layer : outcome.answer.layers) {
        EXPECT_EQ(layer.signers.size(), 11U);
        for (const SMime::LayerSigner& signer : layer.signers) {
            EXPECT_EQ(signer.result.verdict, CMS::SignatureVerdict::good);
            judged += signer.trust ? 1 : 0;
        }
    }
    EXPECT_EQ(judged, 32U);
}

TEST(SMimeLimits, AHundredNamesOfFieldsOutsideAreTold) {
    const std::string entity = "X-Inside: 1\r\nContent-Type: text/plain; hp=\"clear\"\r\n\r\nhello\r\n";
    std::string outside;
    for (int number = 0; number != 101; ++number)
        outside += "X-" + std::to_string(number) + ": y\r\n";
    EXPECT_EQ(outcomeOf(outside + signedBy(alice(), entity, detached)).answer.headers.outsideOnly.size(), 100U);
}

TEST(SMimeLimits, FiftyOdditiesAreTold) {
    std::string mixed = "Content-Type: multipart/mixed; boundary=in\r\n\r\n";
    for (int number = 0; number != 60; ++number)
        mixed += "--in\r\nContent-Type: multipart/mixed\r\n\r\nx\r\n";
    EXPECT_EQ(outcomeOf(fieldsOfAlice + mixed + "--in--\r\n").answer.oddities.size(), 50U);
}

// The first signer is compared with all certificates that the caller has, however many; the others as long as few were.
TEST(SMimeLimits, ComparisonsOfSignersWithCertificates) {
    const std::string mail = fieldsOfAlice + signedBy({&alice(), &bob()}, plainEntity, detached | CMS_NOCERTS);
    const auto verdicts = [&](std::size_t certificates) {
        SMime::ReadOptions options;
        options.certificates.resize(certificates);
        options.certificates.front() = x509testing::read(alice());
        options.certificates.back() = x509testing::read(bob());
        std::vector<CMS::SignatureVerdict> found;
        const Outcome outcome = outcomeOf(mail, options);
        for (const SMime::LayerSigner& signer : outcome.answer.layers.at(0).signers)
            found.push_back(signer.result.verdict);
        return found;
    };
    constexpr auto good = CMS::SignatureVerdict::good;
    constexpr auto unsupported = CMS::SignatureVerdict::unsupported;
    EXPECT_THAT(verdicts(CMS::maximumComparisons / 2), ElementsAre(good, good));
    EXPECT_THAT(verdicts(CMS::maximumComparisons / 2 + 1), ElementsAre(good, unsupported));
    EXPECT_THAT(verdicts(CMS::maximumComparisons + 1), ElementsAre(good, unsupported));
}

} // namespace
