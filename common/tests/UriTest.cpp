#include <norvcmsg/Uri.h>

#include "Shown.h"

#include <gtest/gtest.h>

#include <ostream>
#include <string>

namespace {

using Norvane::Uri;

Uri parse(const std::string& text) {
    return {text.data(), static_cast<unsigned int>(text.size())};
}

TEST(Uri, ADefaultOneIsNull) {
    const Uri uri;
    EXPECT_TRUE(uri.isNull());
    EXPECT_EQ(uri.text(), "");
    EXPECT_EQ(uri.scheme(), "");
    EXPECT_EQ(uri.host(), "");
    EXPECT_EQ(uri.port(), -1);
    EXPECT_EQ(uri.path(), "");
}

TEST(Uri, TellsAllParts) {
    const auto uri = parse("https://user:pw@CA.example:8443/a/b%20c.crl?x=1&y#top");
    EXPECT_FALSE(uri.isNull());
    EXPECT_EQ(uri.text(), "https://user:pw@CA.example:8443/a/b%20c.crl?x=1&y#top");
    EXPECT_EQ(uri.scheme(), "https");
    EXPECT_EQ(uri.userInfo(), "user:pw");
    EXPECT_EQ(uri.host(), "CA.example");
    EXPECT_EQ(uri.port(), 8443);
    EXPECT_EQ(uri.path(), "/a/b%20c.crl");
    EXPECT_EQ(uri.query(), "x=1&y");
    EXPECT_EQ(uri.fragment(), "top");
}

struct Row {
    const char* text;
    const char* scheme;
    const char* host;
    int port;
    const char* path;
};

void PrintTo(const Row& row, std::ostream* out) {
    *out << row.text;
}

class UriParts : public testing::TestWithParam<Row> {};

TEST_P(UriParts, Are) {
    const auto& row = GetParam();
    const auto uri = parse(row.text);
    EXPECT_FALSE(uri.isNull());
    EXPECT_EQ(uri.text(), row.text);
    EXPECT_EQ(uri.scheme(), row.scheme);
    EXPECT_EQ(uri.host(), row.host);
    EXPECT_EQ(uri.port(), row.port);
    EXPECT_EQ(uri.path(), row.path);
}

// The first seven are examples of RFC 3986 section 1.1.2.
INSTANTIATE_TEST_SUITE_P(
    Texts, UriParts,
    testing::Values(Row{"ftp://ftp.is.co.za/rfc/rfc1808.txt", "ftp", "ftp.is.co.za", -1, "/rfc/rfc1808.txt"},
                    Row{"http://www.ietf.org/rfc/rfc2396.txt", "http", "www.ietf.org", -1, "/rfc/rfc2396.txt"},
                    Row{"ldap://[2001:db8::7]/c=GB?objectClass?one", "ldap", "2001:db8::7", -1, "/c=GB"},
                    Row{"mailto:John.Doe@example.com", "mailto", "", -1, "John.Doe@example.com"},
                    Row{"news:comp.infosystems.www.servers.unix", "news", "", -1, "comp.infosystems.www.servers.unix"},
                    Row{"tel:+1-816-555-1212", "tel", "", -1, "+1-816-555-1212"},
                    Row{"telnet://192.0.2.16:80/", "telnet", "192.0.2.16", 80, "/"},
                    Row{"urn:example:animal:ferret:nose", "urn", "", -1, "example:animal:ferret:nose"},
                    Row{"ldap:///CN=CA,O=X?certificateRevocationList", "ldap", "", -1, "/CN=CA,O=X"},
                    Row{"http://h", "http", "h", -1, ""}, Row{"http://h:/", "http", "h", -1, "/"},
                    Row{"http://h:65535", "http", "h", 65535, ""}, Row{"http://h:65536", "http", "h", -1, ""},
                    Row{"http://h:99999999999999999999", "http", "h", -1, ""},
                    Row{"http://h/a//b/", "http", "h", -1, "/a//b/"},
                    Row{"http://good.example@evil.example/", "http", "evil.example", -1, "/"},
                    Row{"relative/path", "", "", -1, "relative/path"}, Row{"/absolute", "", "", -1, "/absolute"},
                    Row{"//host/path", "", "host", -1, "/path"}, Row{"a:", "a", "", -1, ""},
                    Row{"a:/", "a", "", -1, "/"}));

class NoUri : public testing::TestWithParam<Shown> {};

TEST_P(NoUri, IsNull) {
    const auto uri = parse(GetParam().text);
    EXPECT_TRUE(uri.isNull());
    EXPECT_EQ(uri.text(), "");
    EXPECT_EQ(uri.host(), "");
}

INSTANTIATE_TEST_SUITE_P(Texts, NoUri,
                         testing::Values("", " ", "http://a b/", " http://a/", "http://a/\n", "http://a/\r\nX: y",
                                         "http://a/%", "http://a/%zz", "http://a/%4", "http://[::1", "http://[::g]/",
                                         "http://h:8o/", "1http://h/", "http://h/<>", "http://h/\"", "http://h/\\",
                                         "http://h/\x7F", "http://m\xC3\xBCnchen.example/", "http://h/{x}",
                                         std::string("http://good.example\0.evil.example/", 34), std::string("\0", 1),
                                         std::string("http://h/\0", 10)));

TEST(Uri, ANullTextIsNull) {
    EXPECT_TRUE(Uri(nullptr, 0).isNull());
    EXPECT_TRUE(Uri(nullptr, 5).isNull());
}

TEST(Uri, ReadsNoByteAfterItsLength) {
    const std::string text = "http://host/path";
    const Uri uri(text.data(), 11);
    EXPECT_EQ(uri.text(), "http://host");
    EXPECT_EQ(uri.path(), "");
}

TEST(Uri, CopiesAreEqual) {
    const auto uri = parse("http://h/");
    const Uri copy(uri); // NOLINT(performance-unnecessary-copy-initialization)
    EXPECT_TRUE(copy == uri);
    EXPECT_EQ(copy.host(), "h");
    EXPECT_FALSE(uri == parse("http://h"));
}

TEST(Uri, LongTextsAreParsed) {
    const auto uri = parse("http://h/" + std::string(1'000'000, 'a'));
    EXPECT_EQ(uri.path().size(), 1'000'001U);
    const auto deep = parse("http://h" + [] {
        std::string path;
        for (int i = 0; i < 100'000; ++i) {
            path += "/a";
        }
        return path;
    }());
    EXPECT_EQ(deep.path().size(), 200'000U);
}

} // namespace
