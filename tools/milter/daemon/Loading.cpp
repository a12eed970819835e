#include "daemon/Loading.h"

#include "engine/Engine.h"
#include "message/Temporary.h"
#include "submit/Submit.h"

#include <norvcmsg/Escape.h>

#include <cerrno>
#include <system_error>
#include <unistd.h>

namespace norvmilter {

namespace {

void requireSpool(const std::string& folder) {
    if (!folder.empty() && ::access(folder.c_str(), W_OK | X_OK) != 0)
        throw Temporary("milter.spool: " + Norvane::escapeForDisplay(folder) + ": " +
                        std::generic_category().message(errno));
}

FrontLimits limitsOf(const Config& config) {
    FrontLimits limits;
    limits.spool = config.milter.spool;
    limits.messageBytes = config.limits.messageBytes;
    limits.recipients = config.limits.recipients;
    limits.connections = config.limits.connections;
    limits.perMessage = std::chrono::seconds(config.limits.secondsPerMessage);
    return limits;
}

} // namespace

Loaded load(const std::string& path) {
    Loaded loaded;
    loaded.config = std::make_shared<const Config>(Config::load(path));
    requireSpool(loaded.config->milter.spool);
    loaded.stores = std::make_shared<Stores>(*loaded.config);
    const auto engine = std::make_shared<const Engine>(loaded.config, loaded.stores);
    const SubmitTo to{.url = loaded.config->outgoing.submit, .name = loaded.config->milter.authservId};
    loaded.generation = std::make_shared<const Generation>(Generation{
        limitsOf(*loaded.config),
        [engine](const Message& message, const Deadline& deadline) { return engine->handle(message, deadline); },
        [to](const std::vector<Submission>& submissions) { submit(to, submissions); }});
    return loaded;
}

void tellLoaded(Log& log, const Loaded& loaded) {
    const auto stores = loaded.stores->loaded();
    log.event(LogLevel::info, "loaded",
              {{"config", loaded.config->path},
               {"identities", std::to_string(stores->identities)},
               {"private_keys", std::to_string(stores->privateKeys)},
               {"problems", std::to_string(stores->problems.size())}});
    for (const std::string& problem : stores->problems)
        log.event(LogLevel::warning, "store-problem", {{"reason", problem}});
}

} // namespace norvmilter
