#include "mime/Lines.h"
#include "mime/Multipart.h"
#include "mime/Transfer.h"
#include "mime/Values.h"

#include <norvcmsg/SwapBufferMediaOut.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

namespace {

using namespace Norvane;
using namespace Norvane::Crypto::SMime::mime;
using testing::ElementsAre;

/// A source that gives a few bytes at a time.
class Dripping : public Octets {
public:
    Dripping(std::string bytes, std::size_t step) : m_bytes(std::move(bytes)), m_step(step) {}
    std::string_view view(std::size_t atLeast) override {
        return std::string_view(m_bytes).substr(m_from, std::max(atLeast, m_step));
    }
    void skip(std::size_t count) override { m_from += count; }

private:
    std::string m_bytes;
    std::size_t m_step;
    std::size_t m_from = 0;
};

std::string all(Octets& from) {
    MemoryMediaOut out;
    copy(from, out);
    const Buffer& bytes = out.content();
    return {reinterpret_cast<const char*>(bytes.data()), bytes.length()};
}

struct Walk {
    std::vector<std::string> parts;
    bool isClosed = false;
    std::uint64_t lookAlikes = 0;
    std::string epilogue;
};

Walk walked(const std::string& body, const std::string& boundary, std::size_t step = 0) {
    const auto octets = std::make_shared<Dripping>(body, step == 0 ? body.size() + 1 : step);
    Multipart parts(octets, boundary);
    Walk walk;
    while (parts.next())
        walk.parts.push_back(all(*parts.part()));
    walk.isClosed = parts.isClosed();
    walk.lookAlikes = parts.lookAlikes();
    walk.epilogue = all(*octets);
    return walk;
}

TEST(MultipartWalk, PartsAreExactWithoutTheLineEndBeforeTheDelimiter) {
    const std::string body = "pre\r\n--b\r\nA: 1\r\n\r\none \r\n\r\n--b \t\r\ntwo\n--b\n\r\n--b--\r\nepi";
    for (std::size_t step = 0; step <= body.size(); ++step) {
        const Walk walk = walked(body, "b", step);
        EXPECT_THAT(walk.parts, ElementsAre("A: 1\r\n\r\none \r\n", "two", "")) << step;
        EXPECT_TRUE(walk.isClosed);
        EXPECT_EQ(walk.epilogue, "epi");
    }
}

TEST(MultipartWalk, AnEmptyPartHasNoBytes) {
    EXPECT_THAT(walked("--b\n--b\n\n--b\r\n\r\n\r\n--b--", "b").parts, ElementsAre("", "", "\r\n"));
}

TEST(MultipartWalk, LookAlikesBelongToTheirPart) {
    const std::string body = "--b\n--bb\n --b\nx--b\n--b-\n--b --\n-- b\n--b--";
    for (std::size_t step = 0; step <= body.size(); ++step) {
        const Walk walk = walked(body, "b", step);
        EXPECT_THAT(walk.parts, ElementsAre("--bb\n --b\nx--b\n--b-\n--b --\n-- b")) << step;
        EXPECT_EQ(walk.lookAlikes, 3U) << step;
        EXPECT_TRUE(walk.isClosed);
    }
}

TEST(MultipartWalk, AMissingLastDelimiterIsTold) {
    const Walk walk = walked("--b\none\n", "b");
    EXPECT_THAT(walk.parts, ElementsAre("one\n"));
    EXPECT_FALSE(walk.isClosed);
    EXPECT_THAT(walked("--b", "b").parts, ElementsAre(""));
    EXPECT_THAT(walked("", "b").parts, ElementsAre());
    EXPECT_THAT(walked("nothing here", "b").parts, ElementsAre());
}

TEST(MultipartWalk, TheOuterBoundaryEndsAnInnerMultipart) {
    const auto octets = std::make_shared<MemoryOctets>("--o\r\n\r\n--i\r\nx\r\n--o\r\ny\r\n--o--\r\n");
    Multipart outer(octets, "o");
    ASSERT_TRUE(outer.next());
    Multipart inner(outer.part(), "i");
    ASSERT_TRUE(inner.next());
    EXPECT_EQ(all(*inner.part()), "x");
    EXPECT_FALSE(inner.next());
    EXPECT_FALSE(inner.isClosed());
    ASSERT_TRUE(outer.next());
    EXPECT_EQ(all(*outer.part()), "y");
    EXPECT_FALSE(outer.next());
    EXPECT_TRUE(outer.isClosed());
}

TEST(HeaderBlock, ItsFieldsKeepTheirBytes) {
    const auto octets = std::make_shared<Dripping>("From x\r\nA : 1\r\n\t2 \r\nb:\n\nbody", 3);
    Header header;
    EXPECT_EQ(readHeader(*octets, {}, header), HeaderEnd::complete);
    EXPECT_EQ(header.octets(), "From x\r\nA : 1\r\n\t2 \r\nb:\n\n");
    ASSERT_EQ(header.fields().size(), 3U);
    EXPECT_EQ(header.nameOf(header.fields()[0]), "");
    EXPECT_EQ(header.nameOf(header.fields()[1]), "A");
    EXPECT_EQ(header.octetsOf(header.fields()[1]), "A : 1\r\n\t2 \r\n");
    EXPECT_EQ(header.first("a"), "1\t2");
    EXPECT_EQ(header.first("B"), "");
    EXPECT_EQ(header.first("c"), std::nullopt);
    EXPECT_EQ(all(*octets), "body");
}

TEST(HeaderBlock, StopsAtItsLimits) {
    Header header;
    MemoryOctets line(std::string(8000000, 'x'));
    EXPECT_EQ(readHeader(line, {}, header), HeaderEnd::tooLong);
    EXPECT_EQ(header.octets().size(), 262144U);
    std::string many;
    for (int field = 0; field < 100000; ++field)
        many += "A: b\n";
    MemoryOctets fields(many);
    EXPECT_EQ(readHeader(fields, {}, header), HeaderEnd::tooMany);
    EXPECT_EQ(header.fields().size(), 2000U);
}

ContentType typed(const std::string& value) {
    Header header;
    MemoryOctets octets("Content-Type: " + value + "\r\n\r\n");
    EXPECT_EQ(readHeader(octets, {}, header), HeaderEnd::complete);
    return contentTypeOf(header);
}

TEST(ContentTypeValue, HasItsParametersInAllForms) {
    EXPECT_EQ(typed("multipart/signed; boundary=----=_Part_1; micalg=x").boundary, "----=_Part_1");
    EXPECT_EQ(typed("multipart/signed; boundary*=us-ascii'en'a%20b").boundary, "a b");
    EXPECT_EQ(typed("multipart/signed; boundary*1=\"def\"; boundary*0=abc; boundary*2*=%20x").boundary, "abcdef x");
    EXPECT_EQ(typed("multipart/signed; boundary=\"a\\\"b\" (c)").boundary, "a\"b");
    EXPECT_EQ(typed("multipart/signed;\r\n\tboundary=a;\r\n Protocol=\"Application/PKCS7-Signature\"").protocol,
              "application/pkcs7-signature");
    EXPECT_EQ(typed("Application/PKCS7-Mime; name=smime p7m.p7m; smime-type=Enveloped-Data").smimeType,
              "enveloped-data");
    EXPECT_EQ(typed("application/pkcs7-mime;name=\"=?iso-8859-1?Q?sm=EFme.p7m?=\"").name, "sm\xc3\xafme.p7m");
}

// The first three are the examples of RFC 2231, sections 3, 4 and 4.1.
TEST(ContentTypeValue, HasTheExamplesOfRfc2231) {
    const auto name = [](const std::string& parameters) {
        return typed("application/x-stuff;\r\n " + parameters).name;
    };
    EXPECT_EQ(name("name*0=\"ftp://\";\r\n name*1=\"cs.utk.edu/pub/moore/bulk-mailer/bulk-mailer.tar\""),
              "ftp://cs.utk.edu/pub/moore/bulk-mailer/bulk-mailer.tar");
    EXPECT_EQ(name("name*=us-ascii'en-us'This%20is%20%2A%2A%2Afun%2A%2A%2A"), "This is ***fun***");
    EXPECT_EQ(name("name*0*=us-ascii'en'This%20is%20even%20more%20;\r\n name*1*=%2A%2A%2Afun%2A%2A%2A%20;\r\n"
                   " name*2=\"isn't it!\""),
              "This is even more ***fun*** isn't it!");
    EXPECT_EQ(name("NAME*2=\".p7m\"; name*0*=utf-8''caf%C3%A9; name*1=\"-x\""), "caf\u00e9-x.p7m") << "in any order";
    EXPECT_EQ(name("name*=iso-8859-1''caf%E9"), "caf\u00e9");
    EXPECT_EQ(name("name*=iso-8859-1'fr'caf%e9"), "caf\u00e9");
    EXPECT_EQ(name("name*0*=UTF-8''caf%C3; name*1*=%A9"), "caf\u00e9") << "a character in two segments";
    EXPECT_EQ(name("name*=''plain"), "plain") << "neither character set nor language";
    EXPECT_EQ(name("name*0=a; name*1=b; name*2=c; name*3=d; name*4=e; name*5=f; name*6=g; name*7=h; name*8=i; name*9=j;"
                   " name*10=k; name*11=l"),
              "abcdefghijkl");
}

TEST(ContentTypeValue, MakesTheBestOfDamagedParameters) {
    const auto name = [](const std::string& parameters) { return typed("application/x-stuff; " + parameters).name; };
    for (const char* const damaged :
         {"name*=%", "name*=utf-8'%41", "name*=utf-8''%4", "name*0*", "name*1=b", "name*x=y", "name*4294967296=a",
          "name*-1=a", "name**=a", "name*0*=''; name*0*=''"})
        EXPECT_LT(name(damaged).size(), 20U) << damaged; // no crash, nothing made up
    std::string many = "name*0=a";
    for (int number = 1; number < 1200; ++number)
        many += ";name*" + std::to_string(number) + "=a";
    EXPECT_LE(name(many).size(), 1200U);
}

TEST(ContentTypeValue, TakesNoEncodedWordForABoundary) {
    EXPECT_EQ(typed("multipart/signed; boundary=\"=?utf-8?q?a=20b?=\"").boundary, "=?utf-8?q?a=20b?=");
}

TEST(ContentTypeValue, TellsWhetherAllFindTheSameBoundary) {
    for (const char* const plain :
         {"; boundary=----=_Part_1", "; charset=x; Boundary = \"a b;c\" ; x=y", ";boundary=\"----boundary_1\"",
          "; x=\"a;b\"; boundary=a'b/c?d:e", "; boundary=\"(a)\"; x=y"})
        EXPECT_TRUE(typed(std::string("multipart/mixed") + plain).isBoundaryPlain) << plain;
    for (const char* const other :
         {"", "; boundary*=us-ascii''a", "; boundary*0=a; boundary*1=b", "; boundary=a b", "; boundary=a (b)",
          "; (x) boundary=a", "; boundary=\"a\\b\"", "; boundary=\"a\"b", "; boundary=\"a \"", "; boundary=a,b",
          "; boundary=\"=?utf-8?q?a?=\"", "; x=\"; boundary=b\"; boundary=a", "; boundary=a; x=\"boundary=b\"",
          "; boundary=a; boundary*=''b", "; boundary=<a>", "; x=(\"; boundary=b; \") boundary=a"})
        EXPECT_FALSE(typed(std::string("multipart/mixed") + other).isBoundaryPlain) << other;
}

TEST(ContentTypeValue, TellsWhatIsOdd) {
    EXPECT_EQ(typed("text/html").oddity, "");
    EXPECT_NE(typed("text/html\r\nContent-Type: text/plain").oddity, "");
    EXPECT_NE(typed("multipart/mixed; boundary=a; boundary=b").oddity, "");
    EXPECT_NE(typed("text/html; x=" + std::string(20000, 'x')).oddity, "");
    EXPECT_NE(typed(std::string("text/html\0; x=y", 15)).oddity, "");
}

std::vector<std::string> mailboxes(const std::string& from, bool isReadable = true) {
    Header header;
    MemoryOctets octets("From: " + from + "\r\n\r\n");
    EXPECT_EQ(readHeader(octets, {}, header), HeaderEnd::complete);
    const Addresses addresses = addressesOf(header, "From");
    EXPECT_EQ(addresses.isReadable, isReadable) << from;
    return addresses.mailboxes;
}

TEST(AddressValue, TakesGroupsApart) {
    EXPECT_THAT(mailboxes("\"b@evil\" <b@y>, g: c@z, D <d@w>;"), ElementsAre("b@y", "c@z", "d@w"));
    EXPECT_THAT(mailboxes("=?utf-8?q?a=40evil=2Ecom=3E?= <j@x>"), ElementsAre("j@x"));
    EXPECT_THAT(mailboxes("<j@x>\r\nFROM: k@x"), ElementsAre("j@x", "k@x"));
}

// What is beyond is not looked at: GMime takes time for it that grows with the square of its length.
TEST(AddressValue, HasSoManySignsAtTheMost) {
    const std::string commas(maximumSigns - 3, ',');
    EXPECT_THAT(mailboxes("a@x" + commas + " b@x"), ElementsAre("a@x", "b@x"));
    EXPECT_THAT(mailboxes("a@x" + commas + ", b@x"), ElementsAre("a@x", "b@x")) << "as many as may be";
    EXPECT_THAT(mailboxes("a@x" + commas + ",, b@x", false), ElementsAre());
    for (const char* const more : {",", ";", " <\"\"", " @"})
        EXPECT_THAT(mailboxes("a@x" + commas + " b@x, " + more, false), ElementsAre()) << more;
    EXPECT_THAT(mailboxes("a@x" + commas + "\r\nFrom: b@x"), ElementsAre("a@x", "b@x"));
    EXPECT_THAT(mailboxes("a@x" + commas + "\r\nFrom: \"@;\" <b@x>\r\nFrom: c@x", false), ElementsAre("a@x"));
    std::string people;
    for (int number = 0; number != 100; ++number)
        people += "\"Doe, J.\" <a" + std::to_string(number) + "@x>, ";
    EXPECT_EQ(mailboxes(people).size(), 100U);
}

TEST(AddressValue, TellsWhatIsNoAddress) {
    mailboxes("a@b@c", false);
    mailboxes("k", false);
    std::string groups;
    for (int group = 0; group < 8000; ++group)
        groups += "g:";
    mailboxes(groups, false);
    mailboxes(std::string("k@x\0y", 5), false);
}

std::string decodedBy(Transfer transfer, const std::string& text, std::size_t step) {
    const auto octets = std::make_shared<Dripping>(text, step);
    return all(*decoded(octets, transfer));
}

TEST(TransferDecoding, IsTheSameInAnyPieces) {
    const std::string base64 = "TUlN\r\nRQ ==\r\n";
    const std::string quoted = "a=3D=\r\nb =\nc";
    for (std::size_t step = 1; step < 16; ++step) {
        EXPECT_EQ(decodedBy(Transfer::base64, base64, step), "MIME");
        EXPECT_EQ(decodedBy(Transfer::quotedPrintable, quoted, step), "a=b c");
    }
}

TEST(TransferDecoding, LeavesGarbageOutAndMissesNoPadding) {
    EXPECT_EQ(decodedBy(Transfer::base64, "TU*lN!RQ", 100), "MIME");
    EXPECT_EQ(decodedBy(Transfer::base64, "TUlNRUU", 100), "MIMEE");
    EXPECT_EQ(decodedBy(Transfer::base64, "TUlN", 100), "MIM");
    EXPECT_EQ(decodedBy(Transfer::base64, "TUlNT", 100), "MIM");
    EXPECT_EQ(decodedBy(Transfer::base64, "", 100), "");
}

TEST(CanonicalLineEnds, MakeCrLfOfBareLfAlone) {
    const std::string text = "a\nb\r\nc\rd\r\n\n\r\r\n";
    for (std::size_t cut = 0; cut <= text.size(); ++cut) {
        MemoryMediaOut out;
        CanonicalMediaOut canonical(out);
        LineEndCounter counter;
        for (const std::string& piece : {text.substr(0, cut), text.substr(cut)}) {
            put(canonical, piece);
            counter.update(piece);
        }
        canonical.end();
        EXPECT_TRUE(out.ended());
        EXPECT_EQ(std::string(reinterpret_cast<const char*>(out.content().data()), out.content().length()),
                  "a\r\nb\r\nc\rd\r\n\r\n\r\r\n")
            << cut;
        EXPECT_EQ(counter.counted().crLf, 3U) << cut;
        EXPECT_EQ(counter.counted().bareLf, 2U) << cut;
        EXPECT_EQ(counter.counted().bareCr, 2U) << cut;
    }
}

/// CR and LF as pairs alone, octet by octet.
bool hasPairsAlone(const std::string& text) {
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (text[at] == '\r' && text.substr(at + 1, 1) != "\n")
            return false;
        if (text[at] == '\n' && (at == 0 || text[at - 1] != '\r'))
            return false;
    }
    return true;
}

void expectFoundAsByTheStandardLibrary(const std::string& text) {
    for (const std::size_t from : {std::size_t{0}, text.size() / 3, text.size()}) {
        EXPECT_EQ(findLineStart(text, '-', from), text.find("\n-", from)) << text;
        EXPECT_EQ(findLine(text, "\n--b", from), text.find("\n--b", from)) << text;
    }
    EXPECT_EQ(countOf('\n', text), static_cast<std::size_t>(std::ranges::count(text, '\n'))) << text;
    EXPECT_EQ(isCanonical(text), hasPairsAlone(text)) << text;
}

/// They are looked at in steps of sixteen octets and more: wherever something stands, and whatever is around it.
TEST(LongTexts, AreSearchedLikeEachOctetByItself) {
    for (std::size_t at = 0; at != 200; ++at) {
        for (const std::string sought : {"\n-", "\n--b", "\n--a", "\r\n", "\n", "\r", "\n\r"})
            expectFoundAsByTheStandardLibrary(std::string(at, 'a') + sought + std::string(199 - at, 'a'));
    }
    std::mt19937 random(8551);
    const std::vector<std::string> pieces{"a", "a", "\r\n", "\r\n", "\r\n", "-", "--b", "\n", "\r"};
    for (std::size_t kinds = 3; kinds <= pieces.size(); ++kinds) {
        for (std::size_t length = 0; length != 300; ++length) {
            std::string text;
            while (text.size() < length)
                text += pieces[random() % kinds];
            expectFoundAsByTheStandardLibrary(text);
        }
    }
    expectFoundAsByTheStandardLibrary(std::string(100000, '\n')); // more than a lane of counters holds
    expectFoundAsByTheStandardLibrary(std::string(100000, '-'));
}

/// Counts how often it is asked, and for how much.
class Counting : public MemoryOctets {
public:
    using MemoryOctets::MemoryOctets;
    std::string_view view(std::size_t atLeast) override {
        ++asked;
        return MemoryOctets::view(atLeast).substr(0, std::max<std::size_t>(atLeast, 4096));
    }
    std::size_t asked = 0;
};

/// How often the source is asked for while a part, `depth` multiparts deep, is taken in pieces of `piece` bytes.
std::size_t askedBy(std::size_t depth, std::size_t length, std::size_t piece) {
    std::string text;
    for (std::size_t level = 0; level < depth; ++level)
        text += "--b" + std::to_string(level) + "\n\n";
    const auto source = std::make_shared<Counting>(text + std::string(length, '\n'));
    SharedOctets body = source;
    std::vector<std::unique_ptr<Multipart>> walks;
    for (std::size_t level = 0; level < depth; ++level) {
        walks.push_back(std::make_unique<Multipart>(body, "b" + std::to_string(level)));
        EXPECT_TRUE(walks.back()->next());
        body = walks.back()->part();
        Header header;
        EXPECT_EQ(readHeader(*body, {}, header), HeaderEnd::complete);
    }
    source->asked = 0;
    std::size_t taken = 0;
    for (std::size_t left = body->view(1).size(); left > 0; left = body->view(1).size()) {
        body->skip(std::min(left, piece));
        taken += std::min(left, piece);
    }
    EXPECT_EQ(taken, length);
    return source->asked;
}

// However small the pieces are and however deep the part lies, a byte is searched once at each level: the source is asked as
// often as the reader asks, and once a level for each 4096 bytes that it has.
TEST(MultipartWork, GrowsWithTheBytesAndNotWithTheirSquare) {
    for (const std::size_t depth : {1U, 24U}) {
        EXPECT_LE(askedBy(depth, 40000, 1), std::size_t{80000} + depth * 40) << depth;
        EXPECT_LE(askedBy(depth, 40000, 4096), 100 + depth * 60) << depth;
    }
}

} // namespace
