// What happens to a mail on its way, and to its writer when something fails.

#include "Generated.h"
#include "Writing.h"

#include "support/TemporaryFolder.h"

namespace {

using namespace smimetest;

const std::string mail = "From: alice@example.com\nTo: bob@example.com\nContent-Type: multipart/mixed; boundary=b\n\n"
                         "A preamble.\n--b\nContent-Type: text/plain; charset=utf-8\n\n"
                         ".\n..\n.hidden\nFrom me \n>From you\n\nGr\xc3\xbc\xc3\x9f"
                         "e\t\n\n--b\nContent-Transfer-Encoding: base64\nContent-Type: application/pdf\n\nJVBERi0x\n"
                         "--b--\nepilogue\n";

/// SMTP on a line (RFC 5321, 4.5.2), and back.
std::string throughSmtp(const std::string& sent) {
    std::string wire;
    for (std::size_t from = 0; from < sent.size();) {
        const std::size_t end = sent.find("\r\n", from);
        EXPECT_NE(end, std::string::npos);
        const std::string line = sent.substr(from, end - from);
        EXPECT_LE(line.size(), 998U);
        EXPECT_NE(line, ".") << "ends the message for a relay that forgets to double it";
        wire += (line.starts_with('.') ? "." : "") + line + "\r\n";
        from = end + 2;
    }
    std::string received;
    for (std::size_t from = 0; from < wire.size();) {
        const std::size_t end = wire.find("\r\n", from);
        const std::string line = wire.substr(from, end - from);
        received += (line.starts_with('.') ? line.substr(1) : line) + "\r\n";
        from = end + 2;
    }
    return received;
}

/// What a mailbox file makes of it: lines end with LF and have no blanks at their ends, and ">" stands before "From ".
std::string throughMailbox(const std::string& sent) {
    std::string kept;
    const std::string lines = withLf(sent);
    for (std::size_t from = 0; from < lines.size();) {
        const std::size_t end = lines.find('\n', from);
        std::string line = lines.substr(from, end - from);
        line.erase(line.find_last_not_of(" \t") + 1);
        kept += (line.starts_with("From ") ? ">" : "") + line + "\n";
        from = end + 1;
    }
    return kept;
}

TEST(SmimeWayTest, SurvivesRelaysAndMailboxes) {
    for (const bool lineFeeds : {false, true}) {
        SMime::WriteOptions how;
        how.lineEnds = lineFeeds ? SMime::LineEnds::lf : SMime::LineEnds::crlf;
        const std::string sent = wrapped(mail, {signedBy({&person("alice")})}, how);
        const std::string onWire = lineFeeds ? withCrLf(sent) : sent;
        const std::string part = verified(onWire);
        const std::string received = throughSmtp(onWire);
        EXPECT_EQ(received, onWire);
        EXPECT_EQ(verified(withCrLf(throughMailbox(received))), part);
        verified(throughMailbox(received));
        const std::string encrypted =
            wrapped(mail, {signedBy({&person("alice")}), encryptedFor({&person("bob")})}, how);
        const std::string arrived = throughMailbox(throughSmtp(lineFeeds ? withCrLf(encrypted) : encrypted));
        EXPECT_EQ(verified(decrypted(arrived, person("bob"))), part);
    }
}

TEST(SmimeWayTest, PassesOnWhatTheTargetThrowsWhereverThatIs) {
    const std::vector<SMime::Wrapping> shells{signedBy({&person("alice")}), encryptedFor({&person("bob")})};
    const std::size_t whole = wrapped(mail, shells).size();
    for (const bool opaque : {false, true}) {
        for (std::size_t room = 0; room < whole; room += 97) {
            norvtest::FailingMediaOut out(room);
            const auto work = [&] {
                SMime::wrap(MemoryMediaIn(mail),
                            opaque ? std::vector<SMime::Wrapping>{opaquelySignedBy(person("alice"))} : shells, out);
            };
            if (!opaque) {
                EXPECT_THROW(work(), norvtest::StreamFailure) << room;
                continue;
            }
            try {
                work();
            } catch (const norvtest::StreamFailure&) {
                EXPECT_LE(out.body().content.size(), room);
            }
        }
    }
}

TEST(SmimeWayTest, PassesOnWhatTheSourceThrows) {
    norvtest::FailingMediaOut out(~std::size_t{0});
    for (std::size_t at = 0; at < mail.size(); at += 31) {
        EXPECT_THROW(SMime::sign(norvtest::PieceMediaIn(mail, 10, at), signedBy({&person("alice")}), out),
                     norvtest::StreamFailure);
        EXPECT_EQ(out.body().content, "");
    }
}

TEST(SmimeWayTest, ShortMessagesFromAPipeNeedNoFolderForTemporaryFiles) {
    setenv("TMPDIR", "/nonexistent/folder", 1);
    NullMediaOut out;
    EXPECT_NO_THROW(SMime::sign(generated(1000, false), signedBy({&person("alice")}), out));
    unsetenv("TMPDIR");
}

TEST(SmimeWayTest, TellsWhenAMessageFromAPipeCannotBeKept) {
    SMime::WriteOptions how;
    how.spillTemplate = "/nowhere/at/all/XXXXXX";
    MemoryMediaOut out;
    SMime::sign(norvtest::PieceMediaIn(mail), signedBy({&person("alice")}), out, how); // short ones need no file
    verified(norvtest::textOf(out.content()));
    norvtest::FailingMediaOut nothing(~std::size_t{0});
    const std::string longMail = "Subject: x\n\n" + std::string(70000, '\n');
    EXPECT_THROW(SMime::sign(norvtest::PieceMediaIn(longMail), signedBy({&person("alice")}), nothing, how),
                 MediaException);
    EXPECT_EQ(nothing.body().content, "");
    const norvtest::TemporaryFolder folder;
    how.spillTemplate = folder.path("XXXXXX");
    MemoryMediaOut sent;
    SMime::sign(norvtest::PieceMediaIn(longMail, 1000), signedBy({&person("alice")}), sent, how);
    verified(norvtest::textOf(sent.content()));
    EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
}

/// A message that is another one when it is read again.
class ChangingImpl : public MediaInImpl {
public:
    ChangingImpl(std::string first, std::string then) : m_texts{std::move(first), std::move(then)} {}
    using MediaInImpl::read;
    [[nodiscard]] bool atEnd() const override { return m_at == text().size(); }
    [[nodiscard]] int peek() const override { return atEnd() ? -1 : static_cast<unsigned char>(text()[m_at]); }
    int read(unsigned char* out, unsigned int length) override {
        const std::size_t count = text().copy(reinterpret_cast<char*>(out), length, m_at);
        m_at += count;
        m_ended = m_ended || atEnd();
        return static_cast<int>(count);
    }
    [[nodiscard]] unsigned long tell() const override { return m_at; }
    void setpos(unsigned long position) override {
        if (m_ended) {
            ++m_reads;
            m_ended = false;
        }
        m_at = position;
    }

private:
    /// The header is read once by itself, then all of it is looked at.
    [[nodiscard]] const std::string& text() const { return m_texts.at(m_reads < 2 ? 0 : 1); }

    std::vector<std::string> m_texts;
    std::size_t m_at = 0;
    std::size_t m_reads = 0;
    bool m_ended = false;
};

TEST(SmimeWayTest, SignsNothingThatItHasNotLookedAt) {
    const auto refusedWhenItBecomes = [](const std::string& first, const std::string& then) {
        MemoryMediaOut out;
        const std::string reason = refusal([&] {
            SMime::sign(MediaIn(makeReference<ChangingImpl, MediaInImpl>(first, then)), signedBy({&person("alice")}),
                        out);
        });
        EXPECT_EQ(reason, "the message changed while it was read");
        EXPECT_FALSE(out.ended());
    };
    const std::string parts = "Content-Type: multipart/mixed; boundary=b\n\n--b\n\nx\n--b--\n";
    refusedWhenItBecomes("A: b\n\nx", "A: b\n\n\xe4");
    refusedWhenItBecomes("A: b\n\nx", "A: b\n\nxy");
    refusedWhenItBecomes(parts, "Content-Type: multipart/mixed; boundary=b\n\n--b\n\nx\n--b\n\ny\n--b--\n");
    refusedWhenItBecomes(parts, "Content-Type: multipart/mixed; boundary=b\n\n--b--\n");
}

} // namespace
