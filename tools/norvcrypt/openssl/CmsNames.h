#pragma once

/// \file
/// How signers and recipients are named to people.

#include <norvcmsg/Buffer.h>
#include <norvcrypto/CMSIdentifier.h>

#include <string>

namespace norvcrypt {

/// Lower-case hexadecimal, two digits a byte.
std::string hexText(const Norvane::Buffer& octets);
/// The serial number in a name, as `hexNumber` writes it; empty for a key identifier.
std::string serialNumberOf(const Norvane::Crypto::CMS::CertificateIdentifier& name);
/// "issuer CN=Root,C=DE serial number 2001" or "key identifier 0a1b"; the issuer is escaped for display already.
std::string nameOf(const Norvane::Crypto::CMS::CertificateIdentifier& name);

} // namespace norvcrypt
