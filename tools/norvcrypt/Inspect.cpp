#include "Command.h"
#include "Describe.h"
#include "Input.h"
#include "Output.h"
#include "Render.h"

#include <memory>
#include <string>
#include <vector>

namespace norvcrypt {

namespace {

struct InspectOptions {
    std::vector<std::string> files;
    bool json = false;
};

/// What could be read of one file; each object that could not is told and leaves the others alone.
std::vector<Description> objectsOf(const std::string& file, Inputs& inputs, Exit& code) {
    std::vector<Description> objects;
    const auto failed = [&](const std::string& reason) {
        reportError(inputName(file) + ": " + reason);
        code = Exit::failed;
    };
    const std::vector<Piece> pieces = piecesOf(inputs.readAll(file, true));
    for (const Piece& piece : pieces) {
        const std::size_t number = static_cast<std::size_t>(&piece - pieces.data()) + 1;
        const std::string which = pieces.size() > 1 ? "object " + std::to_string(number) + ": " : "";
        try {
            Description object{{"file", file}};
            object.update(describe(piece));
            objects.push_back(std::move(object));
        } catch (const Norvane::Exception& failure) {
            failed(which + failure.asString());
        } catch (const Failure& failure) {
            failed(which + failure.what());
        }
    }
    return objects;
}

Exit inspect(const InspectOptions& options) {
    const std::vector<std::string> files = options.files.empty() ? std::vector<std::string>{"-"} : options.files;
    Inputs inputs;
    TextOutput out;
    Exit code = Exit::good;
    Description all = Description::array();
    for (const std::string& file : files) {
        std::vector<Description> objects;
        try {
            objects = objectsOf(file, inputs, code);
        } catch (const Failure& failure) {
            reportError(failure.what());
            code = Exit::failed;
        }
        for (Description& object : objects) {
            if (!options.json)
                out.text(asText(object));
            else
                all.push_back(std::move(object));
        }
        if (!options.json)
            out.flush();
    }
    if (options.json)
        out.text(asJson(all));
    out.flush();
    return code;
}

} // namespace

void addInspect(CLI::App& app, Action& action) {
    auto options = std::make_shared<InspectOptions>();
    CLI::App* command =
        app.add_subcommand("inspect", "Tells what certificates, pairs of them, lists, keys and CMS structures say");
    command->add_option("FILE", options->files, "DER or PEM, recognised by content; \"-\" or none is standard input");
    command->add_flag("--json", options->json, "One JSON array with an object for each thing found");
    command->callback([options, &action] { action = [options] { return inspect(*options); }; });
}

} // namespace norvcrypt
