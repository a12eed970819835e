#include "commands/Command.h"
#include "files/Output.h"
#include "identities/Store.h"
#include "identities/StoreCheck.h"
#include "show/Description.h"
#include "show/TextAndJson.h"

#include <norvcmsg/Escape.h>

#include <array>
#include <memory>
#include <string>
#include <vector>

namespace norvcrypt {

namespace {

using Purpose = Store::Purpose;
using Norvane::escapeForDisplay;

struct BindingsOptions {
    std::string store;
    std::string address;
    bool json = false;
};

void show(const std::string& text) {
    TextOutput out;
    out.text(text);
    out.flush();
}

Description problemFacts(const Store::Problem& problem) {
    Description facts{{"folder", problem.folder}};
    if (!problem.file.empty())
        facts["file"] = problem.file;
    facts["reason"] = problem.reason;
    return facts;
}

Description ownerFacts(const Store::Owner& owner) {
    return {{"pattern", owner.pattern.text()}, {"line", owner.line}};
}

Description identityFacts(const Store::Identity& identity) {
    Description facts = certificateFacts(identity.certificate);
    facts["key"] = keyFacts(identity.certificate->key());
    facts["privateKey"] = identity.hasKey;
    facts["chain"] = Description::array();
    for (const auto& certificate : identity.chain)
        facts["chain"].push_back({{"subject", displayName(certificate->subject())}});
    facts["owners"] = Description::array();
    for (const Store::Owner& owner : identity.owners)
        facts["owners"].push_back(ownerFacts(owner));
    return facts;
}

/// "folder/file", as a person would name it.
std::string placeOf(const std::string& folder, const std::string& file) {
    return escapeForDisplay(file.empty() ? folder : folder + "/" + file);
}

/// What was skipped, for programs and for people.
Description problemsFacts(const std::vector<Store::Problem>& problems) {
    Description all = Description::array();
    for (const Store::Problem& problem : problems)
        all.push_back(problemFacts(problem));
    return all;
}

std::string problemsText(const std::vector<Store::Problem>& problems) {
    std::string text;
    for (const Store::Problem& problem : problems)
        text += placeOf(problem.folder, problem.file) + ": skipped: " + escapeForDisplay(problem.reason) + "\n";
    return text;
}

std::shared_ptr<const Store::Contents> contentsOf(const std::string& directory) {
    const auto store = openStore(directory);
    return askStore(directory, [&] { return store->contents(); });
}

Exit list(const BindingsOptions& options) {
    const auto contents = contentsOf(options.store);
    Description all{{"store", options.store},
                    {"identities", Description::array()},
                    {"problems", problemsFacts(contents->problems)}};
    std::string text;
    for (const Store::Identity& identity : contents->identities) {
        Description facts = identityFacts(identity);
        Description one{{"folder", identity.folder}};
        one.update(facts);
        all["identities"].push_back(std::move(one));
        facts["owners"] = Description::array();
        for (const Store::Owner& owner : identity.owners)
            facts["owners"].push_back(owner.pattern.text() + " (line " + std::to_string(owner.line) + ")");
        text += asText(escapeForDisplay(identity.folder) + ": identity", facts);
    }
    text += problemsText(contents->problems);
    show(options.json ? asJson(all) : text);
    return Exit::good;
}

Exit check(const BindingsOptions& options) {
    const auto contents = contentsOf(options.store);
    const std::vector<Finding> findings = findingsIn(*contents, std::time(nullptr));
    Description all{
        {"store", options.store}, {"identities", contents->identities.size()}, {"problems", Description::array()}};
    std::string text;
    for (const Finding& finding : findings) {
        Description one{{"kind", finding.kind}, {"folder", finding.folder}};
        text += placeOf(finding.folder, finding.file);
        if (!finding.file.empty())
            one["file"] = finding.file;
        if (finding.line) {
            one["line"] = *finding.line;
            text += ":" + std::to_string(*finding.line);
        }
        if (finding.pattern) {
            one["pattern"] = *finding.pattern;
            text += ": " + escapeForDisplay(*finding.pattern);
        }
        one["reason"] = finding.reason;
        text += ": " + escapeForDisplay(finding.reason) + "\n";
        all["problems"].push_back(std::move(one));
    }
    text += "identities: " + std::to_string(contents->identities.size()) +
            ", problems: " + std::to_string(findings.size()) + "\n";
    show(options.json ? asJson(all) : text);
    return findings.empty() ? Exit::good : Exit::refused;
}

/// A word for programs, and one for people.
std::array<const char*, 2> fitnessName(Store::Fitness fitness) {
    switch (fitness) {
    case Store::Fitness::fit:
        return {"fit", "fit"};
    case Store::Fitness::outOfValidity:
        return {"outOfValidity", "expired or not yet valid"};
    case Store::Fitness::usageForbids:
        return {"usageForbids", "its key usage forbids it"};
    case Store::Fitness::unsuitableKey:
        return {"unsuitableKey", "its kind of key cannot do it"};
    case Store::Fitness::noKey:
        break;
    }
    return {"noKey", "it has no private key"};
}

/// The match that won with its certificate, and every match in the order in which they were looked at.
Description explanationFacts(const Store::Explanation& found) {
    Description matches = Description::array();
    Description winner;
    for (std::size_t i = 0; i < found.matches.size(); ++i) {
        const Store::Match& match = found.matches[i];
        const Store::Identity& identity = found.contents->identities[match.place.identity];
        Description one{{"folder", identity.folder}};
        one.update(ownerFacts(identity.owners[match.place.owner]));
        if (found.winner == i) {
            winner = one;
            winner["privateKey"] = identity.hasKey;
            winner.update(certificateFacts(identity.certificate));
        }
        one["literals"] = identity.owners[match.place.owner].pattern.literalLength();
        one["fitness"] = fitnessName(match.fitness)[0];
        matches.push_back(std::move(one));
    }
    return {{"winner", winner}, {"matches", matches}};
}

/// "pattern (folder, line 2, 16 literal bytes): fit, won"
std::string matchText(const Description& match, Store::Fitness fitness, bool won) {
    const auto literals = match.at("literals").get<std::size_t>();
    const char* const unit = literals == 1 ? " literal byte): " : " literal bytes): ";
    const char* const winning = fitness == Store::Fitness::fit ? ", won" : ", won for want of a valid one";
    return match.at("pattern").get<std::string>() + " (" + match.at("folder").get<std::string>() + ", line " +
           match.at("line").dump() + ", " + std::to_string(literals) + unit + fitnessName(fitness)[1] +
           (won ? winning : "");
}

std::string explanationText(const char* purpose, const Store::Explanation& found, const Description& facts) {
    Description shown = facts.at("winner").is_null() ? Description{{"folder", "nobody"}} : facts.at("winner");
    const std::string heading = std::string(purpose) + ": " + escapeForDisplay(shown.at("folder").get<std::string>());
    shown.erase("folder");
    shown["matches"] = Description::array();
    for (std::size_t i = 0; i < found.matches.size(); ++i)
        shown["matches"].push_back(matchText(facts.at("matches").at(i), found.matches[i].fitness, found.winner == i));
    return asText(heading, shown);
}

Exit find(const BindingsOptions& options) {
    const auto address = mailAddress(options.address);
    const auto store = openStore(options.store);
    Description all{{"store", options.store}, {"address", options.address}};
    std::string text;
    bool served = false;
    std::vector<Store::Problem> problems;
    for (const Purpose purpose : {Purpose::signing, Purpose::encryption, Purpose::decryption}) {
        const Store::Explanation found = askStore(options.store, [&] { return store->explain(address, purpose); });
        const Description facts = explanationFacts(found);
        served = served || found.winner.has_value();
        text += explanationText(purposeName(purpose), found, facts);
        all[purposeName(purpose)] = facts;
        problems = found.contents->problems; // which might have been used; the same for every purpose
    }
    text += problemsText(problems);
    all["problems"] = problemsFacts(problems);
    show(options.json ? asJson(all) : text);
    return served ? Exit::good : Exit::refused;
}

Command* addCommand(Command& parent, Action& action, const std::shared_ptr<BindingsOptions>& options,
                    const std::string& name, const std::string& description, Exit (*run)(const BindingsOptions&)) {
    Command* command = parent.command(name, description);
    command->option("--store", options->store, "The directory: a folder for each identity")
        ->typeName("DIR")
        ->required();
    command->flag("--json", options->json, "One JSON object");
    command->whenChosen([options, &action, run] { action = [options, run] { return run(*options); }; });
    return command;
}

} // namespace

void addBindings(Command& commands, Action& action) {
    auto options = std::make_shared<BindingsOptions>();
    Command* bindings =
        commands.command("bindings", "Tells which certificates and keys belong to which mail addresses");
    bindings->requireCommand();
    bindings->note("A store is a directory with a folder for each identity: cert.pem, and chain.pem, key.pem, "
                   "passphrase and owners.txt, which holds one address pattern a line.");

    bindings->example("norvcrypt bindings find alice@example.org --store identities");
    addCommand(*bindings, action, options, "list", "Lists the identities of a store, and what was skipped", list)
        ->note("JSON: store, identities (folder, the keys of inspect for a certificate, key, privateKey, chain, "
               "owners with pattern and line), problems (folder, file, reason).")
        ->example("norvcrypt bindings list --store identities");

    const std::string limits =
        std::to_string(leastFactoringBits) + " bits (RSA, DSA, DH) or " + std::to_string(leastCurveBits) + " bits (EC)";
    addCommand(*bindings, action, options, "check", "Looks for what should be mended in a store", check)
        ->note("Kinds of problems: unreadable (a file or folder was skipped; a key that does not belong to its "
               "certificate too), expired, notYetValid, weakKey (below " +
               limits +
               "), duplicate (issuer and serial number of another identity), useless (no purpose is left to it), "
               "impossible (the pattern matches no address), shadowed (an earlier pattern always wins). Patterns are "
               "told only where it is certain.\n"
               "JSON: store, identities (their number), problems (kind, folder, file, line, pattern, reason).\n"
               "Exit code: 0 no problem, 1 a problem, 2 the store cannot be read.")
        ->example("norvcrypt bindings check --store identities");

    Command* search = addCommand(*bindings, action, options, "find",
                                 "Tells which certificate and key belong to an address, and why", find);
    search->option("ADDRESS", options->address, "The mail address; \"\" is the empty one of a bounce")->required();
    search->note(
        "JSON: store, address, then for each of signing, encryption, decryption: winner (folder, pattern, "
        "line, privateKey, the keys of inspect for a certificate; null for none) and matches in the order "
        "in which they are tried (folder, pattern, line, literals: their number of bytes, fitness: fit, "
        "outOfValidity, usageForbids, unsuitableKey, noKey), and problems (what was skipped: folder, file, reason). "
        "More literal bytes come first, then the earlier line.\n"
        "Exit code: 0 the address has an identity, 1 it has none, 2 bad usage or an unreadable store.");
    search->example("norvcrypt bindings find alice@example.org --store identities");
    search->example("norvcrypt bindings find nobody@example.org --store identities # exit code 1");
}

} // namespace norvcrypt
