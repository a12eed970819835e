#include "OpensslVerify.h"

#include "support/Process.h"

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

} // namespace

OpensslAnswer askOpenssl(const Case& one, const interop::Workspace& folder) {
    std::vector<std::string> arguments{"openssl", "verify", "-CAfile", folder.write("anchors", pemOf(one.anchors))};
    for (const std::string& option : optionsOf(one))
        arguments.push_back(option);
    if (!one.untrusted.empty()) {
        arguments.emplace_back("-untrusted");
        arguments.push_back(folder.write("untrusted", pemOf(one.untrusted)));
    }
    if (!one.lists.empty()) {
        arguments.emplace_back("-CRLfile");
        arguments.push_back(folder.write("lists", pemOf(one.lists)));
    }
    arguments.push_back(folder.write("leaf", one.leaf.pem()));
    const interop::Answer answer = interop::run({.arguments = arguments});
    const std::string said = answer.out + answer.err;
    const bool accepted = answer.status == 0 && answer.out.ends_with("leaf: OK\n");
    const bool refused = answer.status == 2 && answer.err.find("verification failed") != std::string::npos;
    if (accepted == refused)
        throw std::runtime_error("openssl verify could not be asked: " + said);
    return {accepted, errorsIn(said), said};
}

} // namespace agreement
