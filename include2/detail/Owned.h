#ifndef NORVCRYPTO_DETAIL_OWNED_H
#define NORVCRYPTO_DETAIL_OWNED_H

/// \file
/// Owning pointers to OpenSSL objects for the members of public classes; OpenSSL's own headers stay out.

#include <memory>

struct ISSUING_DIST_POINT_st;
struct PKCS12_st;
struct bio_st;
struct evp_md_ctx_st;

namespace Norvane::Crypto::detail {

/// Frees an OpenSSL object with the function that belongs to its type.
struct Freeing {
    void operator()(bio_st* bio) const noexcept;
    void operator()(evp_md_ctx_st* context) const noexcept;
    void operator()(ISSUING_DIST_POINT_st* point) const noexcept;
    void operator()(PKCS12_st* structure) const noexcept;
};

using OwnedBio = std::unique_ptr<bio_st, Freeing>;
using OwnedDigestContext = std::unique_ptr<evp_md_ctx_st, Freeing>;
using OwnedIssuingPoint = std::unique_ptr<ISSUING_DIST_POINT_st, Freeing>;
using OwnedPkcs12 = std::unique_ptr<PKCS12_st, Freeing>;

} // namespace Norvane::Crypto::detail

#endif
