#pragma once

// What the tests of bindings share.

#include "support/X509Testing.h"

#include <norvcrypto/CertBinding.h>

#include <string>

namespace x509testing {

/// What a binding made of these texts holds.
inline Norvane::Crypto::NVX509::KeyCertificatePair bindingPair(const char* key, const char* certificates,
                                                               const char* passPhrase) {
    using Norvane::Crypto::CertBinding;
    return Norvane::Crypto::RefCertBinding(1, Norvane::StringPattern("*"), CertBinding::X509, CertBinding::KeyUsage{},
                                           1, 0, key, certificates, passPhrase)
        ->keyPairX509();
}
inline Norvane::Crypto::NVX509::KeyCertificatePair bindingPair(const std::string& key, const std::string& certificates,
                                                               const std::string& passPhrase = "") {
    return bindingPair(key.c_str(), certificates.c_str(), passPhrase.c_str());
}

inline bool holdsKey(const Norvane::Crypto::NVX509::KeyCertificatePair& pair) {
    return static_cast<evp_pkey_st*>(pair->key) != nullptr;
}

/// Checks the record of a text that could not be read; the fourth field is the exception's text.
inline void expectUnreadable(const Norvane::LogRecord& record, const std::string& line) {
    EXPECT_EQ(record.event, 0x300005CU);
    EXPECT_EQ(record.level, 0);
    EXPECT_EQ(record.format, "%s\x01%s\x01%d\x01%s");
    ASSERT_EQ(record.fields.size(), 4U);
    EXPECT_EQ(record.fields[0], "Norvane::Crypto::CertBindingX509::CertBindingX509(int, const Norvane::StringPattern&, "
                                "Norvane::Crypto::CertBinding::KeyType, Norvane::Crypto::CertBinding::KeyUsage, "
                                "Norvane::uint_t, int, const char*, const char*, const char*)");
    EXPECT_EQ(record.fields[1], "CertBinding.cpp");
    EXPECT_EQ(record.fields[2], line);
}

} // namespace x509testing
