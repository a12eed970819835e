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
#include <string_view>

namespace Norvane::Crypto::NVX509 {

/// The most bytes of a passphrase; OpenSSL would cut a longer one without a word.
constexpr unsigned int longestPassphrase = 1023;

/// What became of reading a private key.
struct OpenedKey {
    RefKey key;             ///< null when there is none that could be read; OpenSSL's error queue tells why
    bool encrypted = false; ///< a passphrase was asked for
};

/// How a file holds its key: in a PEM block (PKCS#8, RFC 5958, or the older forms of OpenSSL), or as the DER of an
/// encrypted PKCS#8 structure.
enum class KeyForm : int { pem, encryptedDer };

/// Reads the first private key. Never prompts: without a passphrase an encrypted key is not read. An empty passphrase is
/// one like any other. The bytes are read where they are, so that no copy of a key stays behind.
/// \throws std::bad_alloc
NORVCRYPTO_EXPORT OpenedKey openPrivateKey(const Buffer& content, KeyForm form,
                                           const std::optional<std::string_view>& passphrase);

/// Whether a private key and a certificate belong together; false when one of them is null or has no key that can be
/// read. Leaves OpenSSL's error queue as it was.
NORVCRYPTO_EXPORT bool belongTogether(const RefKey& key, const RefCertificate& certificate);

} // namespace Norvane::Crypto::NVX509
