#pragma once

/// \file
/// Enveloped messages for recipients of every kind, by OpenSSL's CMS calls.

#include "support/Envelope.h"

#include <openssl/cms.h>

#include <functional>

namespace cmstest {

/// Adds recipients to a structure that is being made.
using AddRecipients = std::function<void(CMS_ContentInfo*)>;

/// \param flags those of CMS_encrypt: CMS_STREAM for indefinite lengths and content in pieces
inline Bytes madeByOpenssl(const EVP_CIPHER* cipher, const AddRecipients& add, unsigned int flags = 0,
                           const Bytes& body = bodyOf(1000)) {
    const Bio content(
        BIO_new_mem_buf(body.empty() ? static_cast<const void*>("") : body.data(), static_cast<int>(body.size())));
    flags |= CMS_BINARY;
    const CmsStructure structure(CMS_encrypt(nullptr, nullptr, cipher, flags | CMS_PARTIAL));
    add(structure.get());
    const Bio out(BIO_new(BIO_s_mem()));
    if ((flags & CMS_STREAM) != 0) {
        EXPECT_EQ(i2d_CMS_bio_stream(out.get(), structure.get(), content.get(), static_cast<int>(flags)), 1);
    } else {
        EXPECT_EQ(CMS_final(structure.get(), content.get(), nullptr, flags), 1);
        EXPECT_EQ(i2d_CMS_bio(out.get(), structure.get()), 1);
    }
    return contentOf(out.get());
}

/// Names and values that EVP_PKEY_CTX_ctrl_str takes, such as {"rsa_padding_mode", "oaep"}.
using KeySettings = std::vector<std::pair<const char*, const char*>>;

inline AddRecipients toCertificate(const Identity& person, unsigned int flags = 0, const KeySettings& settings = {}) {
    return [&person, flags, settings](CMS_ContentInfo* structure) {
        const auto certificate = person.certificate.x509();
        CMS_RecipientInfo* recipient = CMS_add1_recipient_cert(
            structure, certificate.get(), flags | (settings.empty() ? 0U : static_cast<unsigned int>(CMS_KEY_PARAM)));
        ASSERT_NE(recipient, nullptr);
        for (const auto& [name, value] : settings) {
            EVP_PKEY_CTX* context = CMS_RecipientInfo_get0_pkey_ctx(recipient);
            EXPECT_EQ(EVP_PKEY_CTX_ctrl_str(context, name, value), 1) << name;
        }
    };
}
/// 32 octets 01 under the name "id".
inline void addSecretKey(CMS_ContentInfo* structure) {
    auto* key = static_cast<unsigned char*>(OPENSSL_memdup(Bytes(32, 1).data(), 32));
    auto* identifier = static_cast<unsigned char*>(OPENSSL_memdup("id", 2));
    EXPECT_NE(CMS_add0_recipient_key(structure, NID_undef, key, 32, identifier, 2, nullptr, nullptr, nullptr), nullptr);
}
/// "secret".
inline void addPassword(CMS_ContentInfo* structure) {
    auto* secret = reinterpret_cast<unsigned char*>(OPENSSL_strdup("secret"));
    EXPECT_NE(CMS_add0_recipient_password(structure, -1, NID_undef, NID_undef, secret, -1, nullptr), nullptr);
}

} // namespace cmstest
