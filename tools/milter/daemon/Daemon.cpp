#include "daemon/Daemon.h"

#include "config/Config.h"
#include "daemon/ListenSocket.h"
#include "daemon/Log.h"
#include "daemon/PidFile.h"
#include "daemon/Process.h"
#include "daemon/Supervisor.h"
#include "daemon/Worker.h"

#include <csignal>
#include <filesystem>
#include <iostream>
#include <optional>
#include <stdexcept>
#include <sys/stat.h>
#include <syslog.h>

namespace norvmilter {

namespace {

void checkUser(const DaemonOptions& options) {
    if (::geteuid() != 0 || !options.user.empty() || options.isRootGood)
        return;
    throw std::runtime_error("does not run as root: give --user NAME, or --allow-root if it has to be");
}

} // namespace

int runDaemon(const DaemonOptions& options) {
    checkUser(options);
    // Background processes work in "/".
    const std::string path = std::filesystem::absolute(options.config).string();
    const Config config = Config::load(path);
    ::umask(077);
    // A log that nobody reads any more is no reason to end.
    std::signal(SIGPIPE, SIG_IGN);
    ::openlog("norvcrypt-milter", LOG_PID, LOG_MAIL);
    Log log(options.isForeground ? config.log.target : LogTarget::syslog, config.log.level);

    const std::optional<User> user = options.user.empty() ? std::nullopt : std::optional(userNamed(options.user));
    PidFile pidFile(config.milter.pidFile);
    ListenSocket milter(config.milter.socket, config.milter.socketMode);
    std::optional<ListenSocket> metrics;
    if (!config.metrics.socket.empty())
        metrics.emplace(config.metrics.socket, config.milter.socketMode);
    if (user) {
        milter.give(user->user, user->group);
        if (metrics)
            metrics->give(user->user, user->group);
        become(*user);
    }

    Descriptor starter;
    if (!options.isForeground)
        starter = goToBackground();
    const auto tellStarter = [&starter](const std::string& text) {
        if (starter && ::write(starter.get(), text.data(), text.size()) >= 0)
            starter.close();
    };
    pidFile.write();

    const WorkerOptions worker{path, milter.descriptor(), metrics ? metrics->descriptor() : -1, !options.isForeground,
                               options.stuckGrace};
    Supervisor supervisor(log,
                          [&](const Channel& channel, unsigned long restarts) {
                              // A worker whose supervisor was killed keeps no other one from starting.
                              pidFile.leave();
                              starter.close();
                              return runWorker(worker, channel, restarts);
                          },
                          Supervisor::Times(), {[&] { tellStarter("ready"); }, tellStarter});
    const int code = supervisor.run();
    milter.remove();
    if (metrics)
        metrics->remove();
    pidFile.remove();
    return code;
}

} // namespace norvmilter
