#pragma once

/// \file
/// Parts of CMS structures that OpenSSL is certain to decode. To know that a structure is sound, its parts need not be
/// decoded: decoding a certificate takes a hundred times as long as looking through it, most of which goes into its key.
///
/// What is assured has the form that its standard describes, in definite lengths, and holds no values but those that OpenSSL
/// decodes. Everything else is not assured, which says nothing: OpenSSL has to be asked. Nothing here throws, allocates or
/// touches the error queue, and all takes time linear in the octets.

#include "framing/Elements.h"

#include <optional>

namespace Norvane::Crypto::openssl {

/// Where a certificate or a recipient says whom it is about. Lent from the octets that it was found in.
struct AssuredName {
    framing::Octets issuer; ///< the whole element, a Name
    framing::Octets serial; ///< the whole element, an INTEGER
};

/// For a Certificate (RFC 5280, 4.1); nothing when it is not assured.
std::optional<AssuredName> assuredCertificate(const framing::Element& element) noexcept;

/// Whether a CertificateList (RFC 5280, 5.1) is assured.
bool isAssuredList(const framing::Element& element) noexcept;

/// For a RecipientInfo of PKCS#7 (RFC 2315, 10.2); nothing when it is not assured.
/// \param known an issuer that was assured before, often the same one; may be empty
std::optional<AssuredName> assuredRecipient(const framing::Element& element, framing::Octets known) noexcept;

} // namespace Norvane::Crypto::openssl
