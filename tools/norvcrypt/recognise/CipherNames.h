#pragma once

#include <norvcrypto/Encryption.h>

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

} // namespace norvcrypt
