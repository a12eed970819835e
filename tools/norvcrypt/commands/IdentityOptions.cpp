#include "commands/IdentityOptions.h"
#include "base/Failure.h"

#include <algorithm>
#include <array>
#include <map>

namespace norvcrypt {

namespace {

using Member = std::optional<std::string> IdentityFiles::*;

struct IdentityOption {
    const char* name;
    Member member;
    const char* help;
};

constexpr std::array identityOptions{
    IdentityOption{"--cert", &IdentityFiles::certificate, "The certificate of an identity: the first one in its file"},
    IdentityOption{"--key", &IdentityFiles::key, "Its private key"},
    IdentityOption{"--p12", &IdentityFiles::pkcs12, "Certificate and key of an identity in one PKCS#12 file"},
    IdentityOption{"--passphrase-file", &IdentityFiles::passphrase,
                   "The passphrase of the identity's key or PKCS#12 file is this file's first line"}};

bool beginsNext(const IdentityFiles& current, Member member) {
    if (current.*member)
        return true;
    if (member == &IdentityFiles::pkcs12)
        return current.certificate || current.key;
    return member != &IdentityFiles::passphrase && current.pkcs12;
}

void requireComplete(const IdentityFiles& files) {
    if (files.pkcs12) {
        if (!files.passphrase)
            throw Failure("--p12 " + *files.pkcs12 + " needs --passphrase-file");
    } else if (!files.certificate) {
        throw Failure(files.key ? "--key " + *files.key + " needs --cert" : "--passphrase-file needs an identity");
    } else if (!files.key) {
        throw Failure("--cert " + *files.certificate + " needs --key");
    }
}

} // namespace

IdentityOptions::IdentityOptions(Command& command) : m_command(&command) {
    for (const IdentityOption& option : identityOptions)
        m_options.push_back(command.repeated(option.name, option.help)->typeName("FILE"));
}

std::optional<std::string> IdentityOptions::missing() const {
    const auto given = [this](Member member) {
        const auto* const option =
            std::ranges::find_if(identityOptions, [member](const IdentityOption& one) { return one.member == member; });
        return !m_options[static_cast<std::size_t>(option - identityOptions.begin())]->empty();
    };
    if (given(&IdentityFiles::pkcs12) || (given(&IdentityFiles::certificate) && given(&IdentityFiles::key)))
        return std::nullopt;
    return given(&IdentityFiles::certificate) ? "--key" : "--cert";
}

std::vector<IdentityFiles> IdentityOptions::files() const {
    std::vector<IdentityFiles> all;
    std::map<const Option*, std::size_t> taken;
    for (const Option* const option : m_command->inOrderGiven()) {
        for (std::size_t at = 0; at < identityOptions.size(); ++at) {
            if (option != m_options[at])
                continue;
            if (all.empty() || beginsNext(all.back(), identityOptions[at].member))
                all.emplace_back();
            all.back().*identityOptions[at].member = option->values().at(taken[option]++);
        }
    }
    for (const IdentityFiles& files : all)
        requireComplete(files);
    return all;
}

} // namespace norvcrypt
