#pragma once

/// \file
/// How certificates and lists are written.

#include "openssl/ErrorQueue.h"
#include "openssl/StreamExceptions.h"

#include <norvcrypto/BIOMediaImpl.h>

#include <openssl/bio.h>

namespace Norvane::Crypto::NVX509 {

/// Hands a structure, which may be null, to one of OpenSSL's writers, of whose result nothing is told.
/// \throws whatever `out` throws
template <class Structure>
void writeTo(MediaOut& out, const Structure* structure, int (*writer)(BIO*, const Structure*)) {
    if (structure == nullptr) {
        return;
    }
    const openssl::ErrorMark mark;
    BIOMediaOut adapter(out);
    openssl::rethrowingStreamErrors(adapter, [&] { return writer(adapter, structure); });
}

} // namespace Norvane::Crypto::NVX509
