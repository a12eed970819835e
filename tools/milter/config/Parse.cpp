// The configuration file, read into a value.

#include "config/Config.h"
#include "config/Names.h"
#include "config/Section.h"
#include "config/Sockets.h"

#include <norvcmsg/Escape.h>
#include <norvcrypto-trust/TrustSender.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

namespace norvmilter {

namespace {

constexpr std::size_t longestFile = std::size_t{1} << 20U;
constexpr std::int64_t manyBytes = std::int64_t{1} << 40U;

class Reader {
public:
    Reader(const toml::table& table, const std::string& path)
        : m_problems(path),
          m_folder(std::filesystem::path(path).parent_path()),
          m_root(m_problems, &table, 1, "") {
        m_config.path = path;
    }

    Config read() {
        readMilter(m_root.section("milter"));
        readLimits(m_root.section("limits"));
        readStore(m_root.section("store"));
        readTrust(m_root.section("trust"));
        readLearn(m_root.section("learn"));
        for (Section& section : m_root.sections("direction"))
            readDirection(section);
        for (Section& section : m_root.sections("sender"))
            readSender(section);
        readOutgoing(m_root.section("outgoing"));
        readIncoming(m_root.section("incoming"));
        readMetrics(m_root.section("metrics"));
        readLog(m_root.section("log"));
        m_root.finish();
        m_problems.throwIfAny();
        return std::move(m_config);
    }

private:
    void readPath(Section& section, std::string_view key, std::string& into) const {
        section.read(key, into);
        if (!into.empty())
            into = (m_folder / into).string();
    }

    void readPaths(Section& section, std::string_view key, std::vector<std::string>& into) const {
        section.read(key, into);
        for (std::string& path : into) {
            if (path.empty())
                section.problem(key, "a path is empty");
            path = (m_folder / path).string();
        }
    }

    static void readSocket(Section& section, std::string& into) {
        section.read("socket", into);
        const std::string problem = into.empty() ? "" : problemOfSocket(into);
        if (!problem.empty())
            section.problem("socket", problem);
    }

    void readMilter(Section section) {
        Config::Milter& milter = m_config.milter;
        readSocket(section, milter.socket);
        section.need("socket");
        std::string mode = "0660";
        section.read("socket_mode", mode);
        const bool isMode =
            mode.size() <= 4 && mode.size() >= 3 && mode.find_first_not_of("01234567") == std::string::npos;
        if (isMode)
            milter.socketMode = static_cast<mode_t>(std::stoul(mode, nullptr, 8));
        if (!isMode || milter.socketMode > 0777)
            section.problem("socket_mode", "a mode in octal digits is wanted: \"0660\"");
        section.read("authserv_id", milter.authservId);
        section.need("authserv_id");
        const bool isName = !Norvane::Crypto::Trust::comparableAddress("x@" + milter.authservId).empty() &&
                            Norvane::isDisplayable(milter.authservId) &&
                            milter.authservId.find('[') == std::string::npos;
        if (!milter.authservId.empty() && !isName)
            section.problem("authserv_id", "the name of a host is wanted");
        readPath(section, "spool", milter.spool);
        readPath(section, "pid_file", milter.pidFile);
        section.read("timeout", milter.timeout, 1, 86400);
        section.read("stop_timeout", milter.stopTimeout, 0, 86400);
        section.finish();
    }

    void readLimits(Section section) {
        Config::Limits& limits = m_config.limits;
        section.read("message_bytes", limits.messageBytes, 1024, manyBytes);
        section.read("connections", limits.connections, 1, 100000);
        section.read("seconds_per_message", limits.secondsPerMessage, 0, 86400);
        section.read("memory_bytes", limits.memoryBytes, 0, manyBytes);
        if (limits.memoryBytes != 0 && limits.memoryBytes < 67108864)
            section.problem("memory_bytes", "less than 67108864 bytes are not enough for anything; 0 is no limit");
        section.read("recipients", limits.recipients, 1, 10000);
        section.read("too_large", limits.tooLarge, words::tooLarge);
        section.finish();
    }

    void readStore(Section section) {
        readPath(section, "directory", m_config.store.directory);
        section.finish();
    }

    void readTrust(Section section) {
        Config::TrustPart& trust = m_config.trust;
        readPaths(section, "anchors", trust.anchors);
        readPaths(section, "untrusted", trust.untrusted);
        readPaths(section, "lists", trust.lists);
        readPath(section, "list_cache", trust.listCache);
        section.read("revocation", trust.revocation, words::revocation);
        section.read("minimum_rsa_bits", trust.minimumRsaBits, 512, 16384);
        section.read("at_signing_time", trust.atSigningTime);
        section.finish();
    }

    void readLearn(Section section) {
        Config::Learn& learn = m_config.learn;
        section.read("enabled", learn.enabled);
        readPath(section, "folder", learn.folder);
        section.read("per_address", learn.perAddress, 1, 100);
        section.read("total", learn.total, 1, 10000000);
        if (learn.enabled && learn.folder.empty())
            section.problem("enabled", "learn.folder says where; it is missing");
        if (learn.enabled && m_config.trust.anchors.empty())
            section.problem("enabled", "nobody is trusted without trust.anchors");
        section.finish();
    }

    void readDirection(Section& section) {
        DirectionRule rule;
        rule.line = section.line();
        section.read("listener", rule.listener);
        section.read("authenticated", rule.authenticated);
        std::vector<std::string> networks;
        section.read("networks", networks);
        for (const std::string& text : networks) {
            try {
                rule.networks.push_back(networkOf(text));
            } catch (const std::invalid_argument& failure) {
                section.problem("networks", failure.what());
            }
        }
        if (section.has("networks") && networks.empty())
            section.problem("networks", "a list without a network fits nobody");
        section.read("direction", rule.direction, words::direction);
        section.need("direction");
        section.finish();
        m_config.directions.push_back(rule);
    }

    void readSender(Section& section) {
        SenderRule rule;
        rule.line = section.line();
        section.read("authenticated", rule.authenticated);
        section.read("envelope", rule.envelope);
        std::vector<std::string> from;
        section.read("from", from);
        if (from.empty())
            section.problem("from", "a list of patterns is wanted: [\"*@a.example\"]");
        for (const std::string& pattern : from)
            rule.from.emplace_back(pattern);
        section.finish();
        m_config.senders.push_back(rule);
    }

    void readOutgoing(Section section) {
        Config::Outgoing& outgoing = m_config.outgoing;
        section.read("no_key", outgoing.noKey, words::refusal);
        section.read("sender_mismatch", outgoing.senderMismatch, words::refusal);
        section.read("submit", outgoing.submit);
        const std::string problem = outgoing.submit.empty() ? "" : problemOfSubmit(outgoing.submit);
        if (!problem.empty())
            section.problem("submit", problem);
        section.read("separate_messages", outgoing.separateMessages, 1, 10000);
        section.read("separate_bytes", outgoing.separateBytes, 1024, manyBytes);
        for (Section& rule : section.sections("rule"))
            readRule(rule);
        section.finish();
    }

    void readRule(Section& section) {
        OutgoingRule rule;
        rule.line = section.line();
        section.read("name", rule.name);
        section.need("name");
        if (!rule.name.empty() && !m_ruleNames.insert(rule.name).second)
            section.problem("name", "another rule has this name");
        section.read("sender", rule.sender);
        section.read("recipient", rule.recipient);
        section.read("sign", rule.sign, words::wish);
        section.read("encrypt", rule.encrypt, words::wish);
        section.read("mixed", rule.mixed, words::mixed);
        section.read("form", rule.form, words::form);
        section.read("cipher", rule.cipher, words::cipher);
        section.read("oaep", rule.oaep);
        section.read("pss", rule.pss);
        section.read("protect_header", rule.protectHeader);
        section.read("encrypt_to_sender", rule.encryptToSender);
        const bool hasKeys = !m_config.store.directory.empty();
        if (rule.sign == Wish::must && !hasKeys)
            section.problem("sign", "nobody has a key without store.directory");
        if (rule.encrypt != Wish::never && !hasKeys && !m_config.learn.enabled)
            section.problem("encrypt", "nobody has a certificate without store.directory or learn.enabled");
        if (rule.encrypt != Wish::never && m_config.trust.anchors.empty())
            section.problem("encrypt", "no certificate is trusted without trust.anchors");
        section.finish();
        m_config.outgoing.rules.push_back(rule);
    }

    void readIncoming(Section section) {
        Config::Incoming& incoming = m_config.incoming;
        section.read("decrypt", incoming.decrypt);
        section.read("verify", incoming.verify);
        section.read("deliver", incoming.deliver, words::deliver);
        section.read("client_headers", incoming.clientHeaders);
        section.read("announce_none", incoming.announceNone);
        std::vector<std::string> refuse;
        section.read("refuse", refuse);
        for (const std::string& verdict : refuse) {
            if (verdict != "fail" && verdict != "policy" && verdict != "permerror")
                section.problem("refuse",
                                '"' + Norvane::escapeForDisplay(verdict) + "\" is none of fail, policy, permerror");
            incoming.refuse.insert(verdict);
        }
        section.finish();
    }

    void readMetrics(Section section) {
        readSocket(section, m_config.metrics.socket);
        section.finish();
    }

    void readLog(Section section) {
        section.read("target", m_config.log.target, words::logTarget);
        section.read("level", m_config.log.level, words::logLevel);
        section.finish();
    }

    Problems m_problems;
    std::filesystem::path m_folder;
    Section m_root;
    Config m_config;
    std::set<std::string> m_ruleNames;
};

} // namespace

const char* nameOf(Direction direction) noexcept {
    return words::nameIn(words::direction, direction);
}
const char* nameOf(Wish wish) noexcept {
    return words::nameIn(words::wish, wish);
}
const char* nameOf(Norvane::Crypto::CMS::ContentCipher cipher) noexcept {
    return words::nameIn(words::cipher, cipher);
}

std::string DirectionRule::title() const {
    return "direction in line " + std::to_string(line);
}

std::string OutgoingRule::title() const {
    return line == 0 ? "no rule fits" : Norvane::escapeForDisplay(name) + " (line " + std::to_string(line) + ")";
}

Config Config::parse(std::string_view text, const std::string& path) {
    toml::table table;
    try {
        table = toml::parse(text, path);
    } catch (const toml::parse_error& failure) {
        Problems problems(path);
        problems.add(static_cast<unsigned int>(failure.source().begin.line), "",
                     Norvane::escapeForDisplay(failure.description()));
        problems.throwIfAny();
    }
    return Reader(table, path).read();
}

Config Config::load(const std::string& path) {
    const auto fail = [&](const std::string& what) -> ConfigError {
        return ConfigError(Norvane::escapeForDisplay(path) + ": " + what);
    };
    std::ifstream file(path, std::ios::binary);
    if (!file)
        throw fail(std::strerror(errno));
    std::string text(longestFile + 1, '\0');
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    if (file.bad() || std::filesystem::is_directory(path))
        throw fail("it cannot be read");
    text.resize(static_cast<std::size_t>(file.gcount()));
    if (text.size() > longestFile)
        throw fail("it has more than " + std::to_string(longestFile) + " bytes");
    return parse(text, path);
}

} // namespace norvmilter
