#pragma once

/// \file
/// One signer, ready to sign.

#include "CMSStreamWriter/SignedAttributes.h"
#include "framing/Encoding.h"
#include "openssl/SigningKeys.h"

#include <norvcrypto/CMSSignedWriter.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace Norvane::Crypto::CMS {

class SignedSigner {
public:
    /// \param contentType the body's, an element \param isData whether that is id-data \param who stands before the reason of
    /// a refusal \throws Exception `signedWriter`
    SignedSigner(const SignedWriter::Signer& signer, const framing::Encoded& contentType, bool isData,
                 const std::string& who);

    [[nodiscard]] const openssl::SigningKey& key() const noexcept { return m_key; }
    /// Of its SignerInfo (RFC 5652, 5.3).
    [[nodiscard]] unsigned int version() const noexcept { return m_version; }
    /// Its SignerInfo with a signature over a body of that digest. \throws Exception `signedWriterEnd`: it does not sign
    [[nodiscard]] framing::Encoded info(framing::Octets digest, std::int64_t now) const;
    /// The octets of that, for a key whose signatures do not vary in length.
    [[nodiscard]] std::size_t infoLength(std::int64_t now) const;

private:
    [[nodiscard]] framing::Encoded attributes(framing::Octets digest, std::int64_t now) const;
    [[nodiscard]] framing::Encoded assemble(const framing::Encoded& attributes, framing::Octets signature) const;

    openssl::SigningKey m_key;
    unsigned int m_version = 1;
    framing::Encoded m_identifier;
    std::optional<SignedAttributes> m_attributes;
};

} // namespace Norvane::Crypto::CMS
