#include "commands/SecretOptions.h"
#include "read/KeyEncryptionKey.h"
#include "read/Passphrase.h"

namespace norvcrypt {

SecretOptions::SecretOptions(Command& command) {
    command
        .option("--password-file", m_password,
                "The password for messages that are encrypted with one is this file's first line")
        ->typeName("FILE");
    command
        .option("--kek-file", m_keyEncryptionKey,
                "The key-encryption key that both sides have: 16, 24 or 32 bytes, or as many in hexadecimal digits")
        ->typeName("FILE");
}

std::optional<SharedSecret> SecretOptions::password(Inputs& inputs) const {
    if (!m_password)
        return std::nullopt;
    const Passphrase password(inputs, m_password);
    SharedSecret secret{{}, inputName(*m_password)};
    secret.octets.protect();
    secret.octets.append(
        Norvane::Buffer(password.text().data(), static_cast<unsigned int>(password.text().size()), true));
    return secret;
}

std::optional<SharedSecret> SecretOptions::keyEncryptionKey(Inputs& inputs) const {
    if (!m_keyEncryptionKey)
        return std::nullopt;
    return SharedSecret{readKeyEncryptionKey(inputs, *m_keyEncryptionKey), inputName(*m_keyEncryptionKey)};
}

} // namespace norvcrypt
