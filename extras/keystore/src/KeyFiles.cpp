#include <norvcrypto-keystore/KeyFiles.h>

#include "OpenSsl.h"

namespace Norvane::Crypto::NVX509 {

namespace {

bool holds(const Buffer& content, std::string_view part) {
    return std::string_view(reinterpret_cast<const char*>(content.data()), content.length()).find(part) !=
           std::string_view::npos;
}

} // namespace

OpenedKey openPrivateKey(const Buffer& content, const std::optional<std::string_view>& passphrase) {
    Buffer secret;
    secret.protect();
    if (passphrase) {
        secret.append(Buffer(reinterpret_cast<const unsigned char*>(passphrase->data()),
                             static_cast<unsigned int>(passphrase->size()), false));
    }
    OpenedKey opened;
    // PKCS#8 says so in the label, the older forms of OpenSSL in a header.
    opened.encrypted = !isPem(content) || holds(content, "ENCRYPTED");
    auto* const body = new PrivateKey(nullptr);
    const RefKey key(body);
    try {
        body->readUnattended(content, passphrase ? &secret : nullptr);
        opened.key = key;
    } catch (const TooCostlyException& failure) {
        opened.tooCostly = true;
        opened.reason = failure.asString();
    } catch (const Exception& failure) {
        opened.reason = failure.asString();
    }
    return opened;
}

bool isPem(const Buffer& content) {
    return holds(content, "-----BEGIN ");
}

bool belongTogether(const RefKey& key, const RefCertificate& certificate) {
    const keystore::QuietQuestion quiet;
    return !key.isNull() && !certificate.isNull() && X509_check_private_key(certificate, key) == 1;
}

} // namespace Norvane::Crypto::NVX509
