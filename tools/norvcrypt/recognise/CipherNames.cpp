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

} // namespace

const NamedCipher& cipherNamed(const std::string& name) {
    const auto* const found = std::find_if(ciphers.begin(), ciphers.end(), [&name](const NamedCipher& one) {
        return strcasecmp(one.name, name.c_str()) == 0;
    });
    if (found == ciphers.end())
        throw Failure("unknown cipher: " + name + " (one of " + cipherNames() + ")");
    return *found;
}

std::string cipherNames() {
    std::string names;
    for (const NamedCipher& one : ciphers)
        names += (names.empty() ? "" : ", ") + std::string(one.name);
    return names;
}

} // namespace norvcrypt
