#include <norvcrypto-keystore/KeyFiles.h>

#include "OpenSsl.h"

#include <norvcmsg/Exception.h>

#include <openssl/pem.h>

#include <algorithm>
#include <array>
#include <variant>

namespace Norvane::Crypto::NVX509 {

namespace {

/// Notes that OpenSSL asks for a passphrase, and has none. Without an answer it would ask on a terminal.
int noteQuestion(char* /*out*/, int /*size*/, int /*writing*/, void* asked) {
    *static_cast<bool*>(asked) = true;
    return -1;
}

/// Whether the first private key of a text is encrypted: in PKCS#8, as its label tells, or in the older way, in which
/// OpenSSL decrypts a block as soon as it finds it.
bool isEncryptedPem(const Buffer& content) {
    const keystore::QuietQuestion quiet;
    const auto source = keystore::sourceOver(content);
    bool asked = false;
    unsigned char* data = nullptr;
    long length = 0;
    char* label = nullptr;
    if (PEM_bytes_read_bio_secmem(&data, &length, &label, PEM_STRING_EVP_PKEY, source.get(), noteQuestion, &asked) !=
        1) {
        return asked;
    }
    const bool encrypted = std::string_view(label) == PEM_STRING_PKCS8;
    OPENSSL_secure_clear_free(data, static_cast<std::size_t>(length));
    OPENSSL_secure_free(label);
    return encrypted;
}

/// Whether OpenSSL's reason is that it does not know the kind of the key or how it was encrypted. With a wrong passphrase it may
/// find any other: what comes out is garbage.
bool isUnsupported(const std::string& reason) {
    constexpr std::array words{"unknown pbe algorithm",
                               "unknown cipher",
                               "unsupported cipher",
                               "unsupported encryption",
                               "unsupported key derivation function",
                               "unsupported keylength",
                               "unsupported prf",
                               "unsupported private key algorithm",
                               "unsupported salt type",
                               "cipher parameter error",
                               "memory limit exceeded",                  // of scrypt
                               "inner_evp_generic_fetch / unsupported"}; // no provider has the cipher
    return std::ranges::any_of(words, [&reason](const char* word) { return reason.find(word) != reason.npos; });
}

/// What an exception of the library says about its cause.
std::string detailOf(const Exception& failure) {
    std::string detail;
    for (const auto& parameter : failure.parameters()) {
        if (const auto* text = std::get_if<std::string>(&parameter)) {
            detail = *text;
        }
    }
    // The library puts this in front of it; whoever reads the reason knows what was read.
    constexpr std::string_view prefix = "Could not decode the private key:  ";
    return detail.compare(0, prefix.size(), prefix) == 0 ? detail.substr(prefix.size()) : detail;
}

} // namespace

OpenedKey openPrivateKey(const Buffer& content, const std::optional<std::string_view>& passphrase) {
    const std::string_view characters = passphrase.value_or("");
    const Buffer answer(characters.data(), static_cast<unsigned int>(characters.size()), true);
    OpenedKey opened;
    const bool isOnlyOurs = ERR_peek_error() == 0;
    const keystore::QuietQuestion quiet;
    auto* const key = new PrivateKey(nullptr);
    const RefKey handle(key);
    try {
        key->readUnattended(content, passphrase ? &answer : nullptr);
        opened.key = handle;
        return opened;
    } catch (const TooCostlyException& refused) {
        opened.tooCostly = true;
        opened.reason = detailOf(refused);
    } catch (const Exception& failure) {
        opened.reason = detailOf(failure);
        opened.unsupported = isOnlyOurs && isUnsupported(opened.reason);
    }
    opened.encrypted = !isPem(content) || isEncryptedPem(content);
    return opened;
}

bool isPem(const Buffer& content) {
    const std::string_view text(reinterpret_cast<const char*>(content.data()), content.length());
    return text.find("-----BEGIN ") != std::string_view::npos;
}

bool belongTogether(const RefKey& key, const RefCertificate& certificate) {
    const keystore::QuietQuestion quiet;
    bool answer = false;
    // Once more after a no, which OpenSSL says for want of memory, too.
    for (int turn = 0; turn < 2 && !answer && !key.isNull() && !certificate.isNull(); ++turn)
        answer = X509_check_private_key(certificate, key) == 1;
    return answer;
}

} // namespace Norvane::Crypto::NVX509
