#ifndef NORVCRYPTO_ACCEPTANCE_H
#define NORVCRYPTO_ACCEPTANCE_H

/// \file
/// What the readers of this library refuse although it may be encoded well, and why. Certificates, public keys and CMS
/// structures come from strangers, and some cost the time and memory of thousands of others of their size: they are
/// found before anything is decoded.
///
/// - Public keys on elliptic curves that are spelled out instead of named, which RFC 5480, 2.1.1 forbids in
///   certificates: decoding one of 673 octets takes a quarter of a second.
/// - Structures that hold more than 2,500 certificates or public keys.
/// - Certificates whose distribution points that are named relative to the issuer (RFC 5280, 4.2.1.13), multiplied with
///   the octets of the issuer's name, make more than 16,384: each point takes a copy of the name.
/// - Elements within elements to more than 128 levels, and encodings of 2 GiB and more.
///
/// The readers answer as they do for what does not decode: `CertificateFactory` with an empty handle, the readers of keys
/// and of CMS structures with their exception, whose OpenSSL text then tells the reason.
///
/// \code
/// const NVX509::RefCertificate certificate = NVX509::CertificateFactory().readDER(der);
/// if (certificate.isNull()) {
///     const std::string why = Norvane::Crypto::refusal(der);
///     report(why.empty() ? "does not decode" : why);
/// }
/// \endcode

#include <norvcmsg/Buffer.h>
#include <norvcrypto/Export.h>

#include <string>

namespace Norvane::Crypto {

/// Why the readers refuse `encoded`: DER or BER, or a text with PEM blocks (the first that is refused; blocks that are
/// encrypted are not looked into). "refused: explicit elliptic curve parameters", for instance; empty when they do not,
/// for what does not decode, too. Takes time in proportion to the octets, and for DER no memory. May be called by any
/// number of threads; leaves OpenSSL's error queue as it was.
NORVCRYPTO_EXPORT std::string refusal(const Buffer& encoded);

} // namespace Norvane::Crypto

#endif
