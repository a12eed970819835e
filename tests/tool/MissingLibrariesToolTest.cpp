// The tool where a library that it loads when it needs it is not installed: told on one line, and all else goes on.

#include "support/Costly.h"
#include "support/SigningToolTest.h"

#include <utility>

using namespace interop;

namespace {

constexpr const char* mail = "From: alice@example.org\r\nTo: bob@example.org\r\nSubject: none\r\n"
                             "Content-Type: text/plain; charset=utf-8\r\n\r\nhello\r\n";

class MissingLibraries : public ToolTest {
protected:
    /// Has the loader find, under the name of a library, what is none.
    void hide(const std::string& library) {
        work.write(library, "this is no library");
        before = work.names();
    }
    Answer tool(const std::vector<std::string>& arguments, const std::string& input = "") {
        return norvcrypt(Command{.arguments = arguments,
                                 .input = input,
                                 .directory = work.directory(),
                                 .environment = {{"LD_LIBRARY_PATH", work.directory()}}});
    }
};

// What is thrown for the missing library once passed through a frame of C, where the tool's own unwinder aborted.
TEST_F(MissingLibraries, WithoutGmimeMailsAreRefusedOnOneLine) {
    hide("libgmime-3.0.so.0");
    const std::string missing = "libgmime-3.0.so.0 is not installed, or another version of it";
    expectFailure(tool({"smime", "inspect"}, mail), missing);
    expectFailure(tool({"smime", "verify"}, mail), missing);
    work.write("mail.eml", mail);
    before = work.names();
    expectFailure(tool({"smime", "verify", "--in", "mail.eml"}), missing);
}

TEST_F(MissingLibraries, WithoutGmimeAllElseGoesOn) {
    hide("libgmime-3.0.so.0");
    const Answer answer = tool({"digest"}, "abc"); // FIPS 180-2, the example "abc"
    EXPECT_EQ(answer.status, 0) << answer.err;
    EXPECT_NE(answer.out.find("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"), std::string::npos);
}

TEST_F(MissingLibraries, WithoutLibgcryptIdeaFailsOnOneLine) {
    hide("libgcrypt.so.20");
    expectFailure(tool({"cipher", "encrypt", "--cipher", "idea-cbc", "--key-hex", std::string(32, '1'), "--iv-hex",
                        std::string(16, '2')},
                       "text"),
                  "the cipher is not supported here (IDEA needs libgcrypt)");
}

// The reason of every later failure was that of the provider, and keys that need it had a wrong passphrase.
TEST_F(MissingLibraries, WithoutTheLegacyProviderFailuresHaveTheirOwnReasons) {
    work.write("alice.pem", alice().certificate.pem());
    work.write("alice.key", alice().key.pkcs8Pem());
    work.write("pass", std::string("secret\n"));
    work.write("odd.key", norvauthority::pem("ENCRYPTED PRIVATE KEY", norvtest::sealedInUnsupportedWays().at(3)));
    const Answer made = run({.arguments = {"openssl", "pkcs8", "-topk8", "-v1", "PBE-MD5-DES", "-provider", "legacy",
                                           "-provider", "default", "-in", work.path("alice.key"), "-passout",
                                           "file:" + work.path("pass"), "-out", work.path("old.key")}});
    ASSERT_EQ(0, made.status) << made.err;
    before = work.names();
    for (const auto& [key, reason] : {std::pair{"odd.key", "its cipher is not supported"},
                                      std::pair{"old.key", "it is damaged, or of a kind that is not supported"}})
        expectFailure(
            norvcrypt(Command{.arguments = {"sign", "--cert", "alice.pem", "--key", key, "--passphrase-file", "pass"},
                              .input = "body",
                              .directory = work.directory(),
                              .environment = {{"OPENSSL_MODULES", "/nonexistent"}}}),
            std::string("cannot read the private key in ") + key + ": " + reason + "\n");
}

TEST_F(MissingLibraries, LibrariesInTheCurrentFolderAreNotLoaded) {
    for (const char* const library : {"libgmime-3.0.so.0", "libgcrypt.so.20", "libcrypto.so.3", "libssl.so.3"})
        hide(library);
    const Answer answer =
        norvcrypt(Command{.arguments = {"smime", "inspect"}, .input = mail, .directory = work.directory()});
    EXPECT_EQ(answer.err, "");
    EXPECT_NE(answer.status, 2);
}

} // namespace
