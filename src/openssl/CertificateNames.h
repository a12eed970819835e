#pragma once

/// \file
/// What CMS names certificates by, encoded.

#include "framing/Encoding.h"

#include <openssl/x509.h>

namespace Norvane::Crypto::openssl {

/// IssuerAndSerialNumber (RFC 5652, 10.2.4), in the certificate's own octets; empty, with the reasons in the error queue,
/// when it cannot be encoded.
framing::Encoded issuerAndSerialNumber(const X509* certificate);

/// The octets of the subject key identifier; empty when the certificate has none that decodes. Queues nothing.
framing::Encoded subjectKeyIdentifier(const X509* certificate);

} // namespace Norvane::Crypto::openssl
