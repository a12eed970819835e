#pragma once

/// \file
/// PKCS#12 structures. What fails leaves its reasons in the error queue, except that OpenSSL queues nothing for a wrong
/// password.

#include "openssl/DerivationWork.h"
#include "openssl/Pointers.h"

#include <string>

namespace Norvane::Crypto::openssl {

/// Decodes one structure from `source`; null, with at least one reason queued, when the bytes are none.
Pkcs12Ptr decodePkcs12(BIO* source) noexcept;

/// Adds what checking the password costs.
void addMac(const PKCS12_st* structure, DerivationWork& work) noexcept;

/// Whether the structure's MAC belongs to it and the password, all of whose bytes count. False for a structure without
/// MAC. A null password is none at all, which is not the empty one (RFC 7292, B.1: that is two bytes of zero).
bool verifyPassword(PKCS12_st* structure, const std::string* password) noexcept;

/// What a structure holds; either pointer may be null.
struct Identity {
    KeyPtr key;
    CertificatePtr certificate;
};

/// What became of opening a structure. Not opened and no refusal: the reasons are in the error queue.
struct Pkcs12Opening {
    bool succeeded = false;
    std::string refusal; ///< what would have cost too much
    Identity found;
};

/// Finds the first private key and the certificate that belongs to it, as PKCS12_parse does, and drops other
/// certificates. Derives each key once, and none without having added it to `work` and found that affordable; keys and
/// certificates that cost too much to decode are not decoded. Does not check the MAC again. A password with an embedded
/// NUL, at which OpenSSL would cut it, opens nothing.
Pkcs12Opening openPkcs12(const PKCS12_st* structure, const std::string* password, DerivationWork& work);

} // namespace Norvane::Crypto::openssl
