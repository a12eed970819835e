#include "openssl/ContentDecryption.h"

#include "openssl/AlgorithmName.h"
#include "openssl/ContentCipher.h"
#include "openssl/KeyTransport.h"
#include "openssl/PaddedDecryption.h"
#include "openssl/Pkcs7.h"

#include <openssl/err.h>
#include <openssl/objects.h>

#include <algorithm>
#include <array>
#include <utility>

namespace Norvane::Crypto::openssl {

namespace {

/// id-rsa-kem, 1.2.840.113549.1.9.16.3.14, which OpenSSL has no number for.
constexpr std::array<unsigned char, 11> s_rsaKem{0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x09, 0x10, 0x03, 0x0E};

const X509_ALGOR* contentAlgorithm(const PKCS7* structure) noexcept {
    const PKCS7_ENVELOPE* envelope = envelopedContent(structure);
    return envelope == nullptr || envelope->enc_data == nullptr ? nullptr : envelope->enc_data->algorithm;
}

/// Decrypts in pieces, and writes once for several short ones. What was decrypted before a damage is written.
bool decryptInto(BIO* out, EVP_CIPHER_CTX* context, const EncryptedOctets& content) {
    PaddedDecryption decryption(context);
    const auto pass = [&](std::span<const unsigned char> clear) {
        const int length = static_cast<int>(clear.size());
        return length == 0 || BIO_write(out, clear.data(), length) == length;
    };
    EncryptedOctets::Pieces pieces(content);
    for (auto octets = pieces.next(); !octets.empty(); octets = pieces.next()) {
        while (!octets.empty()) {
            const auto piece = octets.first(std::min(octets.size(), PaddedDecryption::s_pieceLength));
            if (piece.size() > decryption.room() && !pass(decryption.take())) {
                return false;
            }
            if (!decryption.add(piece)) {
                static_cast<void>(pass(decryption.take()));
                return false;
            }
            octets = octets.subspan(piece.size());
        }
    }
    if (!pass(decryption.take())) {
        return false;
    }
    const auto last = decryption.finish();
    return last && pass(*last);
}

} // namespace

std::string unsupportedContentCipher(const PKCS7* structure) {
    return unsupportedContentCipher(contentAlgorithm(structure));
}

std::string otherKeyEncryption(const PKCS7_RECIP_INFO* recipient) {
    const ASN1_OBJECT* identifier = recipient == nullptr ? nullptr : algorithmIdentifier(recipient->key_enc_algor);
    const int nid = identifier == nullptr ? NID_undef : OBJ_obj2nid(identifier);
    return nid == NID_rsaEncryption || nid == NID_rsa ? "" : algorithmName(identifier);
}

bool isOtherKeyEncryption(const PKCS7_RECIP_INFO* recipient) noexcept {
    const ASN1_OBJECT* identifier = recipient == nullptr ? nullptr : algorithmIdentifier(recipient->key_enc_algor);
    if (identifier == nullptr) {
        return false;
    }
    const unsigned char* encoded = OBJ_get0_data(identifier);
    return OBJ_obj2nid(identifier) == NID_rsaesOaep ||
           std::equal(s_rsaKem.begin(), s_rsaKem.end(), encoded, encoded + OBJ_length(identifier));
}

void ContentDecryption::open(const PKCS7_RECIP_INFO* recipient, EVP_PKEY* key) {
    const ASN1_OCTET_STRING* encrypted = recipient == nullptr ? nullptr : recipient->enc_key;
    if (encrypted == nullptr) {
        return;
    }
    WipedBytes opened =
        openPkcs1Key(key, {ASN1_STRING_get0_data(encrypted), static_cast<std::size_t>(ASN1_STRING_length(encrypted))});
    // With one recipient the same steps, whether it was opened or not: the sender may measure the time.
    const auto isFirst = static_cast<unsigned int>(m_contentKey.room().empty());
    if ((isFirst | static_cast<unsigned int>(!opened.empty())) != 0) {
        m_contentKey = std::move(opened);
    }
}

bool ContentDecryption::write(BIO* out) const {
    const CipherContextPtr context = contextFor(contentAlgorithm(m_structure.structure()));
    bool trusted = false;
    const bool good = context != nullptr && setContentKey(context.get(), m_contentKey, trusted) &&
                      decryptInto(out, context.get(), m_structure.encryptedOctets()) && trusted;
    ERR_clear_error();
    return good;
}

} // namespace Norvane::Crypto::openssl
