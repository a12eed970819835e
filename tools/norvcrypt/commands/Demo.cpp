#include "demo/Demo.h"
#include "commands/Command.h"
#include "commands/Force.h"

#include <memory>

namespace norvcrypt {

void addDemo(Command& commands, Action& action) {
    auto options = std::make_shared<DemoOptions>();
    Command* command = commands.command(
        "demo",
        "Makes a small CA, signs, verifies, encrypts and decrypts a message, and tells how to check each step with "
        "OpenSSL");
    command->option("--in", options->in, "The message, instead of a generated one; \"-\" is standard input")
        ->typeName("FILE");
    command->option("--dir", options->directory, "Where everything is left")->typeName("DIR")->showDefault();
    addForce(*command, options->force);
    command->example("norvcrypt demo --in letter.eml --dir demonstration-of-a-letter");
    command->whenChosen([options, &action] { action = [options] { return Demo(*options).run(); }; });
}

} // namespace norvcrypt
