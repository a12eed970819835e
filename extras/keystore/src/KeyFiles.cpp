#include <norvcrypto-keystore/KeyFiles.h>

#include "OpenSsl.h"

#include <openssl/pem.h>

#include <cstring>

namespace Norvane::Crypto::NVX509 {

namespace {

struct Answer {
    const std::optional<std::string_view>& passphrase;
    bool asked = false;
};

/// OpenSSL's question for a passphrase. Without this answer it would ask on a terminal.
int answerPassphrase(char* out, int size, int /*writing*/, void* data) {
    auto& answer = *static_cast<Answer*>(data);
    answer.asked = true;
    if (!answer.passphrase || answer.passphrase->size() > static_cast<std::size_t>(size)) {
        return -1;
    }
    std::memcpy(out, answer.passphrase->data(), answer.passphrase->size());
    return static_cast<int>(answer.passphrase->size());
}

} // namespace

OpenedKey openPrivateKey(const Buffer& content, KeyForm form, const std::optional<std::string_view>& passphrase) {
    const auto source = keystore::sourceOver(content);
    Answer answer{passphrase};
    keystore::Owned<EVP_PKEY> key(form == KeyForm::pem
                                      ? PEM_read_bio_PrivateKey(source.get(), nullptr, answerPassphrase, &answer)
                                      : d2i_PKCS8PrivateKey_bio(source.get(), nullptr, answerPassphrase, &answer));
    return {key ? RefKey(new PrivateKey(key.release())) : RefKey(), answer.asked};
}

bool belongTogether(const RefKey& key, const RefCertificate& certificate) {
    const keystore::QuietQuestion quiet;
    return !key.isNull() && !certificate.isNull() && X509_check_private_key(certificate, key) == 1;
}

} // namespace Norvane::Crypto::NVX509
