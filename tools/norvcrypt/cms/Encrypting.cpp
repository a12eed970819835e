#include "cms/Encrypting.h"

#include "base/Failure.h"
#include "openssl/CertificateDetails.h"

#include <norvcrypto/CMSEncryptionMedia.h>

#include <algorithm>

namespace norvcrypt {

namespace CMS = Norvane::Crypto::CMS;
using CMS::EnvelopeRecipient;
using Norvane::Crypto::NVX509::RefCertificate;

namespace {

EnvelopeRecipient recipientFor(const RefCertificate& certificate, const RecipientForm& form, bool isRsa) {
    const auto namedBy = form.keyIdentifier ? CMS::NamedBy::subjectKeyIdentifier : CMS::NamedBy::issuerAndSerialNumber;
    if (isRsa && form.oaepDigest)
        return EnvelopeRecipient::rsaOaep(certificate, {.digest = *form.oaepDigest}, namedBy);
    return EnvelopeRecipient(certificate, namedBy);
}

/// Through a stream, to its end.
template <class Stream> void pass(Body& body, Stream& stream, Norvane::MediaOut& target) {
    stream.attach(target);
    body.write(stream);
    stream.end();
}

} // namespace

void Recipients::add(const RefCertificate& certificate, const std::string& name) {
    // Not with the certificate's own comparison, which refuses negative serial numbers.
    if (std::ranges::any_of(m_certificates, [&certificate](const RefCertificate& other) {
            return isSameCertificate(other, certificate);
        }))
        return;
    const bool isRsa = hasRsaKey(certificate);
    try {
        m_all.push_back(recipientFor(certificate, m_form, isRsa));
    } catch (const Norvane::Exception& failure) {
        throw Failure("nothing can be encrypted for the certificate " + name, failure);
    }
    m_certificates.push_back(certificate);
    m_anyRsa = m_anyRsa || isRsa;
    m_onlyRsa = m_onlyRsa && isRsa;
}

void Recipients::add(const EnvelopeRecipient& recipient) {
    m_all.push_back(recipient);
    m_onlyRsa = false;
}

bool Recipients::arePkcs7(const MessageCipher& cipher) const noexcept {
    const bool authenticated = cipher.content && *cipher.content >= CMS::ContentCipher::aes128Gcm;
    return m_onlyRsa && !m_form.oaepDigest && !m_form.keyIdentifier && !authenticated;
}

void Recipients::requireFit(const MessageCipher& cipher) const {
    if (m_form.oaepDigest && !m_anyRsa)
        throw Failure("--oaep is for RSA keys, and no recipient has one");
    if (!cipher.content && !arePkcs7(cipher))
        throw Failure(
            "this cipher is for recipients with RSA keys alone, and not with --oaep or --key-identifier: take "
            "aes-256-cbc");
}

void Recipients::encrypt(Body& body, const std::string& name, const MessageCipher& cipher,
                         Norvane::MediaOut& target) const {
    requireFit(cipher);
    try {
        if (!cipher.content) {
            CMS::EncrypterMediaOut encrypter(*cipher.old, m_certificates);
            pass(body, encrypter, target);
            return;
        }
        CMS::EnvelopeOptions options;
        options.cipher = *cipher.content;
        options.bodyLength = body.length();
        options.encoding = body.length() ? CMS::EnvelopeEncoding::der : CMS::EnvelopeEncoding::ber;
        CMS::EnvelopeWriter writer(m_all, options);
        pass(body, writer, target);
    } catch (const Norvane::Exception& failure) {
        throw Failure("cannot encrypt " + name, failure);
    }
}

} // namespace norvcrypt
