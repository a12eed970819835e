#ifndef NORVCRYPTO_KEYSTORE_KEY_FILES_H
#define NORVCRYPTO_KEYSTORE_KEY_FILES_H

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
    RefKey key;               ///< null when there is none that could be read
    bool encrypted = false;   ///< without a key: there is one, and it is encrypted
    bool tooCostly = false;   ///< without a key: it is refused before it is decrypted or decoded (`TooCostlyException`)
    bool unsupported = false; ///< without a key: OpenSSL knows no such kind of key or encryption
    std::string reason;       ///< without a key: why, in the words of OpenSSL or of the refusal
};

/// Reads the first private key, as `PrivateKey::readUnattended` does: keys that would take minutes to decrypt or to decode
/// are refused. Never prompts: without a passphrase an encrypted key is not read. An empty passphrase is one like any
/// other. Content that is no PEM is taken for encrypted. What memory held the key is wiped. Of OpenSSL's error queue a
/// failure leaves nothing: what stood in it is in the reason; where something stood in it before, `unsupported` is false.
/// \throws std::bad_alloc
NORVCRYPTO_EXPORT OpenedKey openPrivateKey(const Buffer& content, const std::optional<std::string_view>& passphrase);

/// Whether a PEM block begins in the content, wherever that is.
NORVCRYPTO_EXPORT bool isPem(const Buffer& content);

/// Whether a private key and a certificate belong together; false when one of them is null or has no key that can be
/// read. Leaves OpenSSL's error queue as it was.
NORVCRYPTO_EXPORT bool belongTogether(const RefKey& key, const RefCertificate& certificate);

} // namespace Norvane::Crypto::NVX509

#endif
