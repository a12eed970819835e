#include "cms/Signing.h"

#include "base/Failure.h"
#include "openssl/CertificateDetails.h"

#include <norvcrypto/CMSSignedWriter.h>
#include <norvcrypto/CMSSignerMedia.h>
#include <norvcrypto/CMSVerification.h>

#include <algorithm>

namespace norvcrypt {

namespace CMS = Norvane::Crypto::CMS;
using CMS::SignedWriter;
using Norvane::Crypto::Hasher;
using Norvane::Crypto::NVX509::KeyCertificatePair;
using Signers = std::vector<KeyCertificatePair>;

namespace {

bool any(const Signers& signers, const std::vector<SigningKey>& kinds) {
    return std::ranges::any_of(signers, [&kinds](const KeyCertificatePair& pair) {
        return std::ranges::find(kinds, signingKey(pair->key)) != kinds.end();
    });
}

/// Looks at what passes on its way to a signer.
class AttributeWatch : public Norvane::MediaOutImpl {
public:
    AttributeWatch(CMS::AttributeSetDetector& detector, const Norvane::MediaOut& signer)
        : m_detector(detector),
          m_signer(signer) {}

    using MediaOutImpl::write;
    void write(const unsigned char* data, unsigned int length) override {
        m_detector.update(data, length);
        m_signer.write(data, length);
    }

private:
    CMS::AttributeSetDetector& m_detector;
    Norvane::MediaOut m_signer;
};

/// A signature over a set of attributes would also be one over another text that has them.
void pass(Body& body, Norvane::MediaOut signer, const std::string& name) {
    CMS::AttributeSetDetector attributes;
    Norvane::MediaOut watch(Norvane::makeReference<AttributeWatch, Norvane::MediaOutImpl>(attributes, signer));
    body.write(watch);
    if (attributes.isAttributeSet())
        throw Failure("will not sign " + name +
                      ": it is a set of attributes, whose signature would be good for another body, too");
    signer.end();
}

SignedWriter::Signer signerOf(const KeyCertificatePair& pair, const SignatureForm& form) {
    SignedWriter::Signer signer(pair);
    const bool edwards = signingKey(pair->key) == SigningKey::edwards;
    if (form.digest || !edwards)
        signer.digest = form.digest.value_or(Hasher::SHA256);
    signer.rsaScheme = form.pss ? SignedWriter::RsaScheme::pss : SignedWriter::RsaScheme::pkcs1;
    signer.namedBy = form.keyIdentifier ? CMS::NamedBy::subjectKeyIdentifier : CMS::NamedBy::issuerAndSerialNumber;
    signer.signedAttributes = form.signedAttributes || edwards;
    return signer;
}

SignedWriter::Options optionsFor(const Body& body, const Signers& signers, const SignatureForm& form) {
    SignedWriter::Options options;
    for (const KeyCertificatePair& pair : signers)
        options.signers.push_back(signerOf(pair, form));
    options.content = form.attached ? SignedWriter::Content::attached : SignedWriter::Content::detached;
    options.length = body.length();
    const bool foreseen = body.length() && !any(signers, {SigningKey::curve});
    options.encoding = !form.attached || foreseen ? SignedWriter::Encoding::der : SignedWriter::Encoding::ber;
    return options;
}

void signAsPkcs7(Body& body, const std::string& name, const KeyCertificatePair& pair, const SignatureForm& form,
                 Norvane::MediaOut& target) {
    CMS::SignerMediaOut signer(form.digest.value_or(Hasher::SHA256), pair);
    signer.attach(target);
    pass(body, signer, name);
}

void signAsCms(Body& body, const std::string& name, const Signers& signers, const SignatureForm& form,
               Norvane::MediaOut& target) {
    const SignedWriter::Options options = optionsFor(body, signers, form);
    SignedWriter writer(options);
    writer.attach(target);
    if (std::ranges::all_of(options.signers, [](const auto& signer) { return signer.signedAttributes; })) {
        body.write(writer);
        writer.end();
    } else {
        pass(body, writer, name);
    }
}

} // namespace

bool SignatureForm::isPkcs7(const Signers& signers) const {
    return !attached && !signedAttributes && !pss && !keyIdentifier && signers.size() == 1 &&
           !any(signers, {SigningKey::rsaPss, SigningKey::edwards});
}

void sign(Body& body, const std::string& name, const Signers& signers, const SignatureForm& form,
          Norvane::MediaOut& target) {
    if (form.pss && !any(signers, {SigningKey::rsa, SigningKey::rsaPss}))
        throw Failure("--pss is for RSA keys, and no signer has one");
    try {
        if (form.isPkcs7(signers))
            signAsPkcs7(body, name, signers.front(), form, target);
        else
            signAsCms(body, name, signers, form, target);
    } catch (const Norvane::Exception& failure) {
        throw Failure("cannot sign " + name, failure);
    }
}

} // namespace norvcrypt
