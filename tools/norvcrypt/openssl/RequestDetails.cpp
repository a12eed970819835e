#include "openssl/RequestDetails.h"
#include "base/Failure.h"
#include "openssl/CertificateDetails.h"
#include "openssl/OpenSsl.h"

#include <norvcrypto/Acceptance.h>
#include <norvcrypto/Crypto.h>
#include <norvcrypto/DistinguishedName.h>

namespace norvcrypt {

namespace {

using RequestPtr = Owned<X509_REQ, X509_REQ_free>;

struct FreeingExtensions {
    void operator()(STACK_OF(X509_EXTENSION) * all) const noexcept {
        sk_X509_EXTENSION_pop_free(all, X509_EXTENSION_free);
    }
};

} // namespace

RequestDetails requestDetails(const Norvane::Buffer& der) {
    if (const std::string refusal = Norvane::Crypto::refusal(der); !refusal.empty())
        throw Failure("certificate request " + refusal);
    const unsigned char* at = der.data();
    const RequestPtr request(d2i_X509_REQ(nullptr, &at, static_cast<long>(der.length())));
    if (!request)
        throw Failure("malformed certificate request: " + inPlainWords(Norvane::Crypto::getErrString()));
    const QuietQuestion quiet;
    RequestDetails details;
    details.subject = displayName(Norvane::Crypto::NVX509::DistinguishedName(X509_REQ_get_subject_name(request.get())));
    const X509_ALGOR* algorithm = nullptr;
    X509_REQ_get0_signature(request.get(), nullptr, &algorithm);
    details.signatureAlgorithm = signatureAlgorithm(algorithm);
    if (EVP_PKEY* const key = X509_REQ_get_pubkey(request.get())) { // a reference of our own
        details.signedWithItsKey = X509_REQ_verify(request.get(), key) == 1;
        details.key = Norvane::Crypto::RefKey(new Norvane::Crypto::PublicKey(key));
    }
    const std::unique_ptr<STACK_OF(X509_EXTENSION), FreeingExtensions> extensions(
        X509_REQ_get_extensions(request.get()));
    GeneralNames names;
    for (int one = 0; one < sk_X509_EXTENSION_num(extensions.get()); ++one) {
        X509_EXTENSION* const extension = sk_X509_EXTENSION_value(extensions.get(), one);
        details.extensions.push_back(objectName(X509_EXTENSION_get_object(extension)));
        if (OBJ_obj2nid(X509_EXTENSION_get_object(extension)) == NID_subject_alt_name)
            names.add(extension);
    }
    details.names = names.take();
    return details;
}

} // namespace norvcrypt
