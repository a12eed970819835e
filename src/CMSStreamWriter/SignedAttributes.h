#pragma once

/// \file
/// The signed attributes of one signer.

#include "framing/Encoding.h"

#include <norvcrypto/CMSSignedWriter.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Norvane::Crypto::CMS {

class SignedAttributes {
public:
    /// Makes those that do not depend on the body, and checks the caller's own.
    /// \param contentType its identifier, an element \param who stands before the reason of a refusal
    /// \throws Exception `signedWriter`
    SignedAttributes(const SignedWriter::Signer& signer, const framing::Encoded& contentType, const std::string& who);

    /// All of them as the SET that is signed, in DER. Empty beyond 2 GiB. \param now the time unless the signer has one of its own
    [[nodiscard]] framing::Encoded set(framing::Octets messageDigest, std::int64_t now) const;

private:
    std::vector<framing::Encoded> m_constant;
    bool m_tellsTime;
    std::optional<std::int64_t> m_time;
};

} // namespace Norvane::Crypto::CMS
