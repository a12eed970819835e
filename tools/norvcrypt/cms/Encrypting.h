#pragma once

/// \file
/// Encrypting a body for recipients of every kind.

#include "cms/Sharing.h"
#include "files/Body.h"
#include "recognise/CipherNames.h"

#include <norvcmsg/Buffer.h>
#include <norvcrypto/CMSEnvelopeWriter.h>
#include <norvcrypto/Certificate.h>

#include <list>
#include <optional>
#include <string>
#include <vector>

namespace norvcrypt {

/// How keys of certificates are used. As it stands: PKCS#1 1.5 for RSA, named by issuer and serial number.
struct RecipientForm {
    std::optional<Norvane::Crypto::Hasher::Type> oaepDigest{}; ///< RSAES-OAEP with it
    bool keyIdentifier = false;
};

/// All who shall read a message.
class Recipients {
public:
    explicit Recipients(const RecipientForm& form) : m_form(form) {}

    /// A certificate that comes again is one recipient. Messages call it `name`. \throws Failure: nothing can be encrypted
    /// for it
    void add(const Norvane::Crypto::NVX509::RefCertificate& certificate, const std::string& name);
    /// A key or a password.
    void add(const Norvane::Crypto::CMS::EnvelopeRecipient& recipient);

    /// Whether what is made for them with the cipher is the EnvelopedData that PKCS#7 has.
    [[nodiscard]] bool arePkcs7(const MessageCipher& cipher) const noexcept;
    /// Before several threads encrypt for them at a time.
    void prepareToShare() const { warmAll(m_certificates); }
    /// Writes the structure to `target` and ends that: DER, or BER when the length of the body is not known. Messages call
    /// the body `name`. \throws Failure
    void encrypt(Body& body, const std::string& name, const MessageCipher& cipher, Norvane::MediaOut& target) const;

private:
    void requireFit(const MessageCipher& cipher) const;

    RecipientForm m_form;
    std::list<Norvane::Crypto::NVX509::RefCertificate> m_certificates;
    std::vector<Norvane::Crypto::CMS::EnvelopeRecipient> m_all;
    bool m_anyRsa = false;
    bool m_onlyRsa = true;
};

} // namespace norvcrypt
