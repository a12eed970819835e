// check: whether the configuration would work.

#include "commands/Command.h"
#include "config/Config.h"
#include "daemon/Process.h"
#include "message/Message.h"
#include "message/Temporary.h"
#include "stores/LearntFolder.h"
#include "stores/Stores.h"

#include <norvcmsg/Escape.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace norvmilter {

namespace {

namespace files = std::filesystem;
using Norvane::escapeForDisplay;

class Checker {
public:
    explicit Checker(const Config& config) : m_config(config) {}

    int run() {
        checkStores();
        checkFolder("milter.spool",
                    m_config.milter.spool.empty() ? files::temp_directory_path().string() : m_config.milter.spool);
        if (m_config.learn.enabled)
            checkFolder("learn.folder", m_config.learn.folder);
        checkSocket("milter.socket", m_config.milter.socket);
        checkSocket("metrics.socket", m_config.metrics.socket);
        if (!m_config.milter.pidFile.empty())
            checkFolder("milter.pid_file", files::path(m_config.milter.pidFile).parent_path().string());
        checkLimits();
        checkRules();
        if (m_problems == 0)
            std::cout << "all is well\n";
        return m_problems == 0 ? 0 : 1;
    }

private:
    void problem(const std::string& text) {
        ++m_problems;
        std::cout << "problem: " << text << '\n';
    }

    static void note(const std::string& text) { std::cout << text << '\n'; }

    void checkStores() {
        try {
            const Stores stores(m_config);
            const auto loaded = stores.loaded();
            for (const std::string& one : loaded->problems)
                problem(one);
            note("store: " + std::to_string(loaded->identities) + " identities, " +
                 std::to_string(loaded->privateKeys) + " with private keys");
            note("trust: " + std::to_string(loaded->trust.anchors) + " anchors, " +
                 std::to_string(loaded->trust.untrusted) + " intermediates, " + std::to_string(loaded->trust.lists) +
                 " revocation lists");
            if (stores.learnt() != nullptr)
                note("learnt: " + std::to_string(stores.learnt()->size()) + " certificates");
            if (!m_config.trust.anchors.empty() && loaded->trust.anchors == 0)
                problem("trust.anchors: there is no certificate in them, so that nobody is trusted");
            if (m_config.trust.anchors.empty() && m_config.incoming.verify)
                problem("trust.anchors: there are none, so that every good signature gets the result \"policy\"");
            if (m_config.trust.revocation == Norvane::Crypto::Trust::Revocation::required && loaded->trust.lists == 0 &&
                m_config.trust.listCache.empty())
                problem("trust.revocation: lists are required, and there is none");
            for (const OutgoingRule& rule : m_config.outgoing.rules) {
                if (rule.sign == Wish::must && loaded->privateKeys == 0)
                    problem("outgoing.rule: " + rule.title() +
                            ": there is no private key to sign with, so that messages are refused");
            }
            if (m_config.incoming.decrypt && loaded->privateKeys == 0)
                problem("incoming.decrypt: there is no private key to decrypt with");
        } catch (const Temporary& failure) {
            problem(failure.what());
        }
    }

    void checkFolder(const std::string& key, const std::string& folder) {
        const std::string where = key + ": " + escapeForDisplay(folder) + ": ";
        struct stat status {};
        if (stat(folder.c_str(), &status) != 0)
            return problem(where + std::strerror(errno));
        if (!S_ISDIR(status.st_mode))
            return problem(where + "it is no folder");
        if (access(folder.c_str(), W_OK | X_OK) != 0)
            return problem(where + "this user may not write there");
        const bool isSticky = (status.st_mode & S_ISVTX) != 0;
        if ((status.st_mode & S_IWOTH) != 0 && !isSticky)
            problem(where + "everybody may write there");
    }

    void checkSocket(const std::string& key, const std::string& socket) {
        const std::string prefix = "unix:";
        if (socket.starts_with(prefix))
            checkFolder(key, files::path(socket.substr(prefix.size())).parent_path().string());
        else if (!socket.empty() && !socket.ends_with("@127.0.0.1") && !socket.ends_with("@::1"))
            note(key + ": whoever reaches " + escapeForDisplay(socket) + " may use it: nothing there asks who it is");
    }

    /// What may be too little. It is no problem by itself: a unit can be changed, and the most is seldom needed.
    void checkLimits() {
        constexpr std::uint64_t mebibyte = std::uint64_t{1} << 20U;
        const Config::Limits& limits = m_config.limits;
        const std::size_t threads = mostThreads(limits.connections);
        const std::string needed =
            "limits.connections: " + std::to_string(limits.connections) + " connections may need ";
        if (threads > threadsOfUnit)
            note(needed + std::to_string(threads) + " threads: the systemd unit allows " +
                 std::to_string(threadsOfUnit) + " (TasksMax), raise it as well");
        if (limits.memoryBytes != 0 && threads * bytesOfStack > limits.memoryBytes / 2)
            note(needed + std::to_string(threads * bytesOfStack / mebibyte) +
                 " MiB for the stacks of threads, more than half of limits.memory_bytes (" +
                 std::to_string(limits.memoryBytes / mebibyte) + " MiB)");
        if (limits.memoryBytes == 0 || limits.memoryBytes > memoryOfUnit)
            note("limits.memory_bytes: the systemd unit allows " + std::to_string(memoryOfUnit / mebibyte) +
                 " MiB (MemoryMax); what needs more is killed in place of being put off");
    }

    void checkRules() {
        bool isOutgoing = false;
        for (const DirectionRule& rule : m_config.directions)
            isOutgoing = isOutgoing || rule.direction == Direction::outgoing;
        if (!m_config.outgoing.rules.empty() && !isOutgoing)
            problem("outgoing.rule: no [[direction]] says \"outgoing\", so that no rule is ever asked");
        const OutgoingRule* all = nullptr;
        for (const OutgoingRule& rule : m_config.outgoing.rules) {
            if (all != nullptr)
                problem("outgoing.rule: " + rule.title() + " is never asked: " + all->title() + " fits everybody");
            if (all == nullptr && rule.sender.text() == "*" && rule.recipient.text() == "*")
                all = &rule;
            if (rule.encrypt != Wish::never && rule.mixed == Mixed::separate && m_config.outgoing.submit.empty())
                problem("outgoing.rule: " + rule.title() +
                        ": outgoing.submit is not set, so that messages that would be split are refused");
        }
    }

    const Config& m_config;
    std::size_t m_problems = 0;
};

} // namespace

void addCheck(CLI::App& app, Action& action) {
    CLI::App* const command =
        app.add_subcommand("check", "Reads the configuration, opens what it names, and says what would not work");
    const auto path = std::make_shared<std::string>();
    command->add_option("--config", *path, "the configuration file")->required();
    command->callback([path, &action] {
        action = [path] {
            const Config config = Config::load(*path);
            return Checker(config).run();
        };
    });
}

} // namespace norvmilter
