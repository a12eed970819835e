// The encrypting stream.
#include "CMS/StructureStream.h"
#include "failures/Raise.h"

#include <norvcrypto/CMSEncryptionMedia.h>

#include <openssl/err.h>
#include <openssl/objects.h>

namespace Norvane::Crypto::CMS {

EncrypterMediaOutImpl::EncrypterMediaOutImpl(Cipher cipher, const std::list<NVX509::RefCertificate>& recipients)
    : m_stream(std::make_unique<StructureStream>()) {
    PKCS7* structure = m_stream->structure();
    if (PKCS7_set_type(structure, NID_pkcs7_enveloped) != 1) {
        failures::raiseWithErrors(failures::enveloperSetType);
    }
    if (PKCS7_set_cipher(structure, initializeCipher(cipher)) != 1) {
        failures::raiseWithErrors(failures::enveloperSetCipher);
    }
    for (const NVX509::RefCertificate& certificate : recipients) {
        addCertificate(certificate);
    }
    if (!m_stream->open(openssl::ContentChain::Sink::collect)) {
        failures::raiseWithErrors(failures::enveloperDataInit);
    }
}

EncrypterMediaOutImpl::~EncrypterMediaOutImpl() = default;

void EncrypterMediaOutImpl::addCertificate(const NVX509::RefCertificate& certificate) const {
    PKCS7* structure = m_stream->structure();
    if (structure == nullptr) {
        return;
    }
    X509* x509 = certificate;
    if (x509 == nullptr) { // OpenSSL would crash on it
        openssl::queueError("PKCS7_add_recipient", ERR_LIB_PKCS7, ERR_R_PASSED_NULL_PARAMETER);
    } else if (m_stream->isOpen()) { // OpenSSL would add a recipient without a content key
        openssl::queueError("PKCS7_add_recipient", ERR_LIB_PKCS7, ERR_R_SHOULD_NOT_HAVE_BEEN_CALLED);
    } else if (PKCS7_add_recipient(structure, x509) != nullptr) {
        return;
    }
    failures::raiseWithErrors(failures::enveloperAddRecipient);
}

void EncrypterMediaOutImpl::write(const Buffer& data) {
    m_stream->write(data);
}

void EncrypterMediaOutImpl::write(const unsigned char* data, unsigned int length) {
    write(Buffer(data, length, true));
}

void EncrypterMediaOutImpl::end() {
    m_stream->end(failures::enveloperEnd, failures::enveloperWrite);
}

void EncrypterMediaOutImpl::attach(MediaOut& target) {
    if (!target.isNull() && target.operator->() == this) { // it would end itself for ever
        failures::raise(failures::enveloperAttach, "a stream cannot be its own target");
    }
    m_stream->attach(target);
}

void EncrypterMediaOutImpl::detach() {
    m_stream->detach();
}

namespace {

EncrypterMediaOutImpl& encrypterBody(const EncrypterMediaOut& handle) {
    auto* body = dynamic_cast<EncrypterMediaOutImpl*>(handle.operator->());
    if (body == nullptr) {
        failures::raise(failures::enveloperAttach);
    }
    return *body;
}

} // namespace

EncrypterMediaOut::EncrypterMediaOut() = default;
EncrypterMediaOut::EncrypterMediaOut(Cipher cipher, const std::list<NVX509::RefCertificate>& recipients)
    : MediaOut(makeReference<EncrypterMediaOutImpl, MediaOutImpl>(cipher, recipients)) {}
EncrypterMediaOut::EncrypterMediaOut(const EncrypterMediaOut& other) = default;
EncrypterMediaOut& EncrypterMediaOut::operator=(const EncrypterMediaOut& other) = default;
EncrypterMediaOut::~EncrypterMediaOut() = default;

void EncrypterMediaOut::attach(MediaOut& target) {
    encrypterBody(*this).attach(target);
}

void EncrypterMediaOut::detach() {
    encrypterBody(*this).detach();
}

} // namespace Norvane::Crypto::CMS
