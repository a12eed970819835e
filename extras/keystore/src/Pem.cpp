#include "Pem.h"

#include "Files.h"
#include "OpenSsl.h"

#include <norvcrypto-keystore/KeyFiles.h>
#include <norvcrypto/Acceptance.h>

#include <openssl/crypto.h>
#include <openssl/pem.h>

#include <algorithm>
#include <memory>
#include <utility>

namespace Norvane::Crypto::NVX509::keystore {

namespace {

/// A certificate needs no passphrase; without this answer OpenSSL would ask on a terminal.
int noPassphrase(char* /*out*/, int /*size*/, int /*writing*/, void* /*data*/) {
    return -1;
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

/// The next block with a certificate, not decoded; nothing when there is no other. \throws Refusal: a damaged one
std::optional<Buffer> nextCertificate(BIO* source, const std::string& which) {
    unsigned char* data = nullptr;
    long length = 0;
    if (PEM_bytes_read_bio(&data, &length, nullptr, PEM_STRING_X509, source, noPassphrase, nullptr) != 1) {
        if (ERR_GET_REASON(ERR_peek_last_error()) != PEM_R_NO_START_LINE) {
            throw Refusal(which + "does not decode");
        }
        return std::nullopt;
    }
    const std::unique_ptr<unsigned char, void (*)(unsigned char*)> owned(
        data, [](unsigned char* memory) { OPENSSL_free(memory); });
    return Buffer(data, static_cast<unsigned int>(length), false);
}

} // namespace

std::list<RefCertificate> certificatesOf(const Buffer& pem) {
    const QuietQuestion quiet;
    const auto source = sourceOver(pem);
    std::list<RefCertificate> certificates;
    for (;;) {
        const std::string which = "certificate " + std::to_string(certificates.size() + 1) + " in it ";
        const auto der = nextCertificate(source.get(), which);
        if (!der) {
            break;
        }
        RefCertificate certificate = CertificateFactory().readDER(*der);
        if (certificate.isNull()) {
            const std::string refused = refusal(*der);
            throw Refusal(refused.empty() ? which + "does not decode" : (which + "is ").append(refused));
        }
        certificate->warm();
        certificates.push_back(std::move(certificate));
    }
    if (certificates.empty()) {
        throw Refusal("holds no certificate in PEM form");
    }
    return certificates;
}

std::optional<Buffer> firstCertificate(const Buffer& pem) {
    const QuietQuestion quiet;
    try {
        return nextCertificate(sourceOver(pem).get(), "");
    } catch (const Refusal&) {
        return std::nullopt;
    }
}

Buffer passphraseOf(const Buffer& text) {
    std::string_view line(reinterpret_cast<const char*>(text.data()), text.length());
    if (line.ends_with('\n')) {
        line.remove_suffix(line.ends_with("\r\n") ? 2 : 1);
    }
    if (line.size() > longestPassphrase) {
        throw Refusal("is longer than " + std::to_string(longestPassphrase) + " bytes");
    }
    if (line.find('\n') != std::string_view::npos) {
        throw Refusal("holds more than one line");
    }
    Buffer passphrase(line.data(), static_cast<unsigned int>(line.size()), false);
    passphrase.protect();
    return passphrase;
}

RefKey privateKeyOf(const Buffer& pem, const std::optional<Buffer>& passphrase) {
    const QuietQuestion quiet;
    std::optional<std::string_view> given;
    if (passphrase) {
        given.emplace(reinterpret_cast<const char*>(passphrase->data()), passphrase->length());
    }
    const OpenedKey opened = isPem(pem) ? openPrivateKey(pem, given) : OpenedKey();
    if (!opened.key.isNull()) {
        return opened.key;
    }
    if (opened.tooCostly) {
        throw Refusal("is refused: " + opened.reason);
    }
    if (secureHeapIsFull(pem.length())) {
        throw Exhausted("OpenSSL's secure heap has no room for the keys; a reload takes room for both contents");
    }
    if (opened.unsupported) {
        throw Refusal("is of a kind, or encrypted in a way, that is not supported");
    }
    if (!opened.encrypted) {
        throw Refusal("holds no private key in PEM form");
    }
    throw Refusal(passphrase ? "cannot be decrypted with the passphrase"
                             : "is encrypted, and there is no passphrase for it");
}

} // namespace Norvane::Crypto::NVX509::keystore
