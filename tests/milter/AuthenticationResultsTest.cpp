// The field Authentication-Results: written as RFC 8601 and RFC 7281 have it, and read as far as whose it is.

#include "World.h"

#include "engine/AuthenticationResults.h"
#include "engine/HeaderEdits.h"

namespace {

using namespace miltertesting;

/// Those of RFC 8601, appendix B, and what its grammar allows beside.
TEST(AuthenticationResults, WhoseFieldItIs) {
    const std::vector<std::pair<std::string, const char*>> cases{
        {" example.org 1; none", "example.org"},
        {" example.com;\n spf=pass smtp.mailfrom=example.net", "example.com"},
        {" example.com;\n          auth=pass (cleartext) smtp.auth=sender@example.net;\n          spf=pass "
         "smtp.mailfrom=example.net",
         "example.com"},
        {" example.com;\n               iprev=pass policy.iprev=192.0.2.200", "example.com"},
        {" foo.example.net (foobar) 1 (baz);\n         dkim (Because I like it) / 1 (One yay) = (wait for it) fail\n"
         "           policy (A dot can go here) . (like that) expired\n           (this surprised me) = (as I wasn't "
         "expecting it) 1362471462",
         "foo.example.net"},
        {"(comment (in (comments)) \\) here)\n example.com ; none", "example.com"},
        {" \"example.com\"; none", "example.com"},
        {" \"exam\\ple.com\" 1 ; none", "example.com"},
        {" \"with blank\"; none", "with blank"},
        {"EXAMPLE.com;none", "EXAMPLE.com"},
        {" example.com", "example.com"},
        {" ex\xc3\xa4mple.com; none", "ex\xc3\xa4mple.com"},
    };
    for (const auto& [value, identifier] : cases)
        EXPECT_EQ(authservIdOf(value), std::optional<std::string>(identifier)) << value;
    for (const std::string value :
         {"", " ", " ;none", " (example.com; none", " \"example.com; none", " example.com/1; none",
          " exa mple.com; none", " (a) (b)", " example.com @; none", " mx.(x)example.org; none"})
        EXPECT_EQ(authservIdOf(value), std::nullopt) << value;
}

TEST(AuthenticationResults, WhatClaimsToBeOurs) {
    const std::string ours = "mx.example.org";
    for (const std::string value : {
             " mx.example.org; smime=pass",
             " MX.Example.ORG;smime=pass",
             "mx.example.org",
             " (a comment) mx.example.org (another) 1; smime=pass",
             " \"mx.example.org\"; smime=pass",
             " \"\\m\\x.example.org\" 1; smime=pass",
             "\n mx.example.org.; smime=pass",
             "\r\n\tmx.example.org\r\n\t; smime=pass",
             // What cannot be read, and somebody may read as ours.
             " mx.example.org/1; smime=pass",
             " mx . example . org; smime=pass",
             " mx.(x)example.org; smime=pass",
             " (unclosed mx.example.org; smime=pass",
             " \"mx.example.org; smime=pass",
             " @mx.example.org; smime=pass",
             " ;mx.example.org; smime=pass",
             " \"mx.example.org. \"; smime=pass",
             // Nobody's, which a reader who looks for the result alone takes for ours.
             " smime=pass body.smime-part=1",
             " ; smime=pass",
             " \"\"; smime=pass",
             " mx.(\\(x)example.org; SMIME=pass",
             " =?utf-8?B?bXguZXhhbXBsZS5vcmc=?=; smime=pass",
             // Blanks to those who know all of Unicode's.
             " \xc2\xa0mx.example.org; none",
             " mx.example.org\xe2\x80\xa8; none",
         })
        EXPECT_TRUE(claims(value, ours)) << value;
    for (const std::string value :
         {" mx.example.net; x=mx.example.org", " other.example; smime=pass (by mx.example.org)",
          " spf=pass smtp.mailfrom=a.example", " ; dkim=pass", " xmx.example.org; none",
          " \xc2\xa0mx.example.net; none", " mx.example.org.evil.example; none", "", " ;"})
        EXPECT_FALSE(claims(value, ours)) << value;
    EXPECT_TRUE(claims(" mx.b\xc3\xbc"
                       "cher.example; none",
                       "mx.xn--bcher-kva.example"));
    EXPECT_TRUE(claims(" mx.xn--bcher-kva.example; none", "mx.b\xc3\xbc"
                                                          "cher.example"));
    EXPECT_TRUE(claims(" (" + std::string(1000000, '(') + "mx.example.org", ours));
}

std::string longestLineOf(const std::string& value) {
    std::string longest;
    std::string line = "Authentication-Results:";
    for (const char one : value + '\n') {
        if (one != '\n') {
            line += one;
            continue;
        }
        longest =
            std::max(longest, line, [](const auto& left, const auto& right) { return left.size() < right.size(); });
        line.clear();
    }
    return longest;
}

TEST(AuthenticationResults, IsWritten) {
    EXPECT_EQ(valueOf("mx.example.org", {"none", "", "", "", "", ""}), " mx.example.org; smime=none");
    EXPECT_EQ(valueOf("mx.example.org", {"fail", "revoked", "2", "anna@a.example", "1f", "CN=CA,O=Example"}),
              " mx.example.org; smime=fail reason=\"revoked\"\n"
              " body.smime-part=2 body.smime-identifier=anna@a.example body.smime-serial=1f\n"
              " body.smime-issuer=\"CN=CA,O=Example\"");
    // What is not ASCII would have to be escaped, and be nobody's then.
    EXPECT_EQ(valueOf("mx.b\xc3\xbc"
                      "cher.example",
                      {"none", "", "", "", "", ""}),
              " mx.xn--bcher-kva.example; smime=none");
    const std::string long1 = valueOf(
        "mx.example.org",
        {"policy", std::string(40, 'x') + " " + std::string(40, 'y') + " " + std::string(100, 'z'), "", "", "", ""});
    EXPECT_THAT(long1, HasSubstr("\n"));
    std::string manyWords;
    for (int index = 0; index < 60; ++index)
        manyWords += "word ";
    EXPECT_LE(longestLineOf(valueOf("mx.example.org", {"policy", manyWords, "", "", "", ""})).size(), 78U);
}

/// What a stranger put into a certificate makes no field of its own, no property and no line.
TEST(AuthenticationResults, TextsOfStrangers) {
    const std::vector<std::string> texts{"a\r\nX-Injected: yes",
                                         "a\nb",
                                         "a\rb",
                                         std::string("a\0b", 3),
                                         "a\"; dkim=pass",
                                         "a\\",
                                         "\\\"",
                                         "\xc3\xa4\xff",
                                         std::string(100000, 'x'),
                                         std::string(5000, ' '),
                                         "(comment",
                                         "a b@c",
                                         "@",
                                         "a@b c",
                                         ";",
                                         "=",
                                         "a%sb@c.example",
                                         "\t"};
    for (const std::string& text : texts) {
        const std::string value = valueOf("mx.example.org", {"fail", text, "2", text, text, text});
        EXPECT_LE(value.size(), 1800U);
        EXPECT_TRUE(std::ranges::all_of(value, [](char one) { return one == '\n' || (one >= ' ' && one <= '~'); }));
        EXPECT_EQ(editable(value), value);
        EXPECT_EQ(authservIdOf(value), "mx.example.org");
        // Outside of quotes there are no more results than one.
        const std::string outside = outsideOfQuotes(value);
        EXPECT_EQ(std::ranges::count(outside, ';'), 1) << value;
        EXPECT_EQ(std::ranges::count(outside, '('), 0) << value;
        EXPECT_EQ(value.find("\n\n"), std::string::npos);
        EXPECT_EQ(value.find("\n \n"), std::string::npos);
    }
}

TEST(HeaderEdits, RemovalsCountTheFieldsOfAName) {
    const std::vector<HeaderField> header{{"A", " 1"}, {"B", " 1"}, {"a", " 2"}, {"A", " 3"}};
    const auto edits = removals(header, [](const HeaderField& field) { return field.value != " 2"; });
    std::vector<std::string> told;
    for (const HeaderEdit& edit : edits)
        told.push_back(edit.name + std::to_string(edit.occurrence));
    EXPECT_THAT(told, ElementsAre("A3", "B1", "A1"));
}

TEST(HeaderEdits, DifferenceLeavesWhatIsTheSame) {
    const std::vector<HeaderField> header{{"A", " 1"}, {"B", " 1\r\n\tx"}, {"C", " 1"}, {"D", " d"}};
    const std::vector<HeaderField> wanted{{"B", " 1\n\tx"}, {"c", " 2"}, {"E", " e\nX: y"}, {"D", " other"}};
    const auto edits = difference(header, wanted, [](const std::string& name) { return name == "d"; });
    std::vector<std::string> told;
    for (const HeaderEdit& edit : edits)
        told.push_back((edit.kind == HeaderEdit::Kind::remove ? "-" : "+") + edit.name + edit.value);
    EXPECT_THAT(told, ElementsAre("-C", "-A", "+c 2", "+E e\n X: y"));
}

TEST(Messages, FieldsAreWrittenWithLineEndsOfTheWire) {
    EXPECT_EQ(octetsOf(HeaderField{"A", " b\n\tc\r\n d\ne"}), "A: b\r\n\tc\r\n d\r\n e\r\n");
    Message message = mailOf();
    EXPECT_EQ(contentOf(message.whole()), octetsOf(message.header) + "\r\n" + textBody);
    EXPECT_EQ(message.length(), contentOf(message.whole()).size() - 1); // the fold has one octet less
    Norvane::MediaIn whole = message.whole();
    const std::string all = contentOf(whole);
    for (const unsigned long at : {0UL, 10UL, all.size() - 5, all.size()}) {
        whole.setpos(at);
        EXPECT_EQ(whole.tell(), at);
        EXPECT_EQ(contentOf(whole), all.substr(at));
    }
}

TEST(Messages, Replies) {
    EXPECT_EQ(replyOf(550, "5.7.1", "a\r\nb\xff%s").text, "a??b??s");
    EXPECT_EQ(replyOf(550, "5.7.1", std::string(5000, 'x')).text.size(), 400U);
}

} // namespace
