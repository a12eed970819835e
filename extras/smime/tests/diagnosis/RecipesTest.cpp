#include "diagnosis/Recipes.h"

#include "Putting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace {

using namespace puttogether;
using testing::ElementsAre;
using testing::IsEmpty;

/// The names of what is tried for a body that shows these things, each once.
std::vector<std::string> namesFor(const BodyFacts& facts) {
    std::vector<std::string> names;
    for (const Recipe& recipe : recipesFor(facts)) {
        const std::string name = Norvane::Crypto::SMime::nameOf(recipe.change);
        if (names.empty() || names.back() != name) {
            names.push_back(name);
        }
    }
    return names;
}

std::string undone(const Recipe& recipe, const std::string& body) {
    Kept out;
    const UndoingPtr undoing = recipe.undo(out);
    BodyScanner scanner({undoing.get()});
    scanner.write(body);
    scanner.finish();
    return out.text;
}

/// What a change that says `text` makes of a body with these facts.
std::string undone(const BodyFacts& facts, const std::string& text, const std::string& body) {
    std::vector<std::string> found;
    for (const Recipe& recipe : recipesFor(facts)) {
        if (recipe.text.find(text) != std::string::npos) {
            found.push_back(undone(recipe, body));
        }
    }
    EXPECT_EQ(found.size(), 1U) << text;
    return found.empty() ? "" : found.front();
}

TEST(RecipesTest, OnlyWhatABodyShowsIsTried) {
    EXPECT_THAT(recipesFor({}), IsEmpty());
    const auto with = [](auto member) {
        BodyFacts facts;
        facts.*member = true;
        return namesFor(facts);
    };
    EXPECT_THAT(with(&BodyFacts::hasBlanksAtLineEnds), ElementsAre("blanks-added-at-line-ends"));
    EXPECT_THAT(with(&BodyFacts::hasEscapedFrom), ElementsAre("from-escaped"));
    EXPECT_THAT(with(&BodyFacts::hasDeeplyEscapedFrom), ElementsAre("from-escaped"));
    EXPECT_THAT(with(&BodyFacts::hasFrom), ElementsAre("from-unescaped"));
    EXPECT_THAT(with(&BodyFacts::hasTwoDots), ElementsAre("dots-doubled"));
    EXPECT_THAT(with(&BodyFacts::hasDot), ElementsAre("dots-lost"));
    EXPECT_THAT(with(&BodyFacts::hasBareSeparator), ElementsAre("separator-blank-lost"));
    EXPECT_THAT(with(&BodyFacts::hasEpilogue), IsEmpty()) << "of no multipart";
    EXPECT_THAT(with(&BodyFacts::hasMultipart), ElementsAre("preamble-changed"));
    EXPECT_THAT(with(&BodyFacts::hasBase64), ElementsAre("base64-rewrapped"));
    EXPECT_THAT(with(&BodyFacts::hasBase64Text), ElementsAre("quoted-printable-made-base64", "made-7-bit"));
    EXPECT_THAT(with(&BodyFacts::hasQuotedPrintable),
                ElementsAre("quoted-printable-reencoded", "base64-made-quoted-printable", "made-7-bit"));
    EXPECT_THAT(with(&BodyFacts::hasEightBitText), ElementsAre("made-8-bit"));
    EXPECT_THAT(with(&BodyFacts::hasSmallHexDigits), ElementsAre("quoted-printable-reencoded"));
    EXPECT_THAT(with(&BodyFacts::hasCapitalHexDigits), ElementsAre("quoted-printable-reencoded"));
    EXPECT_THAT(with(&BodyFacts::hasHeader),
                ElementsAre("header-refolded", "header-blanks-changed", "header-names-respelled", "parameters-requoted",
                            "character-set-respelled"));
    BodyFacts parts;
    parts.hasMultipart = parts.hasEpilogue = parts.hasPreamble = true;
    EXPECT_THAT(namesFor(parts), ElementsAre("footer-after-last-boundary", "preamble-added", "preamble-changed"));
    BodyFacts sets;
    sets.characterSets = {"utf-8", "koi8-r"};
    EXPECT_THAT(namesFor(sets), ElementsAre("character-set-changed"));
    EXPECT_EQ(recipesFor(sets).size(), 4U);
    sets.characterSets = {"iso-8859-1", "windows-1252"};
    EXPECT_EQ(recipesFor(sets).size(), 4U);
}

TEST(RecipesTest, Lines) {
    BodyFacts facts;
    facts.hasBlanksAtLineEnds = facts.hasEscapedFrom = facts.hasDeeplyEscapedFrom = facts.hasFrom = facts.hasTwoDots =
        facts.hasDot = facts.hasBareSeparator = true;
    const std::string body = "x \nFrom a\n>From b\n>>From c\n.\n..\n--\n";
    EXPECT_EQ(undone(facts, "no line of the signed text ended with blanks", body),
              "x\nFrom a\n>From b\n>>From c\n.\n..\n--\n");
    facts.hasDeeplyEscapedFrom = false;
    EXPECT_EQ(undone(facts, R"(put in front of lines of the signed text that began with "From ")", body),
              "x \nFrom a\nFrom b\n>>From c\n.\n..\n--\n");
    facts.hasDeeplyEscapedFrom = true;
    EXPECT_EQ(undone(facts, R"(">From " and so on)", body), "x \nFrom a\nFrom b\n>From c\n.\n..\n--\n");
    EXPECT_EQ(undone(facts, R"(the ">" was taken away)", body), "x \n>From a\n>From b\n>>From c\n.\n..\n--\n");
    EXPECT_EQ(undone(facts, "which was doubled", body), "x \nFrom a\n>From b\n>>From c\n.\n.\n--\n");
    EXPECT_EQ(undone(facts, "one of which was lost", body), "x \nFrom a\n>From b\n>>From c\n..\n...\n--\n");
    EXPECT_EQ(undone(facts, "lost its blank", body), "x \nFrom a\n>From b\n>>From c\n.\n..\n-- \n");
}

TEST(RecipesTest, AroundParts) {
    BodyFacts facts;
    facts.hasMultipart = facts.hasEpilogue = facts.hasPreamble = true;
    const std::string header = "Content-Type: multipart/mixed; boundary=b\n\n";
    const std::string part = "--b\n\nx\n--b--\n";
    const std::string body = header + "old\n" + part + "after\n";
    EXPECT_EQ(undone(facts, "behind the last boundary", body), header + "old\n" + part);
    EXPECT_EQ(undone(facts, "what stands there was added", body), header + part + "after\n");
    EXPECT_EQ(undone(facts, "had an empty line in front", body), header + "\r\n" + part + "after\n");
    for (const std::string& line :
         {std::string("This is a multi-part message in MIME format."),
          std::string("This is a cryptographically signed message in MIME format."),
          std::string("This is a message in MIME format."), std::string("This is an S/MIME signed message")}) {
        EXPECT_EQ(undone(facts, "the line \"" + line + "\" in front", body), header + line + "\r\n" + part + "after\n");
        EXPECT_EQ(undone(facts, "the line \"" + line + "\" and an empty one", body),
                  header + line + "\r\n\r\n" + part + "after\n");
    }
}

TEST(RecipesTest, Base64AndQuotedPrintable) {
    BodyFacts facts;
    facts.hasBase64 = facts.hasBase64Text = facts.hasQuotedPrintable = facts.hasSmallHexDigits =
        facts.hasCapitalHexDigits = facts.hasEightBitText = true;
    const std::string base64 = "Content-Transfer-Encoding: base64\n\n";
    const std::string letters(160, 'A');
    for (const std::size_t width : {76U, 64U, 72U, 60U}) {
        std::string lines;
        for (std::size_t at = 0; at < letters.size(); at += width) {
            lines += (at == 0 ? "" : "\r\n") + letters.substr(at, width);
        }
        EXPECT_EQ(undone(facts, "stood in lines of " + std::to_string(width) + " characters", base64 + letters + "\n"),
                  base64 + lines + "\n");
    }
    EXPECT_EQ(undone(facts, "stood on one line", base64 + "AAAA\nAAAA\n"), base64 + "AAAAAAAA\n");

    const std::string quoted = "Content-Transfer-Encoding: quoted-printable\n\n";
    const std::string eight = "Content-Transfer-Encoding: 8bit\n\n";
    const std::string body = quoted + "=c3=A9\n.\nFrom x\n";
    EXPECT_EQ(undone(facts, "had capital digits", body), quoted + "=C3=A9\n.\nFrom x\n");
    EXPECT_EQ(undone(facts, "had small digits", body), quoted + "=c3=a9\n.\nFrom x\n");
    EXPECT_EQ(undone(facts, "quoted-printable of the signed text was decoded", body), quoted + "=C3=A9\n.\nFrom x\n");
    EXPECT_EQ(undone(facts, "quoted-printable of the signed text (with lone dots encoded)", body),
              quoted + "=C3=A9\n=2E\nFrom x\n");
    EXPECT_EQ(undone(facts, R"(quoted-printable of the signed text (with "From " and leading dots)", body),
              quoted + "=C3=A9\n=2E\n=46rom x\n");
    // "é\n.\nFrom x\n" with CR LF, by `base64`.
    const std::string text = base64 + "w6kNCi4NCkZyb20geA0K\n";
    EXPECT_EQ(undone(facts, "was quoted-printable; base64", text), quoted + "=C3=A9\r\n.\r\nFrom x\r\n");
    EXPECT_EQ(undone(facts, "was quoted-printable (with lone dots encoded); base64", text),
              quoted + "=C3=A9\r\n=2E\r\nFrom x\r\n");
    EXPECT_EQ(undone(facts, "leading dots encoded); base64", text), quoted + "=C3=A9\r\n=2E\r\n=46rom x\r\n");
    EXPECT_EQ(undone(facts, "was quoted-printable; 8-bit", eight + "\xC3\xA9\n"), quoted + "=C3=A9\n");
    EXPECT_EQ(undone(facts, "was quoted-printable (with lone dots encoded); 8-bit", eight + ".\n"), quoted + "=2E\n");
    EXPECT_EQ(undone(facts, "leading dots encoded); 8-bit", eight + "..\n"), quoted + "=2E.\n");
    EXPECT_EQ(undone(facts, "was base64; quoted-printable", body), text);
    EXPECT_EQ(undone(facts, "was base64 with line ends of LF inside; quoted-printable", quoted + "x\ny\n"),
              base64 + "eAp5Cg==\n");
    EXPECT_EQ(undone(facts, "was base64; 8-bit", eight + "x\n"), base64 + "eA0K\n");
    EXPECT_EQ(undone(facts, "was base64 with line ends of LF inside; 8-bit", eight + "x\n"), base64 + "eAo=\n");
    for (const std::string& name : {std::string("8bit"), std::string("7bit"), std::string("8BIT")}) {
        EXPECT_EQ(undone(facts, "was sent as " + name, quoted + "=C3=A9\n"),
                  "Content-Transfer-Encoding: " + name + "\n\n\xC3\xA9\n");
        EXPECT_EQ(undone(facts, "was sent as " + name, base64 + "eA0K\n"),
                  "Content-Transfer-Encoding: " + name + "\n\nx\r\n");
    }
    EXPECT_EQ(undone(facts, "named no transfer encoding", "A: b\n" + quoted + "=C3=A9\n"), "A: b\n\n\xC3\xA9\n");
}

TEST(RecipesTest, CharacterSets) {
    BodyFacts facts;
    facts.characterSets = {"utf-8", "iso-8859-1", "windows-1252", "iso-8859-15"};
    const auto fields = [](const std::string& set) { return "Content-Type: text/plain; charset=" + set + "\n\n"; };
    for (const std::string& set : {std::string("ISO-8859-1"), std::string("iso-8859-1"), std::string("windows-1252"),
                                   std::string("ISO-8859-15")}) {
        EXPECT_EQ(undone(facts, "character set " + set + "; it was converted to utf-8", fields("utf-8") + "\xC3\xA9\n"),
                  fields(set) + "\xE9\n");
    }
    for (const std::string& set :
         {std::string("iso-8859-1"), std::string("windows-1252"), std::string("iso-8859-15")}) {
        for (const std::string& utf8 : {std::string("UTF-8"), std::string("utf-8")}) {
            EXPECT_EQ(
                undone(facts, "character set " + utf8 + "; it was converted to " + set + " ", fields(set) + "\xE9\n"),
                fields(utf8) + "\xC3\xA9\n");
        }
    }
}

TEST(RecipesTest, HeaderFields) {
    BodyFacts facts;
    facts.hasHeader = true;
    const auto as = [&](const std::string& text) {
        const std::string out =
            undone(facts, "stood there " + text,
                   "content-TYPE:  text/plain;charset=Utf-8;\n \tname=x; size=\"1\"\nMIME-version: 1.0\n\nx");
        EXPECT_TRUE(out.ends_with("\n\nx"));
        return out.substr(0, out.size() - 3);
    };
    const std::string type = "content-TYPE:  text/plain;charset=Utf-8;";
    const std::string version = "\nMIME-version: 1.0";
    struct Row {
        std::string text, fields;
    };
    for (const Row& row : std::vector<Row>{
             {"on one line each, with all their blanks", type + " \tname=x; size=\"1\"" + version},
             {"continued with a tab", type + "\n\tname=x; size=\"1\"" + version},
             {"continued with a blank", type + "\n name=x; size=\"1\"" + version},
             {"with each parameter on a line, behind a tab",
              "content-TYPE:  text/plain;\n\tcharset=Utf-8;\n\tname=x;\n\tsize=\"1\"" + version},
             {"with each parameter on a line, behind a blank",
              "content-TYPE:  text/plain;\n charset=Utf-8;\n name=x;\n size=\"1\"" + version},
             {"folded in front of the first parameter, with a tab",
              "content-TYPE:  text/plain;\n\tcharset=Utf-8; name=x; size=\"1\"" + version},
             {"folded in front of the first parameter, with a blank",
              "content-TYPE:  text/plain;\n charset=Utf-8; name=x; size=\"1\"" + version},
             {"folded in front of the last parameter, with a tab", type + " name=x;\n\tsize=\"1\"" + version},
             {"folded in front of the last parameter, with a blank", type + " name=x;\n size=\"1\"" + version},
             {"with one blank behind the colon",
              "content-TYPE: text/plain;charset=Utf-8;\n \tname=x; size=\"1\"" + version},
             {"without blanks behind the colon",
              "content-TYPE:text/plain;charset=Utf-8;\n \tname=x; size=\"1\"\nMIME-version:1.0"},
             {"with one blank behind semicolons",
              "content-TYPE:  text/plain; charset=Utf-8;\n \tname=x; size=\"1\"" + version},
             {"without blanks behind semicolons",
              "content-TYPE:  text/plain;charset=Utf-8;\n \tname=x;size=\"1\"" + version},
             {R"(under names such as "MIME-Version" and "Content-Type")",
              "Content-Type:  text/plain;charset=Utf-8;\n \tname=x; size=\"1\"\nMIME-Version: 1.0"},
             {R"(under names such as "Mime-Version" and "Content-Type")",
              "Content-Type:  text/plain;charset=Utf-8;\n \tname=x; size=\"1\"\nMime-Version: 1.0"},
             {R"(under names such as "Mime-version" and "Content-type")",
              "Content-type:  text/plain;charset=Utf-8;\n \tname=x; size=\"1\"\nMime-version: 1.0"},
             {R"(under names such as "mime-version" and "content-type")",
              "content-type:  text/plain;charset=Utf-8;\n \tname=x; size=\"1\"\nmime-version: 1.0"},
             {"with quotes around",
              "content-TYPE:  text/plain;charset=\"Utf-8\";\n \tname=\"x\"; size=\"1\"" + version},
             {"without quotes around", type + "\n \tname=x; size=1" + version},
             {"with the character set in capital letters",
              "content-TYPE:  text/plain;charset=UTF-8;\n \tname=x; size=\"1\"" + version},
             {"with the character set in small letters",
              "content-TYPE:  text/plain;charset=utf-8;\n \tname=x; size=\"1\"" + version}}) {
        EXPECT_EQ(as(row.text), row.fields) << row.text;
    }
    const std::vector<Recipe> recipes = recipesFor(facts);
    EXPECT_EQ(recipes.size(), 22U);
    // What it says is how the one behind it begins, too.
    EXPECT_EQ(recipes.front().text, "the header fields of the signed text stood there on one line each");
    EXPECT_EQ(undone(recipes.front(), "A: b\n  c\n\nx"), "A: b c\n\nx");
}

} // namespace
