// Without a sub-command: the daemon.
#include "commands/Command.h"

#include "daemon/Daemon.h"

#include <iostream>
#include <memory>

namespace norvmilter {

void addRun(CLI::App& app, Action& action) {
    const auto options = std::make_shared<DaemonOptions>();
    app.add_option("--config", options->config, "the configuration file (without a sub-command: of the daemon)");
    app.add_flag("--foreground", options->isForeground, "stay in the foreground, and log as the configuration says");
    app.add_option("--user", options->user, "started by root: become this user before any mail is taken");
    app.add_flag("--allow-root", options->isRootGood, "go on as root");
    action = [options] {
        constexpr int badUsage = 2;
        if (options->config.empty()) {
            std::cerr << "norvcrypt-milter: --config FILE is missing; --help shows what there is\n";
            return badUsage;
        }
        return runDaemon(*options);
    };
}

} // namespace norvmilter
