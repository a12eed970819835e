#pragma once

/// \file
/// Certificates with their private keys, as they are given for decrypting.

#include "files/Input.h"

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

/// The identities of a store that have a private key. \throws Failure
std::vector<OwnIdentity> readIdentities(const std::string& store, Inputs& inputs);

} // namespace norvcrypt
