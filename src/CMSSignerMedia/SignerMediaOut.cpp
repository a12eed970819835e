// The signing stream.
#include "CMS/StructureStream.h"
#include "failures/Raise.h"
#include "openssl/ErrorQueue.h"
#include "openssl/KeyComparison.h"
#include "openssl/Pointers.h"

#include <norvcrypto/CMSSignerMedia.h>

#include <openssl/objects.h>

#include <cstdio>
#include <cstdlib>

namespace Norvane::Crypto::CMS {

namespace {

/// A null pair is a programming error: the process ends, in builds without assertions too.
[[noreturn]] void endForNullPair() {
    std::fputs("norvcrypto: a signing stream was made with a null pair. Test the pair for null first.\n", stderr);
    std::abort();
}

const EVP_MD* digestOf(Hasher::Type type) {
    const char* name = OBJ_nid2sn(type);
    return name == nullptr ? nullptr : EVP_get_digestbyname(name);
}

void addCertificate(PKCS7* structure, const NVX509::RefCertificate& certificate) {
    X509* x509 = certificate;
    if (x509 != nullptr && PKCS7_add_certificate(structure, x509) != 1) {
        failures::raiseWithErrors(failures::signerAddCertificate);
    }
}

/// Types a new structure and gives it its signer and certificates.
void setUp(PKCS7* structure, Hasher::Type type, const NVX509::_KeyCertificatePair& signer) {
    if (PKCS7_set_type(structure, NID_pkcs7_signed) != 1) {
        failures::raiseWithErrors(failures::signerSetType);
    }
    const EVP_MD* digest = digestOf(type);
    if (digest == nullptr) {
        failures::raiseWithErrors(failures::signerDigest);
    }
    if (PKCS7_add_signature(structure, signer.certificate, signer.key, digest) == nullptr) {
        failures::raiseWithErrors(failures::signerAddSignature);
    }
    addCertificate(structure, signer.certificate);
    for (const NVX509::RefCertificate& certificate : signer.chain) {
        addCertificate(structure, certificate);
    }
    const openssl::ErrorMark mark;
    static_cast<void>(PKCS7_content_new(structure, NID_pkcs7_data)); // its result is not asked for
}

} // namespace

SignerMediaOutImpl::SignerMediaOutImpl(Hasher::Type type, const NVX509::KeyCertificatePair& signer)
    : m_stream(std::make_unique<StructureStream>()) {
    if (signer.get() == nullptr) {
        endForNullPair();
    }
    if (!openssl::keyMatchesCertificate(signer->certificate, signer->key)) {
        failures::raise(failures::signerKeyMismatch, "Private key does not match certificate");
    }
    setUp(m_stream->structure(), type, *signer);
    if (!m_stream->open(openssl::ContentChain::Sink::drop)) {
        failures::raiseWithErrors(failures::signerDataInit);
    }
}

SignerMediaOutImpl::~SignerMediaOutImpl() = default;

void SignerMediaOutImpl::write(const Buffer& data) {
    m_stream->write(data);
}

void SignerMediaOutImpl::write(const unsigned char* data, unsigned int length) {
    write(Buffer(data, length, true));
}

void SignerMediaOutImpl::end() {
    m_stream->end(failures::signerEnd, failures::signerWrite);
}

void SignerMediaOutImpl::attach(MediaOut& target) {
    if (!target.isNull() && target.operator->() == this) { // it would end itself for ever
        failures::raise(failures::signerAttach, "a stream cannot be its own target");
    }
    m_stream->attach(target);
}

void SignerMediaOutImpl::detach() {
    m_stream->detach();
}

namespace {

SignerMediaOutImpl& signerBody(const SignerMediaOut& handle) {
    auto* body = dynamic_cast<SignerMediaOutImpl*>(handle.operator->());
    if (body == nullptr) {
        failures::raise(failures::signerAttach);
    }
    return *body;
}

} // namespace

SignerMediaOut::SignerMediaOut(Hasher::Type type, const NVX509::KeyCertificatePair& signer)
    : MediaOut(makeReference<SignerMediaOutImpl, MediaOutImpl>(type, signer)) {}
SignerMediaOut::SignerMediaOut(const SignerMediaOut& other) = default;
SignerMediaOut& SignerMediaOut::operator=(const SignerMediaOut& other) = default;
SignerMediaOut::~SignerMediaOut() = default;

void SignerMediaOut::attach(MediaOut& target) {
    signerBody(*this).attach(target);
}

void SignerMediaOut::detach() {
    signerBody(*this).detach();
}

} // namespace Norvane::Crypto::CMS
