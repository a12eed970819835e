#pragma once

/// \file
/// Keys and certificates from PKCS#12 files.

#include "files/Input.h"
#include "read/Passphrase.h"

#include <norvcrypto/Certificate.h>
#include <norvcrypto/Key.h>

#include <optional>
#include <string>

namespace norvcrypt {

/// What a PKCS#12 file offers; either handle may be empty.
struct Pkcs12Content {
    Norvane::Crypto::RefKey key;
    Norvane::Crypto::NVX509::RefCertificate certificate; ///< the one that belongs to the key
};

/// Reads a file; nothing when the passphrase is wrong. \throws Failure: it cannot be read otherwise
std::optional<Pkcs12Content> readPkcs12(Inputs& inputs, const std::string& path, const Passphrase& passphrase);

} // namespace norvcrypt
