// learnt: what was learnt, and taking it back.

#include "commands/Command.h"
#include "config/Config.h"
#include "stores/LearntFolder.h"

#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>

namespace norvmilter {

namespace {

std::string folderOf(const std::string& path) {
    const Config config = Config::load(path);
    if (config.learn.folder.empty())
        throw std::runtime_error("learn.folder is not set");
    return config.learn.folder;
}

int list(const std::string& folder) {
    for (const LearntEntry& entry : LearntFolder::list(folder)) {
        std::cout << entry.name << (entry.revoked ? " (revoked)" : "") << '\n'
                  << "  address: " << entry.address << '\n'
                  << "  subject: " << entry.subject << '\n'
                  << "  certificate: " << entry.serial << '\n'
                  << "  learnt: " << entry.at << " from message " << entry.message;
        if (!entry.queueId.empty())
            std::cout << " (" << entry.queueId << ')';
        std::cout << '\n';
    }
    return 0;
}

int revoke(const std::string& folder, const std::string& name) {
    if (LearntFolder::revoke(folder, name))
        return 0;
    std::cerr << "norvcrypt-milter: there is no learnt certificate of that name\n";
    return 1;
}

} // namespace

void addLearnt(CLI::App& app, Action& action) {
    CLI::App* const command = app.add_subcommand("learnt", "Lists certificates that were learnt, and revokes them");
    const auto path = std::make_shared<std::string>();
    const auto name = std::make_shared<std::string>();
    command->add_option("--config", *path, "the configuration file")->required();
    command->require_subcommand(1);
    command->add_subcommand("list", "What was learnt, from whom and when")->callback([path, &action] {
        action = [path] { return list(folderOf(*path)); };
    });
    CLI::App* const revoking =
        command->add_subcommand("revoke", "Takes a certificate out of use; it is not learnt again");
    revoking->add_option("name", *name, "its name, as the list has it")->required();
    revoking->callback([path, name, &action] { action = [path, name] { return revoke(folderOf(*path), *name); }; });
}

} // namespace norvmilter
