#pragma once

#include "commandline/CommandLine.h"
#include "identities/OwnIdentity.h"

#include <optional>
#include <string>
#include <vector>

namespace norvcrypt {

/// The options for any number of identities, told apart by their order: an option that its identity has already, or a
/// PKCS#12 file beside a certificate or key, begins the next one.
class IdentityOptions {
public:
    explicit IdentityOptions(Command& command);

    /// What the command line said, once it was read; it may have none. \throws Failure: an identity lacks a file
    [[nodiscard]] std::vector<IdentityFiles> files() const;
    /// The option that has to be given before there can be an identity at all; nothing when one is there.
    [[nodiscard]] std::optional<std::string> missing() const;
    [[nodiscard]] const std::vector<Option*>& options() const noexcept { return m_options; }

private:
    Command* m_command;
    std::vector<Option*> m_options;
};

} // namespace norvcrypt
