#pragma once

/// \file
/// Reading the files of one folder.

#include "Entry.h"

namespace Norvane::Crypto::NVX509::keystore {

/// Reads `cert.pem`. \throws Exhausted
Entry::Leaf readLeaf(const FileDescriptor& folder, const std::string& name);

/// The certificates behind the first one in `cert.pem`, and those of `chain.pem`. \throws Exhausted
std::list<RefCertificate> readChain(const FileDescriptor& folder, const std::string& name, const Entry::Leaf& leaf,
                                    std::vector<Problem>& problems, std::optional<FileState>& state);

/// Reads `chain.pem`, `passphrase` and `key.pem`, which have to go with a certificate. \throws Exhausted
Entry::Holding readHolding(const FileDescriptor& folder, const std::string& name, const Entry::Leaf& leaf, Asker asker);

} // namespace Norvane::Crypto::NVX509::keystore
