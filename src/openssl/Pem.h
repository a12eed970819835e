#pragma once

/// \file
/// Reading PEM without a person at hand.

#include "openssl/Acceptance.h"
#include "openssl/Pointers.h"

#include <cstddef>

namespace Norvane::Crypto::openssl {

/// A passphrase callback that has none. Without a callback OpenSSL would ask on the terminal for a block that announces
/// encryption, and a mail server would wait for an answer.
inline int refusePassphrase(char* /*passphrase*/, int /*size*/, int /*forWriting*/, void* /*data*/) {
    return -1;
}

/// The next certificate of a PEM text, as `PEM_read_bio_X509` reads it; null at the end, and for one that does not decode
/// or is refused. May leave entries in the error queue.
CertificatePtr readCertificatePem(BIO* source);

/// The refusal of the first block of a PEM text that is refused. Blocks that are encrypted are not looked into. The error
/// queue stays as it was.
Refusal pemRefusalOf(const unsigned char* text, std::size_t length) noexcept;

} // namespace Norvane::Crypto::openssl
