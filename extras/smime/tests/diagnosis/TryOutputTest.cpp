#include "diagnosis/TryOutput.h"

#include "diagnosis/OtherDigests.h"

#include "../Diagnosing.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/err.h>

#include <string>
#include <vector>

namespace {

using namespace Norvane::Crypto::SMime::diagnosis;
using diagnosing::bufferOf;
using diagnosing::signatureOver;
using testing::ElementsAre;
using testing::IsEmpty;
namespace CMS = Norvane::Crypto::CMS;

/// "less 1" and the like: what is asked about.
std::string textOf(const EndChange& change) {
    if (change.isNone())
        return "whole";
    if (change.lineEndsMore != 0)
        return "more " + std::to_string(change.lineEndsMore);
    if (change.lineEndsLess != 0)
        return "ends less " + std::to_string(change.lineEndsLess) + ", octets " + std::to_string(change.octetsLess);
    return "lines less " + std::to_string(change.linesLess) + ", octets " + std::to_string(change.octetsLess);
}

/// Notes what the signature fits.
class Fitting : public BodyJudge {
public:
    void judge(const CMS::SignedReader& message, const EndChange& change) override {
        ++asked;
        if (message.verdict(message.signers().front()).verdict == CMS::SignatureVerdict::good)
            fits.push_back(textOf(change));
    }
    std::vector<std::string> fits;
    std::size_t asked = 0;
};

/// With which ends what arrived is what was signed.
std::vector<std::string> fitting(const std::string& sent, const std::string& arrived, LineEnd newLine = LineEnd::crLf) {
    const auto structure = bufferOf(signatureOver(sent));
    TryOutput out(structure, EndMode::asIs, newLine);
    for (std::size_t at = 0; at < arrived.size(); at += 4096)
        out.put(std::string_view(arrived).substr(at, 4096));
    EXPECT_EQ(out.length(), arrived.size());
    Fitting judge;
    out.finish(judge);
    return judge.fits;
}

TEST(EndOfABody, IsTriedWithMoreAndFewerLineEnds) {
    for (const std::string end : {"\r\n", "\n", "\r", "\r\r\n"}) {
        const LineEnd newLine = end == "\n"     ? LineEnd::lf
                                : end == "\r"   ? LineEnd::cr
                                : end == "\r\n" ? LineEnd::crLf
                                                : LineEnd::crCrLf;
        const std::string text = "one" + end + "two";
        EXPECT_THAT(fitting(text, text), ElementsAre("whole"));
        std::string more = text;
        std::string ends;
        for (std::size_t count = 1; count <= 3; ++count) {
            more += end;
            ends += end;
            EXPECT_THAT(fitting(more, text, newLine), ElementsAre("more " + std::to_string(count)));
            EXPECT_THAT(fitting(text, more),
                        ElementsAre("ends less " + std::to_string(count) + ", octets " + std::to_string(ends.size())));
        }
        EXPECT_THAT(fitting(more + end, text, newLine), IsEmpty());
    }
    EXPECT_THAT(fitting("a\r\n", "a\r\n\r\n"), ElementsAre("ends less 1, octets 2"));
    EXPECT_THAT(fitting("a\r\n\r\n", "a\r\n\r\n\r\n\r\n"), ElementsAre("ends less 2, octets 4"));
    EXPECT_THAT(fitting("a\n", "a\n\r"), ElementsAre("ends less 1, octets 1"));
    EXPECT_THAT(fitting("a", "a\r\n\n"), ElementsAre("ends less 2, octets 3"));
    EXPECT_THAT(fitting("", "\n\n"), ElementsAre("ends less 2, octets 2"));
}

TEST(EndOfABody, IsTriedWithoutItsLastLines) {
    EXPECT_THAT(fitting("a\r\n", "a\r\nfoot\r\n"), ElementsAre("lines less 1, octets 6"));
    EXPECT_THAT(fitting("a", "a\r\nfoot\r\n"), ElementsAre("lines less 1, octets 8"));
    EXPECT_THAT(fitting("a\r\n", "a\r\nfoot"), ElementsAre("lines less 1, octets 4"));
    EXPECT_THAT(fitting("a\r\n", "a\r\n\r\n--\r\nfoot of\r\n"), ElementsAre("lines less 2, octets 15"));
    EXPECT_THAT(fitting("a\n", "a\nx\ny\nz\n"), ElementsAre("lines less 3, octets 6"));
    EXPECT_THAT(fitting("a\r", "a\rx\ry"), ElementsAre("lines less 2, octets 3"));
    EXPECT_THAT(fitting("a\r\n", "a\r\nfo"), ElementsAre("lines less 1, octets 2"));
    EXPECT_THAT(fitting("a", "ab\r\n"), IsEmpty()) << "half a line";
    EXPECT_THAT(fitting("a", "ab"), IsEmpty());
}

TEST(EndOfABody, IsTriedForSixtyFourLines) {
    const std::string line = "x\r\n";
    std::string footer;
    for (int count = 0; count != 200; ++count)
        footer += line;
    const auto structure = bufferOf(signatureOver("a"));
    TryOutput out(structure, EndMode::asIs, LineEnd::crLf);
    out.put(footer);
    Fitting judge;
    out.finish(judge);
    EXPECT_THAT(judge.fits, IsEmpty());
    EXPECT_EQ(judge.asked, 64U * 2 + 3) << "each with its line end and without, the last one with three more";
    EXPECT_THAT(fitting("a\r\n", "a\r\n" + footer.substr(0, 63 * 3)), ElementsAre("lines less 63, octets 189"));
}

// A question may cost a verification: none is asked twice.
TEST(EndOfABody, IsTriedOnceWhereLinesAreEmpty) {
    const auto structure = bufferOf(signatureOver("a"));
    TryOutput out(structure, EndMode::asIs, LineEnd::crLf);
    out.put("a\r\n\r\n\r\nb\r\n");
    Fitting judge;
    out.finish(judge);
    EXPECT_THAT(judge.fits, ElementsAre("lines less 1, octets 9"));
    EXPECT_EQ(judge.asked, 5U + 4) << "behind a and each of the four line ends and b, the last one with three more";
}

TEST(EndOfABody, IsKeptBackOfALongOne) {
    std::string text;
    for (int number = 0; text.size() < 100000; ++number)
        text += "line " + std::to_string(number) + "\r\n";
    EXPECT_THAT(fitting(text, text), ElementsAre("whole"));
    EXPECT_THAT(fitting(text, text + "foot\r\n"), ElementsAre("lines less 1, octets 6"));
    EXPECT_THAT(fitting(text, text.substr(0, text.size() - 2)), ElementsAre("more 1"));
    const std::string longLine(15000, 'x');
    EXPECT_THAT(fitting(text, text + longLine), ElementsAre("lines less 1, octets 15000"));
    EXPECT_THAT(fitting(text, text + std::string(40000, 'x')), IsEmpty()) << "of which 16 KB are looked at";
    for (const std::size_t length : {16384U * 2 - 1, 16384U * 2, 16384U * 2 + 1}) {
        const std::string exact = text.substr(0, length - 1) + 'x';
        EXPECT_THAT(fitting(exact, exact + "\r\n"), ElementsAre("ends less 1, octets 2"));
    }
}

/// Whether what a try makes of all four line ends is `sent`.
bool makes(EndMode mode, const std::string& sent) {
    const auto structure = bufferOf(signatureOver(sent));
    TryOutput out(structure, mode, LineEnd::lf);
    for (const LineEnd end : {LineEnd::lf, LineEnd::crLf, LineEnd::cr, LineEnd::crCrLf, LineEnd::none}) {
        out.put("x");
        out.end(end);
    }
    out.newLine();
    out.setNewLine(LineEnd::crLf);
    out.newLine();
    out.put("y");
    Fitting judge;
    out.finish(judge);
    return judge.fits == std::vector<std::string>{"whole"};
}

TEST(LineEndsOfATry, AreMadeOfTheKind) {
    EXPECT_TRUE(makes(EndMode::asIs, "x\nx\r\nx\rx\r\r\nx\n\r\ny"));
    EXPECT_TRUE(makes(EndMode::crLf, "x\r\nx\r\nx\r\nx\r\nx\n\r\ny"));
    EXPECT_TRUE(makes(EndMode::crLfButBareCr, "x\r\nx\r\nx\rx\r\nx\n\r\ny"));
    EXPECT_TRUE(makes(EndMode::lf, "x\nx\nx\rx\nx\n\r\ny"));
}

TEST(StructureOfATry, IsReadInPlace) {
    const Norvane::Buffer octets = bufferOf({'a', 'b', 'c', 'd', 'e', 'f'});
    Norvane::MediaIn in = sourceOver(octets);
    EXPECT_FALSE(in.atEnd());
    EXPECT_EQ(in.peek(), 'a');
    unsigned char out[8] = {};
    EXPECT_EQ(in.read(out, 4), 4);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(out), 4), "abcd");
    EXPECT_EQ(in.peek(), 'e');
    EXPECT_EQ(in.read(out, 8), 2);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(out), 2), "ef");
    EXPECT_TRUE(in.atEnd());
    EXPECT_EQ(in.peek(), -1);
    EXPECT_EQ(in.read(out, 8), 0);
}

// The digests of "abc": FIPS 180-2, appendices A and B, and RFC 1321, A.5.
TEST(OtherDigestsOfABody, AreThoseOfTheLengthsThatAreAskedFor) {
    const auto digestOf = [](const std::string& hex) {
        diagnosing::Bytes octets;
        for (std::size_t at = 0; at < hex.size(); at += 2)
            octets.push_back(static_cast<unsigned char>(std::stoi(hex.substr(at, 2), nullptr, 16)));
        return bufferOf(octets);
    };
    const auto sha1 = digestOf("a9993e364706816aba3e25717850c26c9cd0d89d");
    const auto md5 = digestOf("900150983cd24fb0d6963f7d28e17f72");
    OtherDigests digests({20, 16, 99});
    EXPECT_EQ(digests.count(), 2U);
    const auto* const text = reinterpret_cast<const unsigned char*>("abc");
    digests.update(text, 1);
    EXPECT_THAT(digests.namesOf(sha1), IsEmpty());
    digests.update(text + 1, 2);
    EXPECT_THAT(digests.namesOf(sha1), ElementsAre("sha1"));
    EXPECT_THAT(digests.namesOf(md5), ElementsAre("md5"));
    EXPECT_THAT(digests.namesOf(sha1), ElementsAre("sha1")) << "as often as one likes";
    EXPECT_THAT(digests.namesOf(digestOf("a9993e364706816aba3e25717850c26c")), IsEmpty()) << "the start of one";
    EXPECT_THAT(digests.namesOf(digestOf("a9993e364706816aba3e25717850c26c9cd0d89e")), IsEmpty());
    EXPECT_THAT(digests.namesOf(digestOf("a9993e364706816aba3e25717850c26c9cd0d89d00000000")), IsEmpty())
        << "and octets behind it";
    EXPECT_THAT(digests.namesOf(Norvane::Buffer()), IsEmpty());
    EXPECT_EQ(OtherDigests({}).count(), 0U);
}

// They are a library's: what the caller has in OpenSSL's queue of errors, and marked there, stays.
TEST(OtherDigestsOfABody, LeaveTheErrorQueueAlone) {
    ERR_clear_error();
    ERR_raise(ERR_LIB_USER, 1);
    const OtherDigests digests({16, 20, 32});
    EXPECT_EQ(digests.count(), 3U);
    EXPECT_EQ(ERR_GET_REASON(ERR_peek_last_error()), 1);
    EXPECT_EQ(ERR_pop_to_mark(), 0) << "no mark is left behind";
    ERR_clear_error();
}

} // namespace
