#include "Pem.h"

#include "Files.h"

#include <norvcrypto/Crypto.h>

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/pem.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

namespace Norvane::Crypto::NVX509::keystore {

namespace {

struct Freeing {
    void operator()(BIO* bio) const noexcept { BIO_free(bio); }
    void operator()(X509* certificate) const noexcept { X509_free(certificate); }
    void operator()(EVP_PKEY* key) const noexcept { EVP_PKEY_free(key); }
};
template <class T> using Owned = std::unique_ptr<T, Freeing>;

/// Leaves OpenSSL's error queue as it was.
class QuietQuestion {
public:
    QuietQuestion() noexcept { ERR_set_mark(); }
    ~QuietQuestion() { ERR_pop_to_mark(); }
    QuietQuestion(const QuietQuestion&) = delete;
    QuietQuestion& operator=(const QuietQuestion&) = delete;
};

/// Reads the bytes where they are, so that no copy of a key stays behind.
Owned<BIO> sourceOver(const Buffer& bytes) {
    Owned<BIO> source(BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.length())));
    if (!source) {
        throw std::bad_alloc();
    }
    return source;
}

struct Answer {
    const std::optional<Buffer>& passphrase;
    bool asked = false;
};

/// OpenSSL's question for a passphrase. Without this answer it would ask on a terminal.
int answerPassphrase(char* out, int size, int /*writing*/, void* data) {
    auto& answer = *static_cast<Answer*>(data);
    answer.asked = true;
    if (!answer.passphrase || answer.passphrase->length() > static_cast<unsigned int>(size)) {
        return -1;
    }
    std::memcpy(out, answer.passphrase->data(), answer.passphrase->length());
    return static_cast<int>(answer.passphrase->length());
}

/// Whether a key of this length may have failed for want of room, which OpenSSL's decoders do not tell.
bool secureHeapIsFull(std::size_t length) {
    if (CRYPTO_secure_malloc_initialized() == 0) {
        return false;
    }
    const QuietQuestion quiet;
    void* const probe = OPENSSL_secure_malloc(length);
    OPENSSL_secure_free(probe);
    return probe == nullptr;
}

} // namespace

std::list<RefCertificate> certificatesOf(const Buffer& pem) {
    const QuietQuestion quiet;
    const auto source = sourceOver(pem);
    const std::optional<Buffer> noPassphrase;
    Answer answer{noPassphrase};
    std::list<RefCertificate> certificates;
    for (;;) {
        Owned<X509> certificate(PEM_read_bio_X509(source.get(), nullptr, answerPassphrase, &answer));
        if (!certificate) {
            break;
        }
        certificates.push_back(CertificateFactory()(certificate.release(), true));
        if (static_cast<x509_st*>(certificates.back()) == nullptr) {
            throw Refusal("certificate " + std::to_string(certificates.size()) +
                          " in it is refused: too many distribution points relative to the issuer");
        }
        certificates.back()->warm();
    }
    if (ERR_GET_REASON(ERR_peek_last_error()) != PEM_R_NO_START_LINE) {
        throw Refusal("certificate " + std::to_string(certificates.size() + 1) + " in it does not decode");
    }
    if (certificates.empty()) {
        throw Refusal("holds no certificate in PEM form");
    }
    return certificates;
}

Buffer passphraseOf(const Buffer& text) {
    constexpr unsigned int longest = 1023; // OpenSSL has no room for more
    const unsigned char* const bytes = text.data();
    unsigned int length = text.length();
    if (length > 0 && bytes[length - 1] == '\n') {
        --length;
        length -= length > 0 && bytes[length - 1] == '\r' ? 1U : 0U;
    }
    if (length > longest) {
        throw Refusal("is longer than " + std::to_string(longest) + " bytes");
    }
    if (std::find(bytes, bytes + length, '\n') != bytes + length) {
        throw Refusal("holds more than one line");
    }
    Buffer passphrase(bytes, length, false);
    passphrase.protect();
    return passphrase;
}

RefKey privateKeyOf(const Buffer& pem, const std::optional<Buffer>& passphrase) {
    const QuietQuestion quiet;
    const auto source = sourceOver(pem);
    Answer answer{passphrase};
    Owned<EVP_PKEY> key(PEM_read_bio_PrivateKey(source.get(), nullptr, answerPassphrase, &answer));
    if (key) {
        return RefKey(new PrivateKey(key.release()));
    }
    if (secureHeapIsFull(pem.length())) {
        throw Exhausted("OpenSSL's secure heap has no room for the keys; a reload takes room for both contents");
    }
    if (!answer.asked) {
        throw Refusal("holds no private key in PEM form");
    }
    throw Refusal(passphrase ? "cannot be decrypted with the passphrase"
                             : "is encrypted, and there is no passphrase for it");
}

bool belongTogether(const RefKey& key, const RefCertificate& certificate) {
    const QuietQuestion quiet;
    return X509_check_private_key(certificate, key) == 1;
}

} // namespace Norvane::Crypto::NVX509::keystore
