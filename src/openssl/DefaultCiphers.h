#pragma once

/// \file
/// The ciphers of OpenSSL's default provider, looked up once.

#include <openssl/evp.h>

namespace Norvane::Crypto::openssl {

/// What OpenSSL would look up each time that it is given one of its constants (`EVP_aes_256_cbc()`, for one), through
/// several locks and tables, which counts beside a short text. The constant itself where the answer may change from one
/// time to the next: for a cipher that is not the default provider's, which programs load and unload; in a thread that has
/// a library context of its own; and while a program asks for validated implementations alone
/// (`EVP_default_properties_enable_fips`). Other default properties that a program sets after a cipher was used do not
/// change where that cipher comes from. Threads: from any.
const EVP_CIPHER* implementationOf(const EVP_CIPHER* constant) noexcept;

/// Whether what was looked up in the default provider once may be used again, in this thread and now.
bool mayKeepImplementations() noexcept;
bool isOfDefaultProvider(const OSSL_PROVIDER* provider) noexcept;

} // namespace Norvane::Crypto::openssl
