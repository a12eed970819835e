// The verifier and its arithmetic.
#include "failures/Events.h"
#include "openssl/ErrorQueue.h"
#include "openssl/Pkcs7.h"

#include <norvcrypto/CMSSignerMedia.h>

#include <openssl/objects.h>

#include <array>
#include <cstring>
#include <optional>

namespace Norvane::Crypto::CMS {

namespace {

using failures::Event;

/// Whether a signer's digest algorithm is the one that the body was digested with; some senders name it by the
/// signature algorithm of RSA. An unknown identifier must not match a digest that has no such algorithm (both are 0).
bool namesDigest(int nid, const EVP_MD* digest) {
    return nid != NID_undef && digest != nullptr &&
           (nid == EVP_MD_get_type(digest) || nid == EVP_MD_get_pkey_type(digest));
}

/// Puts the signed attributes in the place of the body: they must carry its digest, and are what the signature covers.
/// Answers what is wrong.
std::optional<Event> digestAttributes(EVP_MD_CTX* work, const PKCS7_SIGNER_INFO* signer, int nid) {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int digestLength = 0;
    if (EVP_DigestFinal_ex(work, digest.data(), &digestLength) != 1) {
        return Event::signerDigestMismatch;
    }
    const ASN1_OCTET_STRING* announced = openssl::messageDigest(signer);
    if (announced == nullptr) {
        return Event::signerDigestMissing;
    }
    if (static_cast<unsigned int>(ASN1_STRING_length(announced)) != digestLength ||
        std::memcmp(ASN1_STRING_get0_data(announced), digest.data(), digestLength) != 0) {
        return Event::signerDigestDiffers;
    }
    int length = 0;
    const auto attributes = openssl::encodeSignedAttributes(signer, length);
    if (length == 0 || EVP_DigestInit_ex(work, EVP_get_digestbyname(OBJ_nid2sn(nid)), nullptr) != 1 ||
        EVP_DigestUpdate(work, attributes.get(), static_cast<std::size_t>(length)) != 1) {
        return Event::signerSignatureWrong;
    }
    return std::nullopt;
}

/// A certificate's public key, or null. A certificate whose key cannot be decoded has a key handle without a key.
EVP_PKEY* keyOf(const NVX509::RefCertificate& certificate, RefKey& holder) {
    if (static_cast<x509_st*>(certificate) == nullptr) {
        return nullptr;
    }
    holder = certificate->key();
    return holder;
}

/// Answers what is wrong with a signature.
std::optional<Event> findFault(const EVP_MD_CTX* digested, const PKCS7_SIGNER_INFO* signer,
                               const NVX509::RefCertificate& certificate) {
    const int nid = openssl::digestNid(signer);
    if (!namesDigest(nid, EVP_MD_CTX_get0_md(digested))) {
        return Event::signerDigestMismatch;
    }
    const openssl::DigestContextPtr work(EVP_MD_CTX_new());
    if (work == nullptr || EVP_MD_CTX_copy_ex(work.get(), digested) != 1) {
        return Event::signerSignatureWrong;
    }
    if (openssl::hasSignedAttributes(signer)) {
        if (const auto fault = digestAttributes(work.get(), signer, nid)) {
            return fault;
        }
    }
    RefKey holder(static_cast<Key*>(nullptr));
    EVP_PKEY* key = keyOf(certificate, holder);
    if (key == nullptr) {
        return Event::signerKeyMissing;
    }
    const ASN1_OCTET_STRING* signature = signer->enc_digest;
    if (signature == nullptr || EVP_VerifyFinal(work.get(), ASN1_STRING_get0_data(signature),
                                                static_cast<unsigned int>(ASN1_STRING_length(signature)), key) < 1) {
        return Event::signerSignatureWrong;
    }
    return std::nullopt;
}

/// 1 for a good signature and 0 for a bad one, whose fault is logged. OpenSSL's queue is left as it was.
int s_signatureVerify(EVP_MD_CTX* digested, const SignerInfo& signer, const NVX509::RefCertificate& certificate) {
    const openssl::ErrorMark mark;
    const auto fault = findFault(digested, signer, certificate);
    if (fault) {
        failures::logEvent(*fault, "s_signatureVerify");
    }
    return fault ? 0 : 1;
}

} // namespace

CMSVerifier::CMSVerifier(MediaIn& in) : m_contentInfo(in) {}

CMSVerifier::~CMSVerifier() = default;

const RefContentInfo& CMSVerifier::contentInfo() const {
    return m_contentInfo;
}

VerifierMediaOut CMSVerifier::verifierMediaOut(const SignerInfo& signer) const {
    return VerifierMediaOut(static_cast<Hasher::Type>(openssl::digestNid(signer)));
}

bool CMSVerifier::isValid(VerifierMediaOut& digested, const SignerInfo& signer,
                          const NVX509::RefCertificate& certificate) const {
    return s_signatureVerify(digested.verifier()->context(), signer, certificate) == 1;
}

bool CMSVerifier::isValid(MediaIn& body, const SignerInfo& signer, const NVX509::RefCertificate& certificate) const {
    VerifierMediaOut digested = verifierMediaOut(signer);
    body.write(digested);
    return isValid(digested, signer, certificate);
}

} // namespace Norvane::Crypto::CMS
