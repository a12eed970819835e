#pragma once

/// \file
/// Reading PEM without a person at hand.

namespace Norvane::Crypto::openssl {

/// A passphrase callback that has none. Without a callback OpenSSL would ask on the terminal for a block that announces
/// encryption, and a mail server would wait for an answer.
inline int refusePassphrase(char* /*passphrase*/, int /*size*/, int /*forWriting*/, void* /*data*/) {
    return -1;
}

} // namespace Norvane::Crypto::openssl
