#pragma once

/// \file
/// Messages of every kind that the readers read, and the keys that open them.

#include "Tree.h"

#include <norvcrypto/CMSEnvelopeReader.h>

#include <authority/Authority.h>

#include <string>
#include <utility>
#include <vector>

namespace fuzz {

/// A name for a file, and a message.
using Seed = std::pair<std::string, Bytes>;

const std::vector<Seed>& envelopeSeeds();
const std::vector<Seed>& signedSeeds();
std::vector<Bytes> octetsOf(const std::vector<Seed>& seeds);

/// The body of detached messages.
const Bytes& detachedBody();

// Who opens the envelopes.
const norvauthority::Identity& rsaRecipient();
const norvauthority::Identity& agreementRecipient();
const Bytes& keyEncryptionKey();
const Bytes& keyEncryptionKeyIdentifier();
const std::string& messagePassword();

Norvane::Buffer bufferOf(const Bytes& octets);
Norvane::Crypto::NVX509::KeyCertificatePair pairOf(const norvauthority::Identity& identity);

} // namespace fuzz
