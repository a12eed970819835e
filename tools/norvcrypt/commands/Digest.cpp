#include "commands/Command.h"
#include "files/Input.h"
#include "files/Output.h"
#include "recognise/DigestNames.h"
#include "show/Description.h"
#include "show/TextAndJson.h"

#include <norvcmsg/Escape.h>
#include <norvcrypto/Hasher.h>

#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

namespace norvcrypt {

namespace {

struct DigestOptions {
    std::string type = "sha256";
    std::vector<std::string> files;
    bool json = false;
};

std::string digestOf(Norvane::Crypto::Hasher::Type type, Inputs& inputs, const std::string& path) {
    Progress progress("digesting");
    Norvane::MediaIn in = inputs.open(path, &progress);
    Norvane::Crypto::HasherMediaOut hasher(type);
    in.write(hasher);
    hasher.end();
    return hasher.hasher()->digestAsHexString();
}

/// The line of sha256sum, which `sha256sum --check` reads: a leading backslash tells that the name is escaped. What
/// else could drive a terminal is escaped on a terminal only, since a program needs the name as it is.
std::string digestLine(const std::string& digest, const std::string& path) {
    std::string name;
    bool escaped = false;
    for (const char letter : path) {
        const bool special = letter == '\\' || letter == '\n' || letter == '\r';
        escaped = escaped || special;
        if (!special)
            name += letter;
        else
            name += letter == '\\' ? "\\\\" : letter == '\n' ? "\\n" : "\\r";
    }
    if (isatty(STDOUT_FILENO) == 1 && !Norvane::isDisplayable(name))
        name = Norvane::escapeForDisplay(name);
    return (escaped ? "\\" : "") + digest + "  " + name;
}

Exit digest(const DigestOptions& options) {
    const auto type = digestType(options.type);
    const std::vector<std::string> files = options.files.empty() ? std::vector<std::string>{"-"} : options.files;
    Inputs inputs;
    TextOutput out;
    Exit code = Exit::good;
    Description all = Description::array();
    for (const std::string& file : files) {
        std::string line;
        try {
            const std::string digest = digestOf(type, inputs, file);
            line = digestLine(digest, file);
            all.push_back({{"file", file}, {"type", options.type}, {"digest", digest}});
        } catch (const Failure& failure) {
            reportError(failure.what());
            code = Exit::failed;
            continue;
        }
        if (options.json)
            continue;
        out.line(line);
        out.flush();
    }
    if (options.json)
        out.text(asJson(all));
    out.flush();
    return code;
}

} // namespace

void addDigest(Command& commands, Action& action) {
    auto options = std::make_shared<DigestOptions>();
    Command* command = commands.command("digest", "Prints digests, one line for each file as sha256sum does");
    command->option("--type", options->type, "The digest: sha256, sha512, sha1, ...")->typeName("NAME")->showDefault();
    command->option("FILE", options->files, "What to digest; \"-\" or none is standard input");
    command->flag("--json", options->json, "One JSON array with an object for each file (docs/json.md)");
    command->example("norvcrypt digest message.eml message-changed.eml");
    command->example("norvcrypt digest --type sha512 < message.eml");
    command->whenChosen([options, &action] { action = [options] { return digest(*options); }; });
}

} // namespace norvcrypt
