#include "demo/Demo.h"
#include "commands/Command.h"
#include "commands/Force.h"

#include <memory>

namespace norvcrypt {

void addDemo(CLI::App& app, Action& action) {
    auto options = std::make_shared<DemoOptions>();
    CLI::App* command = app.add_subcommand(
        "demo",
        "Makes a small CA, signs, verifies, encrypts and decrypts a message, and tells how to check each step with "
        "OpenSSL");
    command->add_option("--in", options->in, "The message, instead of a generated one; \"-\" is standard input")
        ->type_name("FILE");
    command->add_option("--dir", options->directory, "Where everything is left")
        ->type_name("DIR")
        ->capture_default_str();
    addForce(*command, options->force);
    command->callback([options, &action] { action = [options] { return Demo(*options).run(); }; });
}

} // namespace norvcrypt
