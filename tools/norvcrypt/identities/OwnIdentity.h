#pragma once

/// \file
/// Certificates with their private keys, as they are given for decrypting.

#include "files/Input.h"
#include "identities/Store.h"

#include <norvcrypto/CMSIdentifier.h>
#include <norvcrypto/Certificate.h>
#include <norvcrypto/Key.h>

#include <list>
#include <optional>
#include <string>
#include <vector>

namespace norvcrypt {

/// A certificate, the private key given with it, the file of that key as it is named in messages, and the certificates that
/// follow the first one in its file.
struct OwnIdentity {
    Norvane::Crypto::NVX509::RefCertificate certificate;
    Norvane::Crypto::RefKey key;
    std::string keyFile;
    std::list<Norvane::Crypto::NVX509::RefCertificate> chain{};
};

/// The files of one identity: a certificate and a key, or a PKCS#12 file, with the passphrase.
struct IdentityFiles {
    std::optional<std::string> certificate;
    std::optional<std::string> key;
    std::optional<std::string> pkcs12;
    std::optional<std::string> passphrase;
};

/// Reads the files. \throws Failure
std::vector<OwnIdentity> readIdentities(const std::vector<IdentityFiles>& files, Inputs& inputs);

/// The identities of a store that have a private key, each read when a message names it.
class StoreIdentities {
public:
    /// \throws Failure: the store cannot be read
    StoreIdentities(const std::string& directory, Inputs& inputs);

    /// The one that a recipient means; of several the first. \throws Failure: the store cannot be read any more
    [[nodiscard]] std::optional<OwnIdentity> find(const Norvane::Crypto::CMS::CertificateIdentifier& name) const;

private:
    std::string m_directory;
    Norvane::Crypto::NVX509::RefDirectoryKeyStore m_store;
};

} // namespace norvcrypt
