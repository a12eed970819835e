#pragma once

/// \file
/// Decrypting the content of an enveloped structure: a private key opens a recipient's content key, the content key
/// decrypts the content. The two are apart so that callers can count what each costs.

#include "openssl/LazyPkcs7.h"
#include "openssl/Pointers.h"
#include "openssl/WipedBytes.h"

#include <openssl/pkcs7.h>

#include <string>

namespace Norvane::Crypto::openssl {

/// The name of the cipher when content under it cannot be told from garbage, or not be decrypted at all: one that is
/// for keys (OpenSSL calls it a success when it decrypts nothing), one that authenticates, one that is unknown. Else
/// empty. It follows from what everybody can read in the structure.
std::string unsupportedContentCipher(const PKCS7* structure);

/// The name of the algorithm under which a recipient's content key is encrypted when that is not the padding of
/// PKCS#1 1.5, with its object identifier; else empty.
std::string otherKeyEncryption(const PKCS7_RECIP_INFO* recipient);

/// Whether it is certain that a PKCS#1 1.5 decryption does not open the content key: the algorithm is known for another
/// one (OAEP, RSA-KEM). Senders who put in something odd are given the benefit of the doubt.
bool isOtherKeyEncryption(const PKCS7_RECIP_INFO* recipient) noexcept;

/// One try at the content of a structure. Failures of RSA, of its padding and of the content's padding look alike, and
/// come to the same work (RFC 3218): without a content key that was opened a random one is used.
class ContentDecryption {
public:
    /// \param structure lent; it has encrypted content
    explicit ContentDecryption(const LazyPkcs7& structure) noexcept : m_structure(structure) {}

    /// One private-key operation: opens a recipient's content key. One that opens takes the place of the one before;
    /// nothing tells whether it did.
    void open(const PKCS7_RECIP_INFO* recipient, EVP_PKEY* key);

    /// Decrypts the content into `out`. True when its padding is right. A cipher without padding notices no wrong key:
    /// then true only for a content key that was opened and has the cipher's length, after the same work.
    /// Leaves OpenSSL's error queue empty.
    [[nodiscard]] bool write(BIO* out) const;

private:
    const LazyPkcs7& m_structure;
    WipedBytes m_contentKey;
};

} // namespace Norvane::Crypto::openssl
