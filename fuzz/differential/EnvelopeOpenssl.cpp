#include "EnvelopeOpenssl.h"

#include "EnvelopeParts.h"
#include "Messages.h"

#include <openssl/err.h>
#include <openssl/evp.h>

namespace fuzz {

using norvauthority::Identity;

namespace {

/// Whether a password would be hashed too often, by any recipient: the number behind the salt of PBKDF2, and not the vector of a
/// cipher behind a content type of that name.
bool isCostly(const Bytes& octets) {
    auto root = parse(octets);
    bool costly = false;
    static const Bytes pbkdf2 = identifierContent("1.2.840.113549.1.5.12");
    if (!root) {
        return false;
    }
    forEach(*root, [&](Node& node) {
        const Node* const identifier = at(node, {0});
        const Node* const number = at(node, {1, 1});
        if (number != nullptr && number->isUniversal(2) && identifier != nullptr && identifier->content == pbkdf2) {
            std::size_t size = number->content.size();
            for (const unsigned char octet : number->content) {
                if (octet != 0) {
                    break;
                }
                --size;
            }
            costly = costly || size > 2;
        }
    });
    return costly;
}

/// Has OpenSSL choose the key. 1 when it could.
int prepare(CMS_ContentInfo* structure, Opener opener) {
    if (opener == Opener::keyEncryptionKey) {
        Bytes key = keyEncryptionKey();
        Bytes identifier = keyEncryptionKeyIdentifier();
        return CMS_decrypt_set1_key(structure, key.data(), key.size(), identifier.data(), identifier.size());
    }
    std::string password = messagePassword();
    return CMS_decrypt_set1_password(structure, reinterpret_cast<unsigned char*>(password.data()),
                                     static_cast<ossl_ssize_t>(password.size()));
}

} // namespace

const Identity* identityOf(Opener opener) {
    return opener == Opener::rsa ? &rsaRecipient() : opener == Opener::agreement ? &agreementRecipient() : nullptr;
}

Answer opensslSays(const Bytes& octets, Opener opener) {
    Answer answer;
    const unsigned char* cursor = octets.data();
    const CmsPtr structure(d2i_CMS_ContentInfo(nullptr, &cursor, static_cast<long>(octets.size())));
    if (structure == nullptr) {
        answer.text = opensslReasons();
        return answer;
    }
    answer.consumed = static_cast<std::size_t>(cursor - octets.data());
    if (opener == Opener::password && isCostly(octets)) {
        answer.costly = true;
        return answer;
    }
    const BioPtr out(BIO_new(BIO_s_mem()));
    if (const Identity* const identity = identityOf(opener)) {
        const auto certificate = identity->certificate.x509();
        // Without the random key that OpenSSL goes on with otherwise.
        answer.accepted = CMS_decrypt(structure.get(), identity->key.get(), certificate.get(), nullptr, out.get(),
                                      CMS_BINARY | CMS_DEBUG_DECRYPT) == 1;
    } else {
        answer.accepted = prepare(structure.get(), opener) == 1 &&
                          CMS_decrypt(structure.get(), nullptr, nullptr, nullptr, out.get(), CMS_BINARY) == 1;
    }
    answer.text = opensslReasons();
    answer.content = contentOf(out.get());
    return answer;
}

Answer opensslSaysWithAttributes(const Node& message, Opener opener) {
    Answer answer;
    Node copy = message;
    const EnvelopeParts parts(copy);
    if (parts.body == nullptr || parts.attributes == 0) {
        return opensslSays(encode(message), opener);
    }
    Node attributes = parts.body->parts[parts.attributes];
    attributes.setTag(0x31);
    attributes.indefinite = false;
    attributes.lengthOctets = 1;
    const Bytes associated = encode(attributes);
    parts.erase(parts.attributes);
    const CmsPtr structure = decoded(encode(copy), answer.consumed);
    if (structure == nullptr) {
        return answer;
    }
    const Identity* const identity = identityOf(opener);
    const bool hasKey = identity != nullptr ? CMS_decrypt_set1_pkey(structure.get(), identity->key.get(),
                                                                    identity->certificate.x509().get()) == 1
                                            : prepare(structure.get(), opener) == 1;
    const BioPtr chain(hasKey ? CMS_dataInit(structure.get(), nullptr) : nullptr);
    EVP_CIPHER_CTX* context = nullptr;
    int count = 0;
    if (chain != nullptr && BIO_get_cipher_ctx(chain.get(), &context) == 1 &&
        EVP_DecryptUpdate(context, nullptr, &count, associated.data(), static_cast<int>(associated.size())) == 1) {
        Bytes piece(1000);
        for (int got = BIO_read(chain.get(), piece.data(), 1000); got > 0;
             got = BIO_read(chain.get(), piece.data(), 1000)) {
            answer.content.insert(answer.content.end(), piece.begin(), piece.begin() + got);
        }
        answer.accepted = BIO_get_cipher_status(chain.get()) == 1;
    }
    ERR_clear_error();
    return answer;
}

} // namespace fuzz
