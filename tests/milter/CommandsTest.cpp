// What check, explain and learnt say.

#include "World.h"

#include "commands/Command.h"

#include <iostream>
#include <sstream>
#include <thread>

namespace {

using namespace miltertesting;

struct Said {
    int code = -1;
    std::string text;
};

/// Runs a command in this process, what it prints caught.
Said said(const std::string& line) {
    CLI::App app;
    norvmilter::Action action;
    addCheck(app, action);
    addExplain(app, action);
    addLearnt(app, action);
    app.parse(line);
    std::ostringstream out;
    std::streambuf* const before = std::cout.rdbuf(out.rdbuf());
    Said result;
    try {
        result.code = action();
    } catch (...) {
        std::cout.rdbuf(before);
        throw;
    }
    std::cout.rdbuf(before);
    result.text = out.str();
    return result;
}

const std::string rules = "[outgoing]\nsubmit = \"smtp://127.0.0.1:10026\"\n"
                          "[[outgoing.rule]]\nname = \"partners\"\nrecipient = \"*@b.example\"\nencrypt = \"must\"\n"
                          "[[outgoing.rule]]\nname = \"rest\"\nencrypt = \"possible\"\n";

class Commands : public testing::Test {
protected:
    void SetUp() override { m_world.addPeople(); }
    std::string configured(const std::string& more = "") {
        m_world.write("milter.toml", m_world.configuration(rules, more));
        return " --config " + m_world.path("milter.toml");
    }
    World m_world;
};

TEST_F(Commands, ExplainEachRecipient) {
    const Said all = said("explain" + configured() +
                          " --from anna@a.example --to bert@b.example --to zoe@c.example --bcc cleo@b.example");
    EXPECT_EQ(all.code, 0);
    EXPECT_THAT(
        all.text,
        StartsWith("direction: outgoing (as asked)\nsender anna@a.example: signs\n  certificate: CN=anna, until "));
    EXPECT_THAT(all.text, HasSubstr("recipient bert@b.example: rule partners (line 13): sign possible, encrypt must\n"
                                    "  certificate: CN=bert, until "));
    EXPECT_THAT(all.text, HasSubstr(", identity bert by its pattern bert@b.example\n"));
    EXPECT_THAT(all.text, HasSubstr("recipient zoe@c.example: rule rest (line 17): sign possible, encrypt possible\n"
                                    "  nothing in the store or learnt is for this address\n"));
    EXPECT_THAT(all.text, HasSubstr("recipient cleo@b.example (hidden): rule partners (line 13)"));
    EXPECT_THAT(all.text, HasSubstr("the message, signed, encrypted with aes-256-cbc, to bert@b.example\n"
                                    "a message of its own, signed, to zoe@c.example\n"
                                    "a message of its own, signed, encrypted with aes-256-cbc, to cleo@b.example\n"));
}

TEST_F(Commands, ExplainWhyNot) {
    m_world.add("old", person("old@b.example", "bob", {.notAfter = norvauthority::Time::fromNow(-10)}), "old@b.example",
                false);
    const Said refused = said("explain" + configured() + " --from otto@a.example --to old@b.example");
    EXPECT_EQ(refused.code, 0);
    EXPECT_THAT(refused.text,
                HasSubstr("sender otto@a.example: does not sign: no key to sign with for otto@a.example\n"));
    EXPECT_THAT(
        refused.text,
        HasSubstr("  not used: identity old by its pattern old@b.example: the certificate of CN=old expired on "));
    EXPECT_THAT(refused.text, HasSubstr("refused: 550 5.7.1 no certificate to encrypt to for old@b.example\n"));
}

/// What is given is read as the fields of a message are.
TEST_F(Commands, ExplainReadsAddressesAsTheEngineDoes) {
    const std::string to = " --to bert@b.example";
    EXPECT_THAT(said("explain" + configured() + " --from \"Anna <anna@a.example>\"" + to).text,
                HasSubstr("sender anna@a.example: signs\n"));
    EXPECT_THAT(said("explain" + configured() + " --from anna@a.example@b.example" + to).text,
                HasSubstr("does not sign: From has what is no address: anna@a.example@b.example\n"));
    EXPECT_THAT(said("explain" + configured() + " --from anna@a.example --to BERT@b.example").text,
                HasSubstr("recipient BERT@b.example: rule partners (line 13)"));
}

TEST_F(Commands, ExplainTakesWhatTheMtaMakesOfRecipients) {
    const std::string from = " --from anna@a.example";
    EXPECT_THAT(said("explain" + configured() + from + " --to zoe@c.example --bcc bert --resolved zoe@c.example").text,
                testing::AllOf(HasSubstr("recipient zoe@c.example: rule rest (line 17)"),
                               HasSubstr("recipient bert (hidden): rule partners (line 13)")));
    EXPECT_THAT(said("explain" + configured() + from + " --to zoe@c.example --bcc bert --resolved friend@b.example" +
                     " --resolved bert@c.example --resolved more@b.example")
                    .text,
                testing::AllOf(HasSubstr("recipient zoe@c.example: rule partners (line 13)"),
                               HasSubstr("recipient bert (hidden): rule rest (line 17)")));
}

TEST_F(Commands, CheckTellsOfSignaturesThatNobodyCanMake) {
    std::filesystem::remove_all(m_world.path("store/anna"));
    m_world.write("milter.toml", m_world.configuration("[[outgoing.rule]]\nname = \"all\"\nsign = \"must\"\n",
                                                       "[incoming]\ndecrypt = false\n"));
    const Said bad = said("check --config " + m_world.path("milter.toml"));
    EXPECT_EQ(bad.code, 1);
    EXPECT_THAT(bad.text,
                HasSubstr("problem: outgoing.rule: all (line 13): there is no private key to sign with, so that "
                          "messages are refused\n"));
}

TEST_F(Commands, ExplainIncomingAndDirections) {
    const std::string config = configured();
    const Said incoming =
        said("explain" + config + " --incoming --from x@y.example --to anna@a.example --to bert@b.example");
    EXPECT_THAT(incoming.text,
                StartsWith("direction: incoming (as asked)\nrecipient anna@a.example:\n  decrypted with: CN=anna"));
    EXPECT_THAT(incoming.text,
                HasSubstr("recipient bert@b.example:\n  no key of its own; any of the 1 keys of the store"));
    EXPECT_THAT(incoming.text, HasSubstr("signers judged by 1 anchors\n"));
    EXPECT_THAT(said("explain" + config + " --from a@b.example --to c@d.example --client 192.0.2.1").text,
                StartsWith("direction: incoming (no direction fits)\n"));
    EXPECT_THAT(said("explain" + config + " --from a@b.example --to c@d.example --authenticated me").text,
                StartsWith("direction: outgoing (direction in line 8)\n"));
    for (const char* const none : {"192.0.2", "192.0.2.0/24", "mail.example.org"})
        EXPECT_THROW(said("explain" + config + " --from a@b.example --to c@d.example --client " + none),
                     CLI::ValidationError)
            << none;
}

TEST_F(Commands, CheckFindsWhatWouldNotWork) {
    const std::string config = configured();
    const Said good = said("check" + config);
    EXPECT_EQ(good.code, 0) << good.text;
    EXPECT_THAT(good.text, HasSubstr("store: 3 identities, 1 with private keys\n"));
    EXPECT_THAT(good.text, HasSubstr("trust: 1 anchors, 0 intermediates, 0 revocation lists\n"));
    EXPECT_THAT(good.text, testing::EndsWith("all is well\n"));

    m_world.write("store/broken/cert.pem", "nothing");
    m_world.write("store/open/cert.pem", bert().certificate.pem());
    m_world.write("store/open/key.pem", bert().key.pkcs8Pem(), 0644);
    m_world.write("roots.pem", "nothing");
    const std::string more = "[learn]\nenabled = true\nfolder = \"missing\"\n"
                             "[[outgoing.rule]]\nname = \"all\"\n";
    m_world.write("milter.toml", m_world.configuration(rules.substr(rules.find("[[")), more));
    const Said bad = said("check --config " + m_world.path("milter.toml"));
    EXPECT_EQ(bad.code, 1);
    EXPECT_THAT(bad.text, HasSubstr("problem: " + m_world.path("missing") + ": No such file or directory\n"));
    EXPECT_THAT(bad.text, HasSubstr("partners (line 16) is never asked: all (line 14) fits everybody\n"));
    EXPECT_THAT(bad.text, HasSubstr("partners (line 16): outgoing.submit is not set"));
    std::filesystem::create_directories(m_world.path("missing"));
    const Said again = said("check --config " + m_world.path("milter.toml"));
    EXPECT_THAT(again.text, HasSubstr("problem: " + m_world.path("store/broken/cert.pem") + ": "));
    EXPECT_THAT(again.text, HasSubstr("problem: " + m_world.path("store/open/key.pem") + ": "));
    EXPECT_THAT(again.text,
                HasSubstr("problem: trust.anchors: there is no certificate in them, so that nobody is trusted\n"));
    EXPECT_THROW(static_cast<void>(said("check --config " + m_world.path("nothing.toml"))), ConfigError);
}

/// The value of a setting in the unit that is shipped.
std::string settingOfUnit(const std::string& name) {
    std::ifstream unit(std::string(norvtest::sourceDirectory) + "/tools/milter/systemd/norvcrypt-milter.service");
    for (std::string line; std::getline(unit, line);) {
        if (line.starts_with(name + '='))
            return line.substr(name.size() + 1);
    }
    return {};
}

TEST_F(Commands, CheckTellsOfLimitsThatDoNotFit) {
    // What the unit says is what is told of it: TasksMax=512, and 3 threads for each of 165 connections with 16 more are 511.
    EXPECT_EQ(settingOfUnit("TasksMax"), "512");
    EXPECT_EQ(settingOfUnit("MemoryMax"), "2G");
    const auto told = [&](const std::string& limits) { return said("check" + configured("[limits]\n" + limits)).text; };
    EXPECT_THAT(told("connections = 165\n"), Not(HasSubstr("limits.")));
    EXPECT_THAT(told("connections = 166\n"),
                HasSubstr("limits.connections: 166 connections may need 514 threads: the systemd unit allows 512 "
                          "(TasksMax), raise it as well\n"));
    EXPECT_THAT(told("connections = 100\nmemory_bytes = 268435456\n"),
                HasSubstr("limits.connections: 100 connections may need 316 MiB for the stacks of threads, more than "
                          "half of limits.memory_bytes (256 MiB)\n"));
    EXPECT_THAT(told("connections = 20\nmemory_bytes = 268435456\n"), Not(HasSubstr("limits.")));
    for (const char* const much : {"0", "3221225472"})
        EXPECT_THAT(told(std::string("memory_bytes = ") + much + "\n"),
                    HasSubstr("limits.memory_bytes: the systemd unit allows 2048 MiB (MemoryMax)"));
    // It is for the operator to know, and keeps nothing from working.
    EXPECT_EQ(said("check" + configured("[limits]\nconnections = 1000\n")).code, 0);
}

TEST_F(Commands, LearntIsListedAndRevoked) {
    const std::string config = configured("[learn]\nenabled = true\nfolder = \"learnt\"\n");
    LearntFolder folder(m_world.path("learnt"), 4, 100);
    ASSERT_EQ(folder.learn("anna@a.example", certificateOf(anna()), "<1@a.example>", "Q1"), Learning::learnt);
    const std::string list = said("learnt" + config + " list").text;
    const std::string name = list.substr(0, list.find('\n'));
    EXPECT_THAT(list, HasSubstr("\n  address: anna@a.example\n  subject: CN=anna\n  certificate: serial number "));
    EXPECT_THAT(list, HasSubstr(" from message <1@a.example> (Q1)\n"));
    EXPECT_EQ(said("learnt" + config + " revoke " + name).code, 0);
    EXPECT_EQ(said("learnt" + config + " revoke " + name).code, 1);
    EXPECT_THAT(said("learnt" + config + " list").text, StartsWith(name + " (revoked)\n"));
}

TEST(EngineConcurrency, MessagesWhileTheStoresAreReloaded) {
    World world;
    world.addPeople();
    world.add("bertskey", bert(), "bert@b.example", true);
    const Engine engine = world.engine(rules, "[learn]\nenabled = true\nfolder = \"learnt\"\n");
    const std::string incoming = wrapped("From: anna@a.example\r\nContent-Type: text/plain\r\n\r\nhello\r\n",
                                         {signedBy(anna()), encryptedTo({&bert()})});
    std::vector<std::thread> threads;
    std::vector<int> good(3, 0);
    for (std::size_t index = 0; index < good.size(); ++index) {
        threads.emplace_back([&, index] {
            for (int round = 0; round < 5; ++round) {
                const Outcome out = engine.handle(mailOf(), Deadline());
                const Outcome in = engine.handle(messageOf(incoming), Deadline());
                if (out.action == norvmilter::Outcome::Action::change && in.told("smime") == "pass" && in.body)
                    ++good[index];
            }
        });
    }
    for (int round = 0; round < 10; ++round)
        world.stores().reload();
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_THAT(good, ElementsAre(5, 5, 5));
}

} // namespace
