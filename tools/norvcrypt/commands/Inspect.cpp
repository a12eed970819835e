#include "commands/Command.h"
#include "files/Input.h"
#include "files/Output.h"
#include "files/Spill.h"
#include "recognise/Wrapped.h"
#include "show/Description.h"
#include "show/TextAndJson.h"
#include "smime/MailReport.h"

#include <norvcrypto-smime/SMimeReader.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace norvcrypt {

namespace SMime = Norvane::Crypto::SMime;

namespace {

struct InspectOptions {
    std::vector<std::string> files;
    bool json = false;
};

/// What a mail holds, and how it is signed and encrypted.
Description mailIn(const Norvane::Buffer& content, const std::string& file) {
    SMime::ReadOptions options;
    options.spillTemplate = spillTemplate();
    options.explain = true;
    options.listParts = true;
    Norvane::MediaOut nowhere = Norvane::NullMediaOut();
    const SMime::Answer answer = SMime::read(Norvane::MemoryMediaIn(content), nowhere, options);
    return mailFacts(answer, std::nullopt, file);
}

/// What could be read of one file; each object that could not is told and leaves the others alone.
std::vector<Description> objectsOf(const std::string& file, Inputs& inputs, Exit& code) {
    std::vector<Description> descriptions;
    const auto failed = [&](const std::string& reason) {
        reportError(inputName(file) + ": " + reason);
        code = Exit::failed;
    };
    const Norvane::Buffer content = inputs.readAll(file, true);
    if (looksLikeMail(content))
        descriptions.push_back(mailIn(content, file));
    const std::vector<FoundObject> found = objectsIn(content);
    const bool isOnlyMail = found.size() == 1 && found.front().kind == ObjectKind::unknown && !descriptions.empty();
    if (isOnlyMail)
        return descriptions;
    // A part of a mail that is a structure is no mail.
    if (!descriptions.empty() && descriptions.front()["verdict"] == SMime::nameOf(SMime::Verdict::notSMime))
        descriptions.clear();
    for (const FoundObject& object : found) {
        const std::size_t number = static_cast<std::size_t>(&object - found.data()) + 1;
        const std::string which = found.size() > 1 ? "object " + std::to_string(number) + ": " : "";
        try {
            Description description{{"file", file}};
            description.update(describe(object));
            descriptions.push_back(std::move(description));
        } catch (const Norvane::Exception& failure) {
            failed(which + failure.asString());
        } catch (const Failure& failure) {
            failed(which + failure.what());
        }
    }
    return descriptions;
}

Exit inspect(const InspectOptions& options) {
    const std::vector<std::string> files = options.files.empty() ? std::vector<std::string>{"-"} : options.files;
    Inputs inputs;
    TextOutput out;
    Exit code = Exit::good;
    Description all = Description::array();
    for (const std::string& file : files) {
        std::vector<Description> descriptions;
        try {
            descriptions = objectsOf(file, inputs, code);
        } catch (const Failure& failure) {
            reportError(failure.what());
            code = Exit::failed;
        }
        for (Description& description : descriptions) {
            if (!options.json)
                out.text(asText(description));
            else
                all.push_back(std::move(description));
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

void addInspect(Command& commands, Action& action) {
    auto options = std::make_shared<InspectOptions>();
    Command* command = commands.command(
        "inspect", "Tells what certificates, pairs of them, lists, keys, CMS structures and mails say");
    command->option(
        "FILE", options->files,
        "DER, PEM, base64, a mail or a part of one, recognised by content; \"-\" or none is standard input");
    command->flag("--json", options->json, "One JSON array with an object for each thing found");
    command->whenChosen([options, &action] { action = [options] { return inspect(*options); }; });
}

} // namespace norvcrypt
