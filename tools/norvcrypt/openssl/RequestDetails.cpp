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

std::string textOf(const ASN1_STRING* string) {
    return {reinterpret_cast<const char*>(ASN1_STRING_get0_data(string)),
            static_cast<std::size_t>(ASN1_STRING_length(string))};
}

void addNames(RequestDetails& details, X509_EXTENSION* extension) {
    const NamesPtr names(static_cast<GENERAL_NAMES*>(X509V3_EXT_d2i(extension)));
    for (int at = 0; at < sk_GENERAL_NAME_num(names.get()); ++at) {
        const GENERAL_NAME* const name = sk_GENERAL_NAME_value(names.get(), at);
        if (name->type == GEN_EMAIL)
            details.emails.push_back(textOf(name->d.rfc822Name));
        else if (name->type == GEN_DNS)
            details.dns.push_back(textOf(name->d.dNSName));
    }
}

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
    for (int one = 0; one < sk_X509_EXTENSION_num(extensions.get()); ++one) {
        X509_EXTENSION* const extension = sk_X509_EXTENSION_value(extensions.get(), one);
        details.extensions.push_back(objectName(X509_EXTENSION_get_object(extension)));
        if (OBJ_obj2nid(X509_EXTENSION_get_object(extension)) == NID_subject_alt_name)
            addNames(details, extension);
    }
    return details;
}

} // namespace norvcrypt
