#pragma once

#include <norvcrypto/CMSEnvelopeWriter.h>
#include <norvcrypto/Encryption.h>

#include <optional>
#include <string>

namespace norvcrypt {

/// A cipher under the name that OpenSSL spells it with, and the lengths in bytes of what it takes.
struct NamedCipher {
    const char* name;
    Norvane::Crypto::Cipher cipher;
    unsigned int keyLength;
    unsigned int ivLength;
};

/// The cipher of that name, "aes-256-cbc" say, in upper or lower case. \throws Failure: there is none
const NamedCipher& cipherNamed(const std::string& name);

/// All names, for help texts: "des-cbc, idea-cbc, ...".
std::string cipherNames();

/// A cipher for messages; which of the two members has it tells what can be made with it.
struct MessageCipher {
    std::optional<Norvane::Crypto::CMS::ContentCipher> content{}; ///< messages of every kind
    std::optional<Norvane::Crypto::Cipher> old{};                 ///< EnvelopedData for RSA keys alone
};

/// The cipher of that name, as above or "aes-256-gcm" say. \throws Failure: there is none
MessageCipher messageCipherNamed(const std::string& name);

/// All names of them.
std::string messageCipherNames();

/// The cipher of that name for messages of every kind. \throws Failure: there is none
Norvane::Crypto::CMS::ContentCipher contentCipherNamed(const std::string& name);

/// All names of those.
std::string contentCipherNames();

} // namespace norvcrypt
