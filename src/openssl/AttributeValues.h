#pragma once

/// \file
/// Values of signed attributes, as DER elements; each is empty, with the reasons in the error queue, when it cannot be
/// made.

#include "openssl/Pointers.h"

#include <cstdint>
#include <vector>

namespace Norvane::Crypto::openssl {

/// Seconds since 1970 as a UTCTime from 1950 to 2049, else as a GeneralizedTime. Empty beyond the years 0 to 9999.
std::vector<unsigned char> timeElement(std::int64_t seconds);
/// A SigningCertificateV2 (RFC 5035) of one certificate, with its issuer and serial number.
std::vector<unsigned char> signingCertificateElement(const X509* certificate, const EVP_MD* digest);

} // namespace Norvane::Crypto::openssl
