#pragma once

/// \file
/// The identities that a command line gives for decrypting: certificates with their private keys.

#include "files/Input.h"

#include <norvcrypto/Certificate.h>
#include <norvcrypto/Key.h>

#include <CLI/CLI.hpp>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace norvcrypt {

/// A certificate, the private key given with it, and the file of that key as it is named in messages.
struct OwnIdentity {
    Norvane::Crypto::NVX509::RefCertificate certificate;
    Norvane::Crypto::RefKey key;
    std::string keyFile;
};

/// The files of one identity: a certificate and a key, or a PKCS#12 file, with the passphrase.
struct IdentityFiles {
    std::optional<std::string> certificate;
    std::optional<std::string> key;
    std::optional<std::string> pkcs12;
    std::optional<std::string> passphrase;
};

/// The options for any number of identities, told apart by their order: an option that its identity has already, or a
/// PKCS#12 file beside a certificate or key, begins the next one.
class IdentityOptions {
public:
    explicit IdentityOptions(CLI::App& command);

    /// What the command line said, once it was read; it may have none. \throws Failure: an identity lacks a file
    [[nodiscard]] std::vector<IdentityFiles> files() const;

private:
    CLI::App* m_command;
    std::vector<CLI::Option*> m_options;
};

/// Reads the files. \throws Failure
std::vector<OwnIdentity> readIdentities(const std::vector<IdentityFiles>& files, Inputs& inputs);

} // namespace norvcrypt
