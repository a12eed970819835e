#include "recognise/CipherNames.h"
#include "base/Failure.h"

#include <algorithm>
#include <array>
#include <strings.h>

namespace norvcrypt {

namespace {

constexpr std::array<NamedCipher, 8> ciphers{{{"des-cbc", Norvane::Crypto::DES_CBC, 8, 8},
                                              {"idea-cbc", Norvane::Crypto::IDEA_CBC, 16, 8},
                                              {"des-ede3-cbc", Norvane::Crypto::DES_EDE3_CBC, 24, 8},
                                              {"bf-cbc", Norvane::Crypto::BF_CBC, 16, 8},
                                              {"cast5-cbc", Norvane::Crypto::CAST5_CBC, 16, 8},
                                              {"aes-128-cbc", Norvane::Crypto::AES_128_CBC, 16, 16},
                                              {"aes-192-cbc", Norvane::Crypto::AES_192_CBC, 24, 16},
                                              {"aes-256-cbc", Norvane::Crypto::AES_256_CBC, 32, 16}}};

using Norvane::Crypto::CMS::ContentCipher;

struct NamedContentCipher {
    const char* name;
    ContentCipher cipher;
};

constexpr std::array<NamedContentCipher, 7> contentCiphers{{{"des-ede3-cbc", ContentCipher::tripleDesCbc},
                                                            {"aes-128-cbc", ContentCipher::aes128Cbc},
                                                            {"aes-192-cbc", ContentCipher::aes192Cbc},
                                                            {"aes-256-cbc", ContentCipher::aes256Cbc},
                                                            {"aes-128-gcm", ContentCipher::aes128Gcm},
                                                            {"aes-192-gcm", ContentCipher::aes192Gcm},
                                                            {"aes-256-gcm", ContentCipher::aes256Gcm}}};

/// Null when there is none of that name.
template <class Table> auto* find(const Table& table, const std::string& name) {
    const auto found = std::find_if(table.begin(), table.end(),
                                    [&name](const auto& one) { return strcasecmp(one.name, name.c_str()) == 0; });
    return found == table.end() ? nullptr : &*found;
}

[[noreturn]] void refuse(const std::string& name, const std::string& names) {
    throw Failure("unknown cipher: " + name + " (one of " + names + ")");
}

} // namespace

const NamedCipher& cipherNamed(const std::string& name) {
    const NamedCipher* const found = find(ciphers, name);
    if (found == nullptr)
        refuse(name, cipherNames());
    return *found;
}

std::string cipherNames() {
    std::string names;
    for (const NamedCipher& one : ciphers)
        names += (names.empty() ? "" : ", ") + std::string(one.name);
    return names;
}

MessageCipher messageCipherNamed(const std::string& name) {
    if (const NamedContentCipher* const found = find(contentCiphers, name))
        return {.content = found->cipher};
    if (const NamedCipher* const found = find(ciphers, name))
        return {.old = found->cipher};
    refuse(name, messageCipherNames());
}

std::string messageCipherNames() {
    std::string names = cipherNames();
    for (const NamedContentCipher& one : contentCiphers)
        if (find(ciphers, one.name) == nullptr)
            names += ", " + std::string(one.name);
    return names;
}

Norvane::Crypto::CMS::ContentCipher contentCipherNamed(const std::string& name) {
    const NamedContentCipher* const found = find(contentCiphers, name);
    if (found == nullptr && find(ciphers, name) != nullptr)
        throw Failure("the cipher " + name + " is not one of S/MIME (which are " + contentCipherNames() + ")");
    if (found == nullptr)
        refuse(name, contentCipherNames());
    return found->cipher;
}

std::string contentCipherNames() {
    std::string names;
    for (const NamedContentCipher& one : contentCiphers)
        names += (names.empty() ? "" : ", ") + std::string(one.name);
    return names;
}

} // namespace norvcrypt
