// The configuration file, and the commands that look at it.

#include "World.h"

#include "config/Sockets.h"

#include <map>

namespace {

using namespace miltertesting;

const std::string least = "[milter]\nsocket = \"unix:/run/m.sock\"\nauthserv_id = \"mx.example.org\"\n";

std::string problemsOf(const std::string& text) {
    try {
        static_cast<void>(Config::parse(text, "m.toml"));
    } catch (const ConfigError& failure) {
        return failure.what();
    }
    return {};
}

TEST(ConfigFile, TheLeast) {
    const Config config = Config::parse(least, "/etc/x/m.toml");
    EXPECT_EQ(config.milter.socketMode, 0660U);
    EXPECT_EQ(config.limits.messageBytes, 104857600U);
    EXPECT_EQ(config.incoming.deliver, Deliver::asSigned);
    EXPECT_TRUE(config.outgoing.rules.empty());
    EXPECT_FALSE(config.learn.enabled);
}

/// Whatever stands in the example is what it is when it is left out, but where the example says otherwise.
TEST(ConfigFile, TheExample) {
    const std::string path = std::string(norvtest::sourceDirectory) + "/tools/milter/norvcrypt-milter.toml";
    const Config config = Config::load(path);
    EXPECT_EQ(config.outgoing.rules.size(), 2U);
    EXPECT_EQ(config.directions.size(), 2U);
    EXPECT_EQ(config.senders.front().from.size(), 2U);
    const Config defaults = Config::parse(least, path);
    EXPECT_EQ(config.milter.socketMode, defaults.milter.socketMode);
    EXPECT_EQ(config.milter.timeout, defaults.milter.timeout);
    EXPECT_EQ(config.milter.stopTimeout, defaults.milter.stopTimeout);
    EXPECT_EQ(config.limits.messageBytes, defaults.limits.messageBytes);
    EXPECT_EQ(config.limits.connections, defaults.limits.connections);
    EXPECT_EQ(config.limits.secondsPerMessage, defaults.limits.secondsPerMessage);
    EXPECT_EQ(config.limits.memoryBytes, defaults.limits.memoryBytes);
    EXPECT_EQ(config.limits.recipients, defaults.limits.recipients);
    EXPECT_EQ(config.limits.tooLarge, defaults.limits.tooLarge);
    EXPECT_EQ(config.trust.revocation, defaults.trust.revocation);
    EXPECT_EQ(config.trust.minimumRsaBits, defaults.trust.minimumRsaBits);
    EXPECT_EQ(config.learn.perAddress, defaults.learn.perAddress);
    EXPECT_EQ(config.learn.total, defaults.learn.total);
    EXPECT_EQ(config.outgoing.noKey, defaults.outgoing.noKey);
    EXPECT_EQ(config.outgoing.senderMismatch, defaults.outgoing.senderMismatch);
    EXPECT_EQ(config.outgoing.separateMessages, defaults.outgoing.separateMessages);
    EXPECT_EQ(config.outgoing.separateBytes, defaults.outgoing.separateBytes);
    EXPECT_EQ(config.incoming.decrypt, defaults.incoming.decrypt);
    EXPECT_EQ(config.incoming.verify, defaults.incoming.verify);
    EXPECT_EQ(config.incoming.deliver, defaults.incoming.deliver);
    EXPECT_EQ(config.incoming.clientHeaders, defaults.incoming.clientHeaders);
    EXPECT_EQ(config.incoming.announceNone, defaults.incoming.announceNone);
    EXPECT_EQ(config.log.level, defaults.log.level);
    const OutgoingRule rule;
    EXPECT_EQ(config.outgoing.rules.front().cipher, rule.cipher);
    EXPECT_EQ(config.outgoing.rules.front().mixed, rule.mixed);
}

std::vector<std::string> linesOf(const std::string& document) {
    std::ifstream file(std::string(norvtest::sourceDirectory) + "/docs/" + document);
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);)
        lines.push_back(line);
    EXPECT_FALSE(lines.empty()) << document;
    return lines;
}

/// The text between the first two `mark`s of a text, and what is behind them.
std::string between(std::string& text, char mark) {
    const std::size_t begin = text.find(mark);
    const std::size_t end = begin == std::string::npos ? begin : text.find(mark, begin + 1);
    if (end == std::string::npos) {
        text.clear();
        return {};
    }
    const std::string found = text.substr(begin + 1, end - begin - 1);
    text.erase(0, end + 1);
    return found;
}

/// What rules need.
const std::string storeAndTrust = "[store]\ndirectory = \"identities\"\n[trust]\nanchors = [\"roots\"]\n";

/// The pages for operators, who copy from them.
TEST(ConfigFile, TheExamplesOfTheDocumentation) {
    int found = 0;
    for (const char* const document : {"gateway.md", "gateway-configuration.md", "gateway-operation.md"}) {
        std::string block;
        bool isToml = false;
        for (const std::string& line : linesOf(document)) {
            if (isToml && line == "```") {
                ++found;
                EXPECT_EQ("", problemsOf(least + storeAndTrust + block)) << document << '\n' << block;
                block.clear();
            }
            if (isToml && line != "```")
                block += line + '\n';
            isToml = line == "```toml" || (isToml && line != "```");
        }
    }
    EXPECT_GE(found, 2);
}

/// Each example of each key in the tables: | `key`, `other` | `example`, `another` | ...
TEST(ConfigFile, TheTablesOfTheDocumentation) {
    const std::map<std::string, std::string> required{{"[[direction]]", "direction = \"incoming\"\n"},
                                                      {"[[outgoing.rule]]", "name = \"rule\"\n"}};
    std::string section;
    int tried = 0;
    bool isOfKeys = false;
    for (const std::string& line : linesOf("gateway-configuration.md")) {
        if (line.starts_with("## ") || line.starts_with("### "))
            section = line.find('[') == std::string::npos ? "" : line.substr(line.find('['));
        if (!line.starts_with("|"))
            isOfKeys = false;
        if (line.starts_with("| key | example |"))
            isOfKeys = true;
        if (section.empty() || !isOfKeys || !line.starts_with("| `"))
            continue;
        const std::size_t second = line.find(" | ");
        const std::size_t third = line.find(" | ", second + 3);
        std::string keys = line.substr(0, second);
        for (std::string key = between(keys, '`'); !key.empty(); key = between(keys, '`')) {
            std::string examples = line.substr(second, third - second);
            for (std::string value = between(examples, '`'); !value.empty(); value = between(examples, '`')) {
                const auto other = required.find(section);
                const bool isRequired = other != required.end() && other->second.starts_with(key + ' ');
                std::string text = section + '\n' + key + " = " + value + '\n' +
                                   (other == required.end() || isRequired ? "" : other->second);
                if (section == "[milter]") {
                    text += key == "socket" ? "" : "socket = \"unix:/run/m.sock\"\n";
                    text += key == "authserv_id" ? "" : "authserv_id = \"mx.example.org\"\n";
                } else {
                    text.insert(0, least + (section == "[trust]" ? "" : storeAndTrust));
                }
                ++tried;
                EXPECT_EQ("", problemsOf(text)) << line;
            }
        }
    }
    EXPECT_GE(tried, 50);
}

TEST(ConfigFile, EachErrorHasItsLineAndKey) {
    const std::vector<std::pair<std::string, std::string>> cases{
        {"x = 1\n" + least, "m.toml:1: x: there is no such key"},
        {least + "sokcet = \"a\"\n", "m.toml:4: milter.sokcet: there is no such key"},
        {least + "timeout = \"60\"\n", "m.toml:4: milter.timeout: a number from 1 to 86400 is wanted, not a text"},
        {least + "timeout = 0\n", "m.toml:4: milter.timeout: a number from 1 to 86400 is wanted, not 0"},
        {least + "timeout = -9223372036854775808\n",
         "m.toml:4: milter.timeout: a number from 1 to 86400 is wanted, not -9223372036854775808"},
        {least + "spool = 1.5\n", "m.toml:4: milter.spool: a text is wanted, not something else"},
        {least + "spool = \"a\\u0000b\"\n", "m.toml:4: milter.spool: a NUL byte is in the text"},
        {least + "socket_mode = \"abc\"\n", "m.toml:4: milter.socket_mode: a mode in octal digits is wanted: \"0660\""},
        {least + "socket_mode = \"7777\"\n",
         "m.toml:4: milter.socket_mode: a mode in octal digits is wanted: \"0660\""},
        {"", "m.toml:1: milter.socket: it is missing, and nothing can take its place\n"
             "m.toml:1: milter.authserv_id: it is missing, and nothing can take its place"},
        {"milter = 3\n", "m.toml:1: milter: a table is wanted, not a number\n"
                         "m.toml:1: milter.socket: it is missing, and nothing can take its place\n"
                         "m.toml:1: milter.authserv_id: it is missing, and nothing can take its place"},
        {"[milter]\nsocket = \"unix:x\"\nauthserv_id = \"a b\"\n",
         "m.toml:2: milter.socket: the path of a unix socket begins with \"/\"\n"
         "m.toml:3: milter.authserv_id: the name of a host is wanted"},
        {least + "[limits]\ntoo_large = \"drop\"\n",
         "m.toml:5: limits.too_large: \"drop\" is none of pass, reject, tempfail"},
        {least + "[limits]\nmemory_bytes = 1000\n",
         "m.toml:5: limits.memory_bytes: less than 67108864 bytes are not enough for anything; 0 is no limit"},
        {least + "[direction]\nx = 1\n", "m.toml:4: direction: it stands in double brackets: [[direction]]"},
        {least + "[[direction]]\nnetworks = [\"10.0.0.1/8\"]\n",
         "m.toml:4: direction.direction: it is missing, and nothing can take its place\n"
         "m.toml:5: direction.networks: \"10.0.0.1/8\" has bits behind its length"},
        {least + "[[direction]]\ndirection = \"outgoing\"\nnetworks = [\"10.0.0.0/33\", 3]\n",
         "m.toml:6: direction.networks: a text is wanted, not a number\n"
         "m.toml:6: direction.networks: the length of \"10.0.0.0/33\" is a number from 0 to 32"},
        {least + "[[direction]]\ndirection = \"outgoing\"\nnetworks = []\n",
         "m.toml:6: direction.networks: a list without a network fits nobody"},
        {least + "[[sender]]\n", "m.toml:4: sender.from: a list of patterns is wanted: [\"*@a.example\"]"},
        {least + "[[outgoing.rule]]\nname = \"a\"\nencrypt = \"must\"\nsign = \"must\"\n",
         "m.toml:6: outgoing.rule.encrypt: nobody has a certificate without store.directory or learn.enabled\n"
         "m.toml:6: outgoing.rule.encrypt: no certificate is trusted without trust.anchors\n"
         "m.toml:7: outgoing.rule.sign: nobody has a key without store.directory"},
        {least + "[[outgoing.rule]]\nname = \"a\"\n[[outgoing.rule]]\nname = \"a\"\n",
         "m.toml:7: outgoing.rule.name: another rule has this name"},
        {least + "[outgoing]\nsubmit = \"smtp://me@host:25/x\"\n",
         "m.toml:5: outgoing.submit: the host is a name or an address, IPv6 in brackets"},
        {least + "[learn]\nenabled = true\n", "m.toml:5: learn.enabled: learn.folder says where; it is missing\n"
                                              "m.toml:5: learn.enabled: nobody is trusted without trust.anchors"},
        {least + "[incoming]\nrefuse = [\"none\"]\n",
         "m.toml:5: incoming.refuse: \"none\" is none of fail, policy, permerror"},
        {least + "[metrics]\nsocket = \"inet:0@127.0.0.1\"\n",
         "m.toml:5: metrics.socket: the port is a number from 1 to 65535"},
        {least + "[log]\nlevel = \"\\u001b[31m\"\n",
         "m.toml:5: log.level: \"\\x1B[31m\" is none of error, warning, info, debug"},
    };
    for (const auto& [text, problems] : cases)
        EXPECT_EQ(problemsOf(text), problems) << text;
    EXPECT_THAT(problemsOf(least + "timeout = \n"), StartsWith("m.toml:4: "));
    EXPECT_THAT(problemsOf(least + "timeout = 1\ntimeout = 2\n"), StartsWith("m.toml:5: "));
    EXPECT_THAT(problemsOf("[milter\n"), StartsWith("m.toml:1: "));
    EXPECT_THAT(problemsOf(std::string("\xff\xfe\0", 3)), StartsWith("m.toml:"));
}

TEST(ConfigFile, PathsAreThoseOfItsFolder) {
    const Config config =
        Config::parse(least + "spool = \"spool\"\n[trust]\nanchors = [\"/a\", \"b\"]\n", "/etc/x/m.toml");
    EXPECT_EQ(config.milter.spool, "/etc/x/spool");
    EXPECT_THAT(config.trust.anchors, ElementsAre("/a", "/etc/x/b"));
}

TEST(ConfigFile, FilesThatCannotBeRead) {
    const norvtest::TemporaryFolder folder;
    EXPECT_THROW(static_cast<void>(Config::load(folder.path("missing"))), ConfigError);
    EXPECT_THROW(static_cast<void>(Config::load(folder.path())), ConfigError);
    folder.write("large", std::string(2000000, '#'));
    try {
        static_cast<void>(Config::load(folder.path("large")));
        FAIL();
    } catch (const ConfigError& failure) {
        EXPECT_EQ(std::string(failure.what()), folder.path("large") + ": it has more than 1048576 bytes");
    }
}

TEST(ConfigFile, Sockets) {
    for (const char* const good : {"unix:/run/x", "inet:8891@127.0.0.1", "inet6:8891@::1"})
        EXPECT_EQ(problemOfSocket(good), "") << good;
    for (const std::string bad :
         {"", "x", "unix:", "unix:x", "inet:8891", "inet:8891@localhost", "inet:65536@127.0.0.1", "inet:-1@127.0.0.1",
          "inet6:1@127.0.0.1", "inet:1@::1", "inet:99999999999@127.0.0.1"})
        EXPECT_NE(problemOfSocket(bad), "") << bad;
    EXPECT_NE(problemOfSocket("unix:/" + std::string(107, 'x')), "");
    EXPECT_EQ(problemOfSocket("unix:/" + std::string(106, 'x')), "");
    for (const char* const good : {"smtp://127.0.0.1:25", "smtp://[::1]:10026", "smtp://mx.example.org:1"})
        EXPECT_EQ(problemOfSubmit(good), "") << good;
    for (const char* const bad :
         {"smtp://:25", "smtp://x", "http://x:25", "smtp://a@b:25", "smtp://x:25/", "smtp://x y:25"})
        EXPECT_NE(problemOfSubmit(bad), "") << bad;
}

/// Stores that cannot be loaded are for later, and what was there stays in use.
TEST(StoresOnDisk, ReloadKeepsTheOldWhenTheNewIsBad) {
    World world;
    world.addPeople();
    const Engine engine = world.engine("[[outgoing.rule]]\nname = \"x\"\nsign = \"must\"\n");
    EXPECT_EQ(engine.handle(mailOf(), Deadline()).action, Action::change);
    const auto before = world.stores().loaded();
    EXPECT_EQ(before->identities, 3U);
    EXPECT_EQ(before->privateKeys, 1U);
    std::filesystem::rename(world.path("store"), world.path("elsewhere"));
    EXPECT_THROW(world.stores().reload(), Temporary);
    EXPECT_EQ(world.stores().loaded(), before);
    EXPECT_EQ(engine.handle(mailOf(), Deadline()).action, Action::change);
    std::filesystem::rename(world.path("elsewhere"), world.path("store"));
    std::filesystem::remove_all(world.path("store/anna"));
    world.stores().reload();
    EXPECT_NE(world.stores().loaded(), before);
    EXPECT_EQ(engine.handle(mailOf(), Deadline()).action, Action::reject);
    std::filesystem::remove(world.path("roots.pem"));
    EXPECT_THROW(world.stores().reload(), Temporary);
    EXPECT_THROW(Stores(*world.config("")), Temporary);
}

} // namespace
