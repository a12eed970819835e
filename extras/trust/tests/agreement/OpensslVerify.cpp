#include "OpensslVerify.h"

#include "support/Process.h"
#include "support/Workspace.h"

#include <algorithm>
#include <regex>
#include <stdexcept>

namespace agreement {

namespace {

template <class Objects> std::string pemOf(const Objects& objects) {
    std::string text;
    for (const auto& object : objects)
        text += object.pem();
    return text;
}

/// What the library does without being asked stands here as options.
std::vector<std::string> optionsOf(const Case& one) {
    std::vector<std::string> options{"-no-CApath",
                                     "-no-CAstore",
                                     "-auth_level",
                                     "2",
                                     "-policy_check",
                                     "-attime",
                                     std::to_string(one.at.value_or(now()))};
    const auto add = [&options](const std::vector<std::string>& more) {
        options.insert(options.end(), more.begin(), more.end());
    };
    if (one.purpose != For::any)
        add({"-purpose", one.purpose == For::sign ? "smimesign" : "smimeencrypt"});
    if (one.revocation == Lists::required)
        add({"-crl_check", "-crl_check_all"});
    if (one.revocation != Lists::none)
        add({"-extended_crl", "-use_deltas"});
    // Without a policy openssl knows no user policies, not even those that an authority demands.
    if (one.policies.empty())
        add({"-policy", "2.5.29.32.0"});
    for (const std::string& policy : one.policies)
        add({"-policy", policy});
    if (!one.policies.empty())
        add({"-explicit_policy"});
    if (one.partialChain)
        add({"-partial_chain"});
    if (one.depth)
        add({"-verify_depth", std::to_string(*one.depth)});
    add(one.opensslMore);
    return options;
}

std::vector<Error> errorsIn(const std::string& text) {
    static const std::regex line("(\\[CRL path\\] )?error (\\d+) at (-?\\d+) depth lookup: ");
    std::vector<Error> errors;
    for (std::sregex_iterator found(text.begin(), text.end(), line), end; found != end; ++found)
        errors.push_back({std::stoi((*found)[2]), std::stoi((*found)[3]), (*found)[1].matched});
    std::sort(errors.begin(), errors.end());
    return errors;
}

/// One line of a shell: what the program says goes to standard output, and what it ends with behind that.
std::string commandFor(const Case& one, const interop::Workspace& folder) {
    std::vector<std::string> arguments{"verify", "-CAfile", folder.write(one.name + ".anchors", pemOf(one.anchors))};
    for (const std::string& option : optionsOf(one))
        arguments.push_back(option);
    if (!one.untrusted.empty()) {
        arguments.emplace_back("-untrusted");
        arguments.push_back(folder.write(one.name + ".untrusted", pemOf(one.untrusted)));
    }
    if (!one.lists.empty()) {
        arguments.emplace_back("-CRLfile");
        arguments.push_back(folder.write(one.name + ".lists", pemOf(one.lists)));
    }
    arguments.push_back(folder.write(one.name + ".leaf", one.leaf.pem()));
    std::string command = "openssl";
    for (const std::string& argument : arguments)
        command += " '" + argument + "'";
    return command + " > " + folder.path(one.name) + " 2>&1; echo ends with $? >> " + folder.path(one.name) + "\n";
}

OpensslAnswer answerIn(const std::string& said) {
    const bool accepted = said.ends_with("\nends with 0\n") && said.find("leaf: OK\n") != std::string::npos;
    const bool refused =
        said.ends_with("\nends with 2\n") && said.find("leaf: verification failed\n") != std::string::npos;
    if (accepted == refused)
        throw std::runtime_error("openssl verify could not be asked: " + said);
    return {accepted, errorsIn(said), said};
}

} // namespace

std::map<std::string, OpensslAnswer> askOpenssl(const std::vector<Case>& cases) {
    const interop::Workspace folder;
    std::string script;
    for (const Case& one : cases)
        script += commandFor(one, folder);
    interop::run({.arguments = {"sh", folder.write("script", script)}});
    std::map<std::string, OpensslAnswer> answers;
    for (const Case& one : cases)
        answers[one.name] = answerIn(folder.read(one.name));
    return answers;
}

} // namespace agreement
