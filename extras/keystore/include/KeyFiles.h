#pragma once

/// \file
/// Private keys as files hold them: what the store and the command-line tool both ask. Part of libnorvcrypto-keystore.
///
/// Everything here may be called from any number of threads at once, for other keys and certificates each.

#include <norvcmsg/Buffer.h>
#include <norvcrypto/Certificate.h>
#include <norvcrypto/Export.h>
#include <norvcrypto/Key.h>

#include <optional>
#include <string>
#include <string_view>

namespace Norvane::Crypto::NVX509 {

/// The most bytes of a passphrase; OpenSSL would cut a longer one without a word.
constexpr unsigned int longestPassphrase = 1023;

/// What became of reading a private key.
struct OpenedKey {
    RefKey key;             ///< null when there is none that could be read
    bool encrypted = false; ///< what was read, or was to be read, is encrypted
    bool tooCostly = false; ///< refused: reading it would cost more than `PrivateKey` allows
    std::string reason;     ///< why there is no key
};

/// Reads a private key as `PrivateKey::readUnattended` does, and answers instead of throwing: never prompts, an empty
/// passphrase is one like any other, and without a passphrase an encrypted key is not read. Content that is no PEM is
/// taken for encrypted.
NORVCRYPTO_EXPORT OpenedKey openPrivateKey(const Buffer& content, const std::optional<std::string_view>& passphrase);

/// Whether a PEM block begins in the content, wherever that is.
NORVCRYPTO_EXPORT bool isPem(const Buffer& content);

/// Whether a private key and a certificate belong together; false when one of them is null or has no key that can be
/// read. Leaves OpenSSL's error queue as it was.
NORVCRYPTO_EXPORT bool belongTogether(const RefKey& key, const RefCertificate& certificate);

} // namespace Norvane::Crypto::NVX509
