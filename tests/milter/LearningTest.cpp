// Certificates that are learnt from signed mails, listed, revoked and used.

#include "World.h"

#include <csignal>
#include <sys/resource.h>

namespace {

using namespace miltertesting;

const std::string plain = "From: Anna <anna@a.example>\r\nTo: bert@b.example\r\nMessage-ID: <7@a.example>\r\n"
                          "Content-Type: text/plain\r\n\r\nhello\r\n";
const std::string learning = "[learn]\nenabled = true\nfolder = \"learnt\"\n";

class LearningFromMail : public testing::Test {
protected:
    void SetUp() override { m_world.add("bert", bert(), "bert@b.example", true); }

    Outcome received(const Engine& engine, const std::string& mail, const std::string& queueId = "Q1") {
        Message message = messageOf(mail);
        message.envelope.queueId = queueId;
        return engine.handle(message, Deadline());
    }
    [[nodiscard]] std::vector<LearntEntry> list() const { return LearntFolder::list(m_world.path("learnt")); }

    World m_world;
};

const std::string mustEncrypt = "[[outgoing.rule]]\nname = \"all\"\nsign = \"never\"\nencrypt = \"must\"\n";

/// To anna, whose certificate nobody put into the store.
Message mailToAnna() {
    Message message = mailOf({"anna@a.example"}, "anna@a.example");
    message.envelope.sender = "bert@b.example";
    message.header[1].value = " bert@b.example";
    return message;
}

TEST_F(LearningFromMail, IsOffByDefault) {
    const Engine engine = m_world.engine("");
    EXPECT_EQ(received(engine, wrapped(plain, {signedBy(anna())})).told("learnt"), "");
    EXPECT_EQ(m_world.stores().learnt(), nullptr);
    EXPECT_TRUE(list().empty());
}

TEST_F(LearningFromMail, IsLearntUsedListedAndRevoked) {
    const Engine engine = m_world.engine(mustEncrypt, learning);
    EXPECT_EQ(engine.handle(mailToAnna(), Deadline()).action, Action::reject);
    const std::string mail = wrapped(plain, {signedBy(anna())});
    EXPECT_EQ(received(engine, mail).told("learnt"), "learnt");
    EXPECT_EQ(received(engine, mail).told("learnt"), "");
    ASSERT_EQ(list().size(), 1U);
    const LearntEntry entry = list().front();
    EXPECT_EQ(entry.address, "anna@a.example");
    EXPECT_EQ(entry.message, "<7@a.example>");
    EXPECT_EQ(entry.queueId, "Q1");
    EXPECT_EQ(entry.subject, "CN=anna");
    EXPECT_EQ(entry.at.size(), 20U);
    EXPECT_FALSE(entry.revoked);

    const Message message = mailToAnna();
    const Outcome encrypted = engine.handle(message, Deadline());
    ASSERT_EQ(encrypted.action, Action::change) << encrypted.reply.text;
    EXPECT_THAT(read(delivered(message, encrypted).text(), {&anna()}).content, HasSubstr("this is all."));

    EXPECT_TRUE(LearntFolder::revoke(m_world.path("learnt"), entry.name));
    EXPECT_FALSE(LearntFolder::revoke(m_world.path("learnt"), entry.name));
    EXPECT_TRUE(list().front().revoked);
    // At once, without loading anything anew.
    EXPECT_EQ(engine.handle(message, Deadline()).action, Action::reject);
    EXPECT_EQ(received(engine, mail).told("learnt"), "revoked");
    m_world.stores().reload();
    EXPECT_EQ(m_world.stores().learnt()->size(), 0U);
    EXPECT_EQ(received(engine, mail).told("learnt"), "revoked");
    EXPECT_EQ(engine.handle(message, Deadline()).action, Action::reject);
}

/// The layout is that of a store.
TEST_F(LearningFromMail, TheFolderIsAStore) {
    const Engine engine = m_world.engine("", learning);
    EXPECT_EQ(received(engine, wrapped(plain, {signedBy(anna())})).told("learnt"), "learnt");
    const NVX509::RefDirectoryKeyStore store(m_world.path("learnt"));
    EXPECT_TRUE(store->contents()->problems.empty());
    EXPECT_TRUE(NVX509::sameEncoding(
        store->findEncryptionCertificate(Norvane::EmailAddress::rfc5321Parse("anna@a.example", false)),
        certificateOf(anna())));
}

TEST_F(LearningFromMail, OnlyWhomTheVerdictAccepts) {
    const Engine engine = m_world.engine("", learning);
    const Identity other = norvauthority::issue({.subject = {{"CN", "Other CA"}},
                                                 .key = norvauthority::Key::fromPem(norvtest::storedKeyPem("carol")),
                                                 .ca = true});
    std::string changed = wrapped(plain, {signedBy(anna())});
    changed.replace(changed.find("hello"), 5, "HELLO");
    const std::vector<std::string> mails{
        wrapped(plain, {signedBy(person("anna@a.example", "alice", {.issuer = &other}))}),
        wrapped(plain, {signedBy(person("eve@a.example", "alice"))}),
        changed,
        wrapped(plain, {signedBy(person("anna@a.example", "alice", {.keyUsage = 0x80}))}), // not to be encrypted to
        wrapped("From: anna@a.example, eve@a.example\r\n" + plain.substr(plain.find("To:")), {signedBy(anna())}),
    };
    for (const std::string& mail : mails)
        EXPECT_EQ(received(engine, mail).told("learnt"), "");
    EXPECT_TRUE(list().empty());
}

/// Who signs with one key and decrypts with another sends both certificates.
TEST_F(LearningFromMail, TheOtherCertificateOfTheSigner) {
    const Engine engine = m_world.engine("", learning);
    const Identity signing = person("anna@a.example", "alice", {.keyUsage = 0x80});
    const Identity encryption = person("anna@a.example", "carol", {.keyUsage = 0x20});
    SMime::SignOptions options = signedBy(signing);
    options.certificates = {certificateOf(encryption), certificateOf(bert()), certificateOf(root())};
    EXPECT_EQ(received(engine, wrapped(plain, {options})).told("learnt"), "learnt");
    ASSERT_EQ(list().size(), 1U);
    const auto found = m_world.stores().learnt()->find("anna@a.example");
    ASSERT_EQ(found.size(), 1U);
    EXPECT_TRUE(NVX509::sameEncoding(found.front(), certificateOf(encryption)));
    EXPECT_TRUE(m_world.stores().learnt()->find("bert@b.example").empty());
    EXPECT_EQ(m_world.stores().learnt()->find("anna@A.Example").size(), 1U);
    EXPECT_TRUE(m_world.stores().learnt()->find("Anna@a.example").empty());
    EXPECT_TRUE(m_world.stores().learnt()->find("not an address").empty());
}

TEST_F(LearningFromMail, IsBoundedForEachAddressAndInAll) {
    LearntFolder folder(m_world.path("learnt"), 2, 3);
    const auto certificate = [](const std::string& address, long days) {
        return certificateOf(person(address, "alice", {.notAfter = norvauthority::Time::fromNow(days * 86400)}));
    };
    EXPECT_EQ(folder.learn("a@a.example", certificate("a@a.example", 10), "", ""), Learning::learnt);
    EXPECT_EQ(folder.learn("a@a.example", certificate("a@a.example", 20), "", ""), Learning::learnt);
    EXPECT_EQ(folder.learn("a@a.example", certificate("a@a.example", 5), "", ""), Learning::notNewer);
    const auto longest = certificate("a@a.example", 30);
    EXPECT_EQ(folder.learn("a@a.example", longest, "", ""), Learning::learnt);
    EXPECT_EQ(folder.size(), 2U);
    const auto found = folder.find("a@a.example");
    ASSERT_EQ(found.size(), 2U);
    EXPECT_TRUE(NVX509::sameEncoding(found.front(), longest));
    EXPECT_EQ(folder.learn("b@a.example", certificate("b@a.example", 10), "", ""), Learning::learnt);
    EXPECT_EQ(folder.learn("c@a.example", certificate("c@a.example", 10), "", ""), Learning::full);
    EXPECT_EQ(list().size(), 3U);
    LearntFolder again(m_world.path("learnt"), 2, 3);
    EXPECT_EQ(again.size(), 3U);
    EXPECT_EQ(again.find("a@a.example").size(), 2U);
}

/// Several filters share a folder, and so do an old and a new configuration while one takes the other's place.
TEST_F(LearningFromMail, WhatAnotherLearntIsUsedOnceItIsSeenAgain) {
    LearntFolder one(m_world.path("learnt"), 4, 10);
    LearntFolder other(m_world.path("learnt"), 4, 10);
    const auto certificate = certificateOf(person("a@a.example", "alice"));
    ASSERT_EQ(one.learn("a@a.example", certificate, "", ""), Learning::learnt);
    EXPECT_EQ(other.learn("a@a.example", certificate, "", ""), Learning::known);
    EXPECT_EQ(other.find("a@a.example").size(), 1U);
    EXPECT_EQ(other.size(), 1U);
    EXPECT_EQ(other.learn("a@a.example", certificate, "", ""), Learning::known);
    EXPECT_EQ(other.size(), 1U);
}

/// Folders are collected from several hosts by copying: what was revoked on one comes back from another.
TEST_F(LearningFromMail, WhatWasRevokedComesBackFromNowhere) {
    const std::string place = m_world.path("learnt");
    LearntFolder folder(place, 1, 2);
    const auto certificate = certificateOf(person("a@a.example", "alice"));
    ASSERT_EQ(folder.learn("a@a.example", certificate, "", ""), Learning::learnt);
    const std::string name = list().front().name;
    std::filesystem::copy(place + '/' + name, m_world.path("copy"));
    ASSERT_TRUE(LearntFolder::revoke(place, name));
    std::filesystem::copy(m_world.path("copy"), place + '/' + name);
    EXPECT_TRUE(folder.find("a@a.example").empty());
    EXPECT_EQ(folder.learn("a@a.example", certificate, "", ""), Learning::revoked);
    LearntFolder other(place, 1, 2);
    EXPECT_TRUE(other.find("a@a.example").empty());
    EXPECT_EQ(other.size(), 0U) << "nor does it take the place of another one";
    // Whoever sees it in the list, where both are, takes it away.
    EXPECT_EQ(list().size(), 2U);
    EXPECT_TRUE(LearntFolder::revoke(place, name));
    ASSERT_EQ(list().size(), 1U);
    EXPECT_TRUE(list().front().revoked);
    EXPECT_FALSE(LearntFolder::revoke(place, name));
}

/// What is there goes once the new one is on the disk: without it the next message would leave in clear.
TEST_F(LearningFromMail, AFullDiskTakesNothingAway) {
    LearntFolder folder(m_world.path("learnt"), 1, 3);
    const auto certificate = [](long days) {
        return certificateOf(person("a@a.example", "alice", {.notAfter = norvauthority::Time::fromNow(days * 86400)}));
    };
    ASSERT_EQ(folder.learn("a@a.example", certificate(10), "", ""), Learning::learnt);
    const auto later = certificate(20);
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    const auto handler = std::signal(SIGXFSZ, SIG_IGN);
    const rlimit none{0, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &none), 0);
    bool isTold = false;
    try {
        static_cast<void>(folder.learn("a@a.example", later, "", ""));
    } catch (const Temporary&) {
        isTold = true;
    }
    setrlimit(RLIMIT_FSIZE, &before);
    std::signal(SIGXFSZ, handler);
    EXPECT_TRUE(isTold);
    EXPECT_EQ(folder.size(), 1U);
    EXPECT_EQ(folder.find("a@a.example").size(), 1U);
    EXPECT_EQ(list().size(), 1U);
    EXPECT_EQ(folder.learn("a@a.example", later, "", ""), Learning::learnt);
    ASSERT_EQ(folder.find("a@a.example").size(), 1U);
    EXPECT_TRUE(NVX509::sameEncoding(folder.find("a@a.example").front(), later));
    EXPECT_EQ(list().size(), 1U);
}

/// An address that would mean others too in the file of owners.
TEST_F(LearningFromMail, OddAddresses) {
    LearntFolder folder(m_world.path("learnt"), 4, 100);
    for (const std::string address : {"*@a.example", "a?b@a.example", "#a@a.example", "\"a b\"@a.example", "", "nobody",
                                      "a@a.example\nb@a.example"}) {
        EXPECT_EQ(folder.learn(address, certificateOf(person(address.empty() ? "x" : address, "alice")), "", ""),
                  Learning::unsuitable)
            << address;
    }
    EXPECT_EQ(folder.learn("a@a.example", NVX509::RefCertificate(), "", ""), Learning::unsuitable);
    EXPECT_TRUE(std::filesystem::is_empty(m_world.path("learnt")));
    const std::string id = "<a\nb\"\x1b[31m" + std::string(5000, 'x') + ">";
    EXPECT_EQ(folder.learn("o'x@a.example", certificateOf(person("o'x@a.example", "alice")), id, "q\n1"),
              Learning::learnt);
    ASSERT_EQ(list().size(), 1U);
    EXPECT_EQ(list().front().queueId, "q\\x0A1");
    EXPECT_EQ(list().front().message.find('\n'), std::string::npos);
    EXPECT_EQ(list().front().message.find('\x1b'), std::string::npos);
}

/// What lies in the folder and is none of ours.
TEST_F(LearningFromMail, OddFolders) {
    m_world.write("learnt/something/cert.pem", anna().certificate.pem());
    m_world.write("learnt/file", "x");
    std::filesystem::create_directories(m_world.path("learnt/.new-abc"));
    const std::string name(32, 'a');
    m_world.write("learnt/" + name + "-" + name + "/cert.pem", "not a certificate");
    m_world.write("learnt/" + name + "-" + name + "/learnt.toml", "= broken");
    LearntFolder folder(m_world.path("learnt"), 4, 100);
    EXPECT_EQ(folder.size(), 1U);
    ASSERT_EQ(list().size(), 1U);
    EXPECT_EQ(list().front().subject, "learnt.toml cannot be read");
    EXPECT_FALSE(LearntFolder::revoke(m_world.path("learnt"), "something"));
    EXPECT_FALSE(LearntFolder::revoke(m_world.path("learnt"), "../store/bert"));
    EXPECT_THROW(LearntFolder(m_world.path("missing"), 4, 100), Temporary);
    EXPECT_THROW(static_cast<void>(LearntFolder::list(m_world.path("missing"))), Temporary);
}

/// A folder that cannot be written to is no reason to lose a mail.
TEST_F(LearningFromMail, TroubleWithTheFolderIsToldAndNoMore) {
    const Engine engine = m_world.engine("", learning);
    std::filesystem::remove_all(m_world.path("learnt"));
    const Outcome outcome = received(engine, wrapped(plain, {signedBy(anna())}));
    EXPECT_EQ(outcome.action, Action::change);
    EXPECT_EQ(outcome.told("smime"), "pass");
    EXPECT_THAT(outcome.told("learnt"), HasSubstr("No such file"));
}

} // namespace
