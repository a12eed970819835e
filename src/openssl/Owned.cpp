#include <norvcrypto/detail/Owned.h>

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pkcs12.h>
#include <openssl/x509v3.h>

namespace Norvane::Crypto::detail {

void Freeing::operator()(bio_st* bio) const noexcept {
    BIO_free(bio);
}

void Freeing::operator()(evp_md_ctx_st* context) const noexcept {
    EVP_MD_CTX_free(context);
}

void Freeing::operator()(ISSUING_DIST_POINT_st* point) const noexcept {
    ISSUING_DIST_POINT_free(point);
}

void Freeing::operator()(PKCS12_st* structure) const noexcept {
    PKCS12_free(structure);
}

} // namespace Norvane::Crypto::detail
