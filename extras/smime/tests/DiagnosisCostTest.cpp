// What an explanation costs, to the octet and the verification, and what is said where a budget ends.
#include "Diagnosing.h"

#include <gmock/gmock.h>

#include <algorithm>

namespace {

using namespace diagnosing;
using testing::ElementsAre;
using testing::IsEmpty;

const std::string text = "Content-Type: text/plain\r\n\r\nDear Bob,\r\nall is well.\r\n";
const std::string changedText = replaced(text, "well", "lost");

std::string withLineFeeds(const std::string& body) {
    return replaced(body, "\r\n", "\n");
}
std::uint64_t linesOf(const std::string& body) {
    return static_cast<std::uint64_t>(std::count(body.begin(), body.end(), '\n'));
}

// The body goes into the digest of the signers and into those of the length that they say it has; then each of four tries, with the
// line ends as they are, all CR LF, all CR LF but for CR alone, and LF, into the first.
TEST(DiagnosisCost, TheOctetsOfTheFirstPassAreCounted) {
    const std::uint64_t lines = linesOf(text);
    const std::uint64_t octets = text.size();
    const auto digested = [](const Bytes& signature, const std::string& body) {
        const SMime::Diagnosis diagnosis = diagnosisOf(signature, body);
        EXPECT_EQ(4U, diagnosis.tries);
        EXPECT_EQ(1U, diagnosis.passes);
        return diagnosis.digested;
    };
    EXPECT_EQ(2 * octets + 3 * octets + (octets - lines), digested(signatureOver(text), text));
    const std::uint64_t fewer = octets - lines;
    EXPECT_EQ(2 * fewer + 2 * fewer + 2 * octets, digested(signatureOver(text), withLineFeeds(text)));
    const Bytes two =
        signedMessage({&identities().rsa, &identities().ec}, {"sha256", "sha512"}, bytesOf(text), CMS_DETACHED);
    EXPECT_EQ(4 * octets + 2 * (3 * octets + (octets - lines)), digested(two, text));
    // Without an attribute nobody says a digest.
    EXPECT_EQ(octets + 3 * octets + (octets - lines),
              digested(signatureOver(text, identities().rsa, "sha256", CMS_NOATTR), text));
}

// Other changes are tried with each way to write the line ends that the body shows.
TEST(DiagnosisCost, ChangesAreTriedWithTheLineEndsThatABodyShows) {
    const Bytes signature = signatureOver("another");
    const auto tries = [&](const std::string& body) {
        const SMime::Diagnosis diagnosis = diagnosisOf(signature, body);
        EXPECT_TRUE(diagnosis.explanations.empty());
        return std::pair(diagnosis.tries - 4, diagnosis.passes);
    };
    EXPECT_EQ(std::pair(std::size_t{0}, std::size_t{1}), tries("a\n")) << "it shows nothing else";
    EXPECT_EQ(std::pair(std::size_t{1}, std::size_t{2}), tries("a "));
    EXPECT_EQ(std::pair(std::size_t{2}, std::size_t{2}), tries("a \n")) << "as they are, CR LF";
    EXPECT_EQ(std::pair(std::size_t{2}, std::size_t{2}), tries("a \r\n")) << "as they are, LF";
    EXPECT_EQ(std::pair(std::size_t{3}, std::size_t{2}), tries("a \r\nb\n")) << "as they are, CR LF, LF";
    EXPECT_EQ(std::pair(std::size_t{3}, std::size_t{2}), tries("a \rb\n")) << "and CR LF but for the CR";
    EXPECT_EQ(std::pair(std::size_t{3}, std::size_t{2}), tries("a \rb\rc\n"));
    EXPECT_EQ(std::pair(std::size_t{3}, std::size_t{2}), tries("a \rb\r\n")) << "as they are, CR LF, LF";
    EXPECT_EQ(std::pair(std::size_t{2}, std::size_t{2}), tries("a \rb\r")) << "as they are, CR LF";
}

/// Has everything that changes are tried for, but for single lines: 67 of them, and line ends that are CR LF, and a CR.
std::string showingMuch() {
    const auto part = [](const std::string& set, const std::string& encoding, const std::string& octets) {
        return "--b1\r\nContent-Type: text/plain; charset=" + set + "\r\nContent-Transfer-Encoding: " + encoding +
               "\r\n\r\n" + octets + "\r\n";
    };
    return "Content-Type: multipart/mixed; boundary=b1\r\n\r\nin front\rof it\r\n" + part("utf-8", "base64", "QUJD") +
           part("iso-8859-1", "quoted-printable", "=3d=3D") + part("windows-1252", "8bit", "x") +
           part("iso-8859-15", "7bit", "x") + "--b1--\r\nbehind it\r\n";
}

// Each try keeps some kilobytes of a body: of a short one, which is soon read again, a hundred are made at a time.
TEST(DiagnosisCost, AShortBodyIsReadAgainForEachHundredTries) {
    const Bytes signature = signatureOver("another");
    const SMime::Diagnosis shorter = diagnosisOf(signature, showingMuch());
    EXPECT_EQ(4U + 3 * 67, shorter.tries);
    EXPECT_EQ(1U + 3, shorter.passes);
    const std::string longBody = showingMuch() + std::string(65537 - showingMuch().size(), 'x');
    const SMime::Diagnosis longer = diagnosisOf(signature, longBody);
    EXPECT_EQ(4U + 3 * 67, longer.tries);
    EXPECT_EQ(1U + 1, longer.passes);
    EXPECT_EQ(1U + 3, diagnosisOf(signature, longBody.substr(0, 65536)).passes);
}

// With signed attributes it is the digest that tells: they are verified once, and a body whose digest is theirs.
TEST(DiagnosisCost, SignedAttributesAreVerifiedOnce) {
    const Bytes signature = signatureOver(text);
    EXPECT_EQ(0U, diagnosisOf(signature, text).verifications);
    EXPECT_EQ(1U, diagnosisOf(signature, changedText).verifications);
    EXPECT_EQ(2U, diagnosisOf(signature, withLineFeeds(text)).verifications);
}

// Without them each question is a verification: with the certificate that is named twice, for it and for the body; then for each body
// that differs, the likeliest alone. Its end is asked about with a line end more and less, of tries of line ends alone.
TEST(DiagnosisCost, WithoutSignedAttributesFewBodiesAreVerified) {
    const auto verifications = [](const std::string& sent, const std::string& arrived) {
        const SMime::Diagnosis diagnosis =
            diagnosisOf(signatureOver(sent, identities().rsa, "sha256", CMS_NOATTR), arrived);
        return diagnosis.verifications;
    };
    EXPECT_EQ(2U + 2 + 2, verifications(text, withLineFeeds(text))) << "as it is, then CR LF with a line end less";
    EXPECT_EQ(2U + 2 + 3, verifications("x\r\n", "y\r\n")) << "as it is, LF";
    EXPECT_EQ(2U + 2 + 3, verifications("x\r\n", "y\r\n\r\n")) << "two line ends less are unlikely";
    EXPECT_EQ(2U + 2 + 3, verifications("x\r\n", "y\r\nz\r\n")) << "and so are lines";
    EXPECT_EQ(2U + 2 + 3 + 2, verifications("x\r\n", "y \r\n")) << "a line without its blank, as it is and with LF";
    EXPECT_EQ(2U + 1, verifications("x\r\n", "x")) << "as it is, with a line end more";
    EXPECT_EQ(2U + 1, verifications("x", "x\r\n"));
}

TEST(DiagnosisCost, WithoutSignedAttributesTheEndIsTriedWithOneLineEnd) {
    const auto changes = [](const std::string& sent, const std::string& arrived) {
        return namesOf(diagnosisOf(signatureOver(sent, identities().rsa, "sha256", CMS_NOATTR), arrived));
    };
    EXPECT_THAT(changes(text, text + "\r\n"), ElementsAre("last-line-end-added"));
    EXPECT_THAT(changes(text + "\r\n", text), ElementsAre("last-line-end-lost"));
    EXPECT_THAT(changes(text, withLineFeeds(text) + "\n"), ElementsAre("line-ends-lf", "last-line-end-added"));
    EXPECT_THAT(changes(text, text + "\r\n\r\n"), ElementsAre("0 explanations"));
    EXPECT_THAT(changes(text + "\r\n\r\n", text), ElementsAre("0 explanations"));
    EXPECT_THAT(changes(text, text + "footer\r\n"), ElementsAre("0 explanations"));
}

// What is not verified explains nothing.
TEST(DiagnosisCost, NoMoreIsVerifiedThanTheBudgetAllows) {
    const Bytes signature = signatureOver(text, identities().rsa, "sha256", CMS_NOATTR);
    for (std::size_t most = 0; most != 6; ++most) {
        SMime::DiagnosisOptions options;
        options.budget.verifications = most;
        const SMime::Diagnosis diagnosis = diagnosisOf(signature, withLineFeeds(text), options);
        EXPECT_THAT(diagnosis.explanations, IsEmpty()) << most;
        EXPECT_EQ(most, diagnosis.verifications);
        EXPECT_EQ("more than " + std::to_string(most) + " signatures would have had to be verified",
                  diagnosis.notLooked);
    }
    SMime::DiagnosisOptions options;
    options.budget.verifications = 6;
    const SMime::Diagnosis diagnosis = diagnosisOf(signature, withLineFeeds(text), options);
    EXPECT_THAT(namesOf(diagnosis), ElementsAre("line-ends-lf"));
    EXPECT_EQ("", diagnosis.notLooked);
}

TEST(DiagnosisCost, ABodyAndAStructureMayBeAsLongAsTheBudget) {
    const std::string arrived = withLineFeeds(text);
    const Bytes signature = signatureOver(text);
    SMime::DiagnosisOptions options;
    options.budget.body = arrived.size();
    options.budget.structure = signature.size();
    EXPECT_THAT(namesOf(diagnosisOf(signature, arrived, options)), ElementsAre("line-ends-lf"));
    options.budget.body = arrived.size() - 1;
    EXPECT_THAT(diagnosisOf(signature, arrived, options).explanations, IsEmpty());
    options.budget.body = arrived.size();
    options.budget.structure = signature.size() - 1;
    EXPECT_THAT(diagnosisOf(signature, arrived, options).explanations, IsEmpty());
}

// What was read of a longer one before is not taken for the body.
TEST(DiagnosisCost, NothingIsSaidOfTheBeginningOfABody) {
    std::string begin;
    while (begin.size() != 65536) {
        begin += std::string(63, 'x') + '\n';
    }
    SMime::DiagnosisOptions options;
    options.budget.body = 70000;
    const Bytes signature = signatureOver(replaced(begin, "\n", "\r\n"));
    EXPECT_THAT(namesOf(diagnosisOf(signature, begin, options)), ElementsAre("line-ends-lf"));
    const SMime::Diagnosis diagnosis = diagnosisOf(signature, begin + std::string(4465, 'y'), options);
    EXPECT_THAT(diagnosis.explanations, IsEmpty());
    EXPECT_EQ("the body has more than 70000 bytes: what may have happened to it was not tried", diagnosis.notLooked);
}

// 22 ways to write the header fields, with the line ends as they are and with LF.
TEST(DiagnosisCost, AsManyTriesAreMadeAsTheBudgetOfDigestsAllows) {
    const auto notLooked = [](const Bytes& signature, std::uint64_t digested) {
        SMime::DiagnosisOptions options;
        options.budget.digested = digested;
        const SMime::Diagnosis diagnosis = diagnosisOf(signature, changedText, options);
        return std::pair(diagnosis.tries - 4, diagnosis.notLooked);
    };
    const auto said = [](std::size_t left, std::uint64_t digested) {
        return std::pair(44 - left, std::to_string(left) +
                                        " of 44 further changes were not tried, which would take the digests of more "
                                        "than " +
                                        std::to_string(digested) + " bytes");
    };
    for (const std::size_t digests : {1U, 2U}) {
        const Bytes signature = digests == 1 ? signatureOver(text)
                                             : signedMessage({&identities().rsa, &identities().ec},
                                                             {"sha256", "sha512"}, bytesOf(text), CMS_DETACHED);
        SMime::DiagnosisOptions options;
        options.budget.digested = 1;
        const std::uint64_t before = diagnosisOf(signature, changedText, options).digested;
        const std::uint64_t three = before + 3 * digests * changedText.size();
        EXPECT_EQ(said(44, before), notLooked(signature, before));
        EXPECT_EQ(said(41, three), notLooked(signature, three));
        EXPECT_EQ(said(42, three - 1), notLooked(signature, three - 1));
        const std::uint64_t all = before + 44 * digests * changedText.size();
        EXPECT_EQ(std::pair(std::size_t{44}, std::string()), notLooked(signature, all));
    }
    SMime::DiagnosisOptions options;
    options.budget.digested = 1;
    const std::uint64_t before = diagnosisOf(signatureOver("x"), ".", options).digested;
    options.budget.digested = before + 1;
    EXPECT_EQ(5U, diagnosisOf(signatureOver("x"), ".", options).tries) << "a dot more, in front of the only octet";
}

} // namespace
