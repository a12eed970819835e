#pragma once

/// \file
/// One signer, ready to sign.

#include "CMSStreamWriter/SignedAttributes.h"
#include "framing/Build.h"
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
    SignedSigner(const SignedWriter::Signer& signer, const framing::Bytes& contentType, bool isData,
                 const std::string& who);

    [[nodiscard]] const openssl::SigningKey& key() const noexcept { return m_key; }
    /// Of its SignerInfo (RFC 5652, 5.3).
    [[nodiscard]] unsigned int version() const noexcept { return m_version; }
    /// Its SignerInfo with a signature over a body of that digest. \throws Exception `signedWriterEnd`: it does not sign
    [[nodiscard]] framing::Bytes info(framing::Octets digest, std::int64_t now) const;
    /// The octets of that; nothing when signatures vary in length.
    [[nodiscard]] std::optional<std::size_t> infoLength(std::int64_t now) const;

private:
    [[nodiscard]] framing::Bytes attributes(framing::Octets digest, std::int64_t now) const;
    [[nodiscard]] framing::Bytes assemble(const framing::Bytes& attributes, framing::Octets signature) const;

    openssl::SigningKey m_key;
    unsigned int m_version = 1;
    framing::Bytes m_identifier;
    std::optional<SignedAttributes> m_attributes;
};

} // namespace Norvane::Crypto::CMS
