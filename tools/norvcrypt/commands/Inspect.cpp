#include "commands/Command.h"
#include "files/Input.h"
#include "files/Output.h"
#include "files/Spill.h"
#include "recognise/WhatElse.h"
#include "recognise/Wrapped.h"
#include "show/Asn1Tree.h"
#include "show/Description.h"
#include "show/TextAndJson.h"
#include "smime/MailReport.h"

#include <norvcmsg/Escape.h>
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
    bool tree = false;
    std::optional<std::string> entries;
};

/// What a mail holds, and how it is signed and encrypted.
Description mailIn(const Norvane::Buffer& content, const std::string& file, Exit& code) {
    SMime::ReadOptions options;
    options.spillTemplate = spillTemplate();
    options.explain = true;
    options.listParts = true;
    Norvane::MediaOut nowhere = Norvane::NullMediaOut();
    const SMime::Answer answer = SMime::read(Norvane::MemoryMediaIn(content), nowhere, options);
    if (!isRead(answer))
        code = Exit::failed;
    return mailFacts(answer, std::nullopt, file);
}

/// What could be read of one file; each object that could not is told and leaves the others alone.
std::vector<Description> objectsOf(const std::string& file, const EntryRange& range, Inputs& inputs, Exit& code) {
    std::vector<Description> descriptions;
    const auto failed = [&](const std::string& reason) {
        reportError(inputName(file) + ": " + reason);
        code = Exit::failed;
    };
    const Norvane::Buffer content = inputs.readAll(file, true);
    if (looksLikeMail(content))
        descriptions.push_back(mailIn(content, file, code));
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
            description.update(describe(object, range));
            descriptions.push_back(std::move(description));
        } catch (const Norvane::Exception& failure) {
            failed(which + inPlainWords(failure));
        } catch (const Failure& failure) {
            failed(which + failure.what());
        }
    }
    return descriptions;
}

/// "21-40", or "21": it alone. \throws Failure
EntryRange rangeOf(const std::string& text) {
    const std::size_t dash = text.find('-');
    const auto number = [&text](const std::string& digits) {
        if (digits.empty() || digits.size() > 9 || digits.find_first_not_of("0123456789") != std::string::npos ||
            std::stoul(digits) == 0)
            throw Failure("--entries takes numbers from 1 on, as 21-40: " + text);
        return static_cast<std::size_t>(std::stoul(digits));
    };
    EntryRange range;
    range.first = number(text.substr(0, dash));
    range.last = dash == std::string::npos ? range.first : number(text.substr(dash + 1));
    if (range.last < range.first)
        throw Failure("--entries takes the smaller number first: " + text);
    return range;
}

/// The elements of each object of a file, whether it is known or not.
Exit showTrees(const std::vector<std::string>& files) {
    Inputs inputs;
    TextOutput out;
    Exit code = Exit::good;
    for (const std::string& file : files) {
        try {
            const Norvane::Buffer content = inputs.readAll(file, true);
            const std::vector<FoundObject> found = objectsIn(content);
            std::optional<std::string> whatElse; // asked once: it goes through all of the content
            std::size_t number = 0;
            for (const FoundObject& object : found) {
                ++number;
                if (object.der.empty()) {
                    if (!whatElse)
                        whatElse = whatElseIsIn(content);
                    reportError(inputName(file) + ": no DER, BER or PEM to be shown" + *whatElse);
                    code = Exit::failed;
                    continue;
                }
                out.line(Norvane::escapeForDisplay(file) +
                         (found.size() > 1 ? ": object " + std::to_string(number) : std::string()));
                showTree(object.der, [&out](const std::string& line) { out.line(line); });
                out.flush();
            }
        } catch (const Failure& failure) {
            reportError(failure.what());
            code = Exit::failed;
        }
    }
    return code;
}

Exit inspect(const InspectOptions& options) {
    const std::vector<std::string> files = options.files.empty() ? std::vector<std::string>{"-"} : options.files;
    if (options.tree)
        return showTrees(files);
    const EntryRange range = options.entries ? rangeOf(*options.entries) : EntryRange();
    Inputs inputs;
    TextOutput out;
    Exit code = Exit::good;
    Description all = Description::array();
    for (const std::string& file : files) {
        std::vector<Description> descriptions;
        try {
            descriptions = objectsOf(file, range, inputs, code);
        } catch (const Failure& failure) {
            reportError(failure.what());
            code = Exit::failed;
        } catch (const Norvane::Exception& failure) { // no room for what is kept aside of a mail
            reportError(inputName(file) + ": " + inPlainWords(failure));
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
        "inspect", "Tells what certificates, pairs of them, requests, lists, keys, CMS structures and mails say");
    command->option(
        "FILE", options->files,
        "DER, PEM, base64, a mail or a part of one, recognised by content; \"-\" or none is standard input");
    Option* const json =
        command->flag("--json", options->json, "One JSON array with an object for each thing found (docs/json.md)");
    Option* const entries = command
                                ->option("--entries", options->entries,
                                         "Which entries of revocation lists are told: 21-40. Without it the first ten")
                                ->typeName("FROM-TO");
    command
        ->flag("--tree", options->tree, "The elements of the encoding (ASN.1) instead, as they stand, damaged or not")
        ->excludes(json)
        ->excludes(entries);
    command->example("norvcrypt inspect alice.pem ca.crl message.p7s");
    command->example("norvcrypt inspect message.p7m --json");
    command->example("norvcrypt inspect --tree alice.pem");
    command->whenChosen([options, &action] { action = [options] { return inspect(*options); }; });
}

} // namespace norvcrypt
