#include "Diagnosing.h"

#include <gmock/gmock.h>

namespace {

using namespace diagnosing;
using testing::ElementsAre;
using testing::HasSubstr;

const std::string text = "Content-Type: text/plain; charset=us-ascii\r\n\r\nDear Bob,\r\n\r\nall is well.\r\n";
const std::string parts = "Content-Type: multipart/mixed; boundary=\"b1\"\r\n"
                          "\r\n"
                          "--b1\r\n"
                          "Content-Type: text/plain\r\n"
                          "\r\n"
                          "Dear Bob\r\n"
                          "--b1\r\n"
                          "Content-Type: application/octet-stream\r\n"
                          "Content-Transfer-Encoding: base64\r\n"
                          "\r\n"
                          "QUJDREVGR0hJSktMTU5PUFFSU1RVVldYWVphYmNkZWZnaGlqa2xtbm9wcXJzdHV2d3h5ejAxMjM0\r\n"
                          "NTY3ODkrLw==\r\n"
                          "--b1--\r\n";

TEST(Diagnosis, NothingIsExplainedOfAGoodSignature) {
    const SMime::Diagnosis diagnosis = diagnosisOf(signatureOver(text), text);
    EXPECT_TRUE(diagnosis.explanations.empty());
    EXPECT_EQ("", diagnosis.notLooked);
    EXPECT_EQ(1U, diagnosis.passes);
}

TEST(Diagnosis, ATextThatWasReallyChangedHasNoExplanation) {
    for (const char* const changed : {"Dear Rob,", "Dear Bob ,", "dear Bob,", "Dear  Bob,", ""}) {
        const SMime::Diagnosis diagnosis = diagnosisOf(signatureOver(text), replaced(text, "Dear Bob,", changed));
        EXPECT_TRUE(diagnosis.explanations.empty()) << changed;
        EXPECT_EQ("", diagnosis.notLooked);
    }
}

TEST(Diagnosis, LineFeedsForCarriageReturnsAndLineFeeds) {
    const SMime::Diagnosis diagnosis = diagnosisOf(signatureOver(text), replaced(text, "\r\n", "\n"));
    EXPECT_EQ(Names{"line-ends-lf"}, namesOf(diagnosis));
    EXPECT_EQ("the signed text ended its lines with CR LF; a relay made LF of it",
              diagnosis.explanations.at(0).findings.at(0).text);
    EXPECT_EQ(SMime::Change::lineEndsMadeLf, diagnosis.explanations.at(0).findings.at(0).change);
    EXPECT_EQ(1U, diagnosis.passes);
    EXPECT_EQ(0U, diagnosis.explanations.at(0).signer);
    EXPECT_TRUE(certificateOf(identities().rsa) == diagnosis.explanations.at(0).certificate);
}

TEST(Diagnosis, LineEndsThatAreMixed) {
    const SMime::Diagnosis diagnosis = diagnosisOf(signatureOver(text), replaced(text, ",\r\n", ",\n"));
    EXPECT_EQ(Names{"line-ends-lf"}, namesOf(diagnosis));
    EXPECT_EQ("the signed text ended its lines with CR LF; a relay made LF of 1 of 5",
              diagnosis.explanations.at(0).findings.at(0).text);
}

TEST(Diagnosis, OtherLineEnds) {
    const std::string lineFeeds = replaced(text, "\r\n", "\n");
    EXPECT_EQ(Names{"line-ends-crlf"}, changesBetween(lineFeeds, text));
    EXPECT_EQ(Names{"line-ends-cr"}, changesBetween(text, replaced(text, "\r\n", "\r")));
    EXPECT_EQ(Names{"carriage-returns-doubled"}, changesBetween(text, replaced(text, "\r\n", "\r\r\n")));
    // A CR that is no line end stays.
    EXPECT_EQ(Names{"line-ends-lf"}, changesBetween("50 %\r60 %\r\ndone\r\n", "50 %\r60 %\ndone\n"));
    EXPECT_THAT(changesBetween("a\r\nb\r\nc\r\n", "a\nb\rc\r\n"), ElementsAre("line-ends-lf", "line-ends-cr"));
}

TEST(Diagnosis, TheEndOfTheBody) {
    const std::string bare = text.substr(0, text.size() - 2);
    EXPECT_EQ(Names{"last-line-end-lost"}, changesBetween(text, bare));
    EXPECT_EQ(Names{"last-line-end-added"}, changesBetween(bare, text));
    EXPECT_EQ(Names{"last-line-end-lost"}, changesBetween(text + "\r\n\r\n", text));
    EXPECT_EQ(Names{"last-line-end-added"}, changesBetween(text, text + "\r\n\r\n\r\n\r\n\r\n"));
    EXPECT_THAT(changesBetween(text, replaced(bare, "\r\n", "\n")), ElementsAre("line-ends-lf", "last-line-end-lost"));
    EXPECT_THAT(changesBetween(replaced(bare, "\r\n", "\n"), text),
                ElementsAre("line-ends-crlf", "last-line-end-added"));
    EXPECT_EQ(Names{"last-line-end-added"}, changesBetween("no line end", "no line end\n"));
    EXPECT_EQ(Names{"last-line-end-lost"}, changesBetween("a\nb\n", "a\nb"));
    EXPECT_EQ(Names{"last-line-end-added"}, changesBetween("", "\r\n"));
}

TEST(Diagnosis, AFooterIsTold) {
    const std::string footer = "_______________\r\nAll Staff mailing list\r\nhttp://lists.example.org/all\r\n";
    const SMime::Diagnosis diagnosis = diagnosisOf(signatureOver(text), text + footer);
    EXPECT_EQ(Names{"footer-at-end"}, namesOf(diagnosis));
    EXPECT_EQ("the signed text ended before the last 3 lines (71 bytes), which were added on the way",
              diagnosis.explanations.at(0).findings.at(0).text);
    EXPECT_THAT(diagnosis.explanations.at(0).findings.at(0).advice, HasSubstr("nobody signed what was added"));
    const std::string lineFeeds = replaced(text + footer, "\r\n", "\n");
    EXPECT_THAT(changesBetween(text, lineFeeds), ElementsAre("line-ends-lf", "footer-at-end"));
    EXPECT_EQ(Names{"footer-at-end"}, changesBetween("last line", "last line\n-- \nfooter\n"));
    // As many lines as are looked at, and one more.
    EXPECT_EQ(Names{"footer-at-end"}, changesBetween(text, text + replaced(std::string(62, '.'), ".", "+\r\n")));
    EXPECT_EQ(Names{"0 explanations"}, changesBetween(text, text + replaced(std::string(65, '.'), ".", "+\r\n")));
}

TEST(Diagnosis, WhatIsAroundTheParts) {
    EXPECT_EQ(Names{"footer-after-last-boundary"},
              changesBetween(parts, parts + replaced(std::string(2000, '.'), ".", "Scanned and found clean.\r\n")));
    const std::string preamble = "This is a multi-part message in MIME format.\r\n";
    const std::string withPreamble = replaced(parts, "\"b1\"\r\n\r\n", "\"b1\"\r\n\r\n" + preamble);
    EXPECT_EQ(Names{"preamble-added"}, changesBetween(parts, withPreamble));
    EXPECT_EQ(Names{"preamble-changed"}, changesBetween(withPreamble, parts));
    EXPECT_THAT(changesBetween(withPreamble, replaced(parts, "\r\n", "\n")),
                ElementsAre("line-ends-lf", "preamble-changed"));
    const std::string emptyLine = replaced(parts, "\"b1\"\r\n\r\n", "\"b1\"\r\n\r\n\r\n");
    EXPECT_EQ(Names{"preamble-changed"}, changesBetween(emptyLine, parts));
    EXPECT_EQ(Names{"preamble-added"}, changesBetween(parts, emptyLine));
}

TEST(Diagnosis, SingleLines) {
    const std::string header = "Content-Type: text/plain\r\n\r\n";
    EXPECT_EQ(Names{"from-escaped"}, changesBetween(header + "From here\r\n", header + ">From here\r\n"));
    EXPECT_EQ(Names{"from-escaped"},
              changesBetween(header + "From a\r\n>From b\r\n", header + ">From a\r\n>>From b\r\n"));
    EXPECT_EQ(Names{"from-unescaped"}, changesBetween(header + ">From here\r\n", header + "From here\r\n"));
    EXPECT_EQ(Names{"dots-doubled"}, changesBetween(header + ".profile\r\n.\r\n", header + "..profile\r\n..\r\n"));
    EXPECT_EQ(Names{"dots-lost"}, changesBetween(header + "..profile\r\n", header + ".profile\r\n"));
    EXPECT_EQ(Names{"separator-blank-lost"},
              changesBetween(header + "x\r\n-- \r\nAl\r\n", header + "x\r\n--\r\nAl\r\n"));
    EXPECT_EQ(Names{"blanks-added-at-line-ends"}, changesBetween(header + "a\r\nb\r\n", header + "a  \r\nb\t\r\n"));
    EXPECT_THAT(changesBetween(header + "From here\r\n", replaced(header + ">From here\r\n", "\r\n", "\n")),
                ElementsAre("line-ends-lf", "from-escaped"));
    EXPECT_THAT(changesBetween(header + "From here\r\n", header + ">From here\r\n-- \r\nfooter\r\n"),
                ElementsAre("from-escaped", "footer-at-end"));
    const SMime::Diagnosis both = diagnosisOf(signatureOver(header + "From here\r\n"), header + ">From here\n");
    EXPECT_THAT(namesOf(both), ElementsAre("line-ends-lf", "from-escaped"));
    EXPECT_EQ("the signed text ended its lines with CR LF; a relay made LF of 1 of 3",
              both.explanations.at(0).findings.at(0).text);
}

TEST(Diagnosis, HeaderFields) {
    const std::string body = "\r\nDear Bob\r\n";
    const std::string tidy = "MIME-Version: 1.0\r\nContent-Type: text/plain; charset=utf-8; format=flowed\r\n" + body;
    const auto expect = [&](const char* name, const std::string& header) {
        EXPECT_EQ(Names{name}, changesBetween(header + body, tidy)) << header;
    };
    const std::string version = "MIME-Version: 1.0\r\n";
    expect("header-refolded", version + "Content-Type: text/plain;\r\n\tcharset=utf-8;\r\n\tformat=flowed\r\n");
    expect("header-refolded", version + "Content-Type: text/plain;\r\n charset=utf-8; format=flowed\r\n");
    expect("header-refolded", version + "Content-Type: text/plain; charset=utf-8;\r\n\tformat=flowed\r\n");
    expect("header-blanks-changed", version + "Content-Type: text/plain;charset=utf-8;format=flowed\r\n");
    expect("header-blanks-changed", "MIME-Version:1.0\r\nContent-Type:text/plain; charset=utf-8; format=flowed\r\n");
    expect("header-names-respelled", "Mime-Version: 1.0\r\nContent-Type: text/plain; charset=utf-8; format=flowed\r\n");
    expect("header-names-respelled", "Mime-version: 1.0\r\nContent-type: text/plain; charset=utf-8; format=flowed\r\n");
    expect("header-names-respelled", "mime-version: 1.0\r\ncontent-type: text/plain; charset=utf-8; format=flowed\r\n");
    expect("parameters-requoted", version + "Content-Type: text/plain; charset=\"utf-8\"; format=\"flowed\"\r\n");
    expect("character-set-respelled", version + "Content-Type: text/plain; charset=UTF-8; format=flowed\r\n");
    const std::string folded = version + "Content-Type: text/plain;\r\n\tcharset=\"UTF-8\"\r\n" + body;
    EXPECT_EQ(Names{"header-refolded"}, changesBetween(folded, replaced(folded, ";\r\n\t", "; ")));
    EXPECT_EQ(Names{"header-refolded"}, changesBetween(folded, replaced(folded, "\r\n\t", "\r\n ")));
    EXPECT_EQ(Names{"header-refolded"}, changesBetween(replaced(folded, "\r\n\t", "\t"), folded));
    EXPECT_EQ(Names{"header-names-respelled"}, changesBetween(folded, replaced(folded, "MIME-V", "Mime-V")));
    EXPECT_EQ(Names{"parameters-requoted"}, changesBetween(folded, replaced(folded, "\"", "")));
    EXPECT_EQ(Names{"character-set-respelled"}, changesBetween(replaced(folded, "UTF", "utf"), folded));
    // The fields of parts within, too.
    EXPECT_EQ(Names{"header-names-respelled"}, changesBetween(parts, replaced(parts, "Content-Type", "Content-type")));
}

TEST(Diagnosis, Base64ThatWasWrappedAnew) {
    const auto wrapped = [](std::size_t width) {
        const std::string encoded =
            "QUJDREVGR0hJSktMTU5PUFFSU1RVVldYWVphYmNkZWZnaGlqa2xtbm9wcXJzdHV2d3h5ejAxMjM0NTY3ODkrLw==";
        std::string lines;
        for (std::size_t at = 0; at < encoded.size(); at += width) {
            lines += encoded.substr(at, width) + "\r\n";
        }
        return parts.substr(0, parts.find("QUJD")) + lines + "--b1--\r\n";
    };
    ASSERT_EQ(parts, wrapped(76));
    for (const std::size_t sent : {76U, 72U, 64U, 60U, 1000U}) {
        for (const std::size_t arrived : {76U, 64U, 20U}) {
            if (sent != arrived) {
                EXPECT_EQ(Names{"base64-rewrapped"}, changesBetween(wrapped(sent), wrapped(arrived)))
                    << sent << arrived;
            }
        }
    }
    EXPECT_THAT(changesBetween(wrapped(76), replaced(wrapped(64), "\r\n", "\n")),
                ElementsAre("line-ends-lf", "base64-rewrapped"));
}

TEST(Diagnosis, LinesThatStoodThereEndAsTheOthers) {
    const std::string lineFeeds = replaced(parts, "\r\n", "\n");
    const auto withPreamble = [](const std::string& end) {
        const std::string fields = "\"b1\"" + end + end;
        return replaced(replaced(parts, "\r\n", end), fields,
                        fields + "This is a multi-part message in MIME format." + end);
    };
    EXPECT_THAT(changesBetween(withPreamble("\n"), parts), ElementsAre("line-ends-crlf", "preamble-changed"));
    EXPECT_THAT(changesBetween(withPreamble("\n"), lineFeeds), ElementsAre("preamble-changed"));
    EXPECT_THAT(changesBetween(withPreamble("\r\n"), lineFeeds), ElementsAre("line-ends-lf", "preamble-changed"));
}

// A relay that makes CR LF of LF, and one that does so again.
TEST(Diagnosis, CarriageReturnsInFrontOfLineFeedsThatWereAlone) {
    const SMime::Diagnosis diagnosis =
        diagnosisOf(signatureOver(replaced(text, "\r\n", "\n")), replaced(text, "\r\n", "\r\r\n"));
    EXPECT_EQ(Names{"carriage-returns-doubled"}, namesOf(diagnosis));
    EXPECT_EQ("the signed text ended its lines with LF; a relay made CR CR LF of it",
              diagnosis.explanations.at(0).findings.at(0).text);
}

TEST(Diagnosis, OneIsNoPlural) {
    const auto said = [](const std::string& sent, const std::string& arrived) {
        const SMime::Diagnosis diagnosis = diagnosisOf(signatureOver(sent), arrived);
        return diagnosis.explanations.size() == 1 ? diagnosis.explanations.front().findings.front().text : "";
    };
    EXPECT_EQ("the signed text had 1 line end more at its end", said("a\r\n", "a"));
    EXPECT_EQ("the signed text had 2 line ends more at its end", said("a\r\n\r\n", "a"));
    EXPECT_EQ("the signed text had 1 line end less at its end", said("a", "a\r\n"));
    EXPECT_EQ("the signed text had 2 line ends less at its end", said("a", "a\r\n\r\n"));
    EXPECT_EQ("the signed text ended before the last 1 line (1 byte), which were added on the way",
              said("a\n", "a\nb"));
    EXPECT_EQ("the signed text ended before the last 2 lines (3 bytes), which were added on the way",
              said("a\n", "a\nb\nc"));
}

// Of several ways to have the signature fit, the one with the fewest changes is told, and of these the likeliest.
TEST(Diagnosis, TheFewestChangesAreTold) {
    // Lines that were added ended otherwise than the signed ones: with these nobody did anything.
    const std::string withPreamble = replaced(parts, "\"b1\"\r\n\r\n", "\"b1\"\r\n\r\nscanned\n");
    EXPECT_EQ(Names{"preamble-added"}, changesBetween(parts, withPreamble));
    EXPECT_EQ(Names{"footer-after-last-boundary"},
              changesBetween(parts, parts + replaced(std::string(70, '.'), ".", "scanned\n")));
    // A CR or an LF that was added at the end.
    EXPECT_EQ(Names{"last-line-end-added"}, changesBetween("a", "a\r"));
    EXPECT_EQ(Names{"last-line-end-added"}, changesBetween("a\r\n", "a\r\n\n"));
    EXPECT_THAT(changesBetween("a\r\n", "a\n\r"), ElementsAre("line-ends-lf", "last-line-end-added"));

    const std::string folded = "Content-Type: text/plain;\r\n\tcharset=utf-8\r\n\r\nDear Bob\r\n";
    const SMime::Diagnosis diagnosis = diagnosisOf(signatureOver(folded), replaced(folded, "\t", " "));
    EXPECT_EQ(Names{"header-refolded"}, namesOf(diagnosis));
    EXPECT_THAT(diagnosis.explanations.at(0).findings.at(0).text, HasSubstr("stood there continued with a tab"));
}

// A body that is scanned in pieces of any size comes out as it is: each of these tries would fail otherwise.
TEST(Diagnosis, PiecesOfAnySizeMakeNoDifference) {
    const std::string sent = replaced(parts, "Dear Bob", "From here\r\n" + std::string(9000, 'x') + "\r\n.\r\rend");
    const std::string arrived = replaced(sent, "From here", ">From here");
    const Buffer signature = bufferOf(signatureOver(sent));
    for (const std::size_t piece : {1U, 2U, 3U, 7U, 64U, 4095U, 4096U, 4097U}) {
        const SMime::Diagnosis diagnosis =
            SMime::explain(signature, [&] { return Norvane::MediaIn(PiecewiseIn(bytesOf(arrived), piece)); });
        EXPECT_EQ(Names{"from-escaped"}, namesOf(diagnosis)) << piece;
        EXPECT_EQ(2U, diagnosis.passes);
    }
}

TEST(Diagnosis, WhatTheSourceThrowsComesOut) {
    EXPECT_THROW(SMime::explain(bufferOf(signatureOver(text)),
                                [] { return Norvane::MediaIn(PiecewiseIn(bytesOf(text), 10, 20)); }),
                 std::runtime_error);
    const Caught failure = caught([] { SMime::explain(bufferOf(bytesOf("no structure")), sourceOf(text)); });
    EXPECT_EQ("CMS::SignedReader", failure.where);
}

TEST(Diagnosis, NamesAreThoseOfTheList) {
    EXPECT_STREQ("line-ends-lf", SMime::nameOf(SMime::Change::lineEndsMadeLf));
    EXPECT_STREQ("digest-of-other-algorithm", SMime::nameOf(SMime::Change::digestOfOtherAlgorithm));
    EXPECT_EQ(73, static_cast<int>(SMime::Change::otherCertificate));
    EXPECT_EQ(41, static_cast<int>(SMime::Change::base64Rewrapped));
}

} // namespace
