#ifndef NORVCRYPTO_ENCODED_KIND_H
#define NORVCRYPTO_ENCODED_KIND_H

/// \file
/// What an encoding is, told by its shape. Trying one reader after the other would answer the same question at the price
/// of decoding, which for keys and certificates of strangers is more than anybody should pay before it is known what
/// there is (see Acceptance.h and `TooCostlyException`).
///
/// \code
/// switch (Norvane::Crypto::encodedKind(der)) {
/// case Norvane::Crypto::EncodedKind::certificate:
///     return show(NVX509::CertificateFactory().readDER(der)); // which may still find it malformed
/// ...
/// \endcode

#include <norvcmsg/Buffer.h>
#include <norvcrypto/Export.h>

namespace Norvane::Crypto {

/// Kinds of objects. Others may follow.
enum class EncodedKind : int {
    unknown,
    certificate,               ///< RFC 5280, 4.1
    certificateRevocationList, ///< RFC 5280, 5.1
    crossCertificatePair,      ///< X.509: CertificatePair, of at least one certificate
    contentInfo,               ///< RFC 5652, 3: a CMS structure of any type
    publicKey,                 ///< RFC 5280, 4.1: SubjectPublicKeyInfo
    privateKey,          ///< RFC 5958 (PKCS#8), RFC 8017, A.1.2 (RSA), RFC 5915 (elliptic curves), or OpenSSL's DSA
    encryptedPrivateKey, ///< RFC 5958: EncryptedPrivateKeyInfo
    pkcs12               ///< RFC 7292: PFX
};

/// What the first element in `encoded` is, DER or BER; bytes behind it do not matter. It is told by the outer elements
/// alone, two or three levels of them, which must be there to their ends: what has the shape of a kind may be malformed
/// deeper inside, and what has none is none. A CMS structure is told by its first bytes, whether or not the rest is there.
/// Takes time in proportion to the octets at worst, and no memory. May be called
/// by any number of threads; does not touch OpenSSL's error queue.
[[nodiscard]] NORVCRYPTO_EXPORT EncodedKind encodedKind(const Buffer& encoded) noexcept;

} // namespace Norvane::Crypto

#endif
