#pragma once

#include "read/Passphrase.h"

#include <norvcrypto/Key.h>

#include <string>

namespace norvcrypt {

/// The private key in a file: DER or PEM, encrypted or not. Never prompts. \throws Failure
Norvane::Crypto::RefKey readPrivateKey(Inputs& inputs, const std::string& path, const Passphrase& passphrase);

} // namespace norvcrypt
