#pragma once

#include "cms/TrialDecryption.h"
#include "commandline/CommandLine.h"
#include "files/Input.h"

#include <optional>
#include <string>

namespace norvcrypt {

/// The options for what both sides have: a password, and a key-encryption key.
class SecretOptions {
public:
    explicit SecretOptions(Command& command);

    [[nodiscard]] bool any() const noexcept { return m_password || m_keyEncryptionKey; }
    /// What is in the files; nothing when there is none. \throws Failure
    [[nodiscard]] std::optional<SharedSecret> password(Inputs& inputs) const;
    [[nodiscard]] std::optional<SharedSecret> keyEncryptionKey(Inputs& inputs) const;

private:
    std::optional<std::string> m_password;
    std::optional<std::string> m_keyEncryptionKey;
};

} // namespace norvcrypt
