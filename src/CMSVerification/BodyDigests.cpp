#include "CMSVerification/BodyDigests.h"

#include "openssl/Digests.h"
#include "openssl/ErrorQueue.h"

#include <norvcrypto/CMSVerification.h>

#include <algorithm>
#include <new>

namespace Norvane::Crypto::CMS {

namespace {

bool isSame(const EVP_MD* left, const EVP_MD* right) noexcept {
    return EVP_MD_get_type(left) == EVP_MD_get_type(right);
}

/// Ends a digest; one of variable length with the most octets that are known to be signed: SHAKE256 with 512 bits
/// (RFC 8419, 3.1).
bool finish(EVP_MD_CTX* context, BodyDigest& digest) noexcept {
    if ((EVP_MD_get_flags(digest.algorithm) & EVP_MD_FLAG_XOF) != 0) {
        digest.length = digest.value.size();
        return EVP_DigestFinalXOF(context, digest.value.data(), digest.length) == 1;
    }
    unsigned int length = 0;
    const bool ended = EVP_DigestFinal_ex(context, digest.value.data(), &length) == 1;
    digest.length = length;
    return ended;
}

} // namespace

const BodyDigest* digestBy(const EVP_MD* algorithm, const std::vector<BodyDigest>& digests) noexcept {
    const auto found =
        std::ranges::find_if(digests, [&](const BodyDigest& digest) { return isSame(digest.algorithm, algorithm); });
    return found == digests.end() ? nullptr : &*found;
}

bool BodyDigests::start(const EVP_MD* algorithm) {
    if (std::ranges::any_of(m_running, [&](const Running& one) { return isSame(one.algorithm, algorithm); })) {
        return true;
    }
    if (m_running.size() == maximumDigests) {
        return false;
    }
    const openssl::ErrorMark mark;
    openssl::DigestContextPtr context(EVP_MD_CTX_new());
    if (context == nullptr) {
        throw std::bad_alloc();
    }
    // OpenSSL does not tell a digest that it has no memory for from one that it does not have.
    if (!openssl::beginDigest(context.get(), algorithm) && !openssl::beginDigest(context.get(), algorithm)) {
        mark.throwWithoutMemory();
        return false;
    }
    m_running.push_back({algorithm, std::move(context)});
    return true;
}

void BodyDigests::update(const unsigned char* data, std::size_t count) noexcept {
    for (const Running& one : m_running) {
        static_cast<void>(EVP_DigestUpdate(one.context.get(), data, count)); // fails for no digest
    }
}

std::vector<BodyDigest> BodyDigests::finished() const {
    std::vector<BodyDigest> values;
    values.reserve(m_running.size());
    for (const Running& one : m_running) {
        BodyDigest value;
        value.algorithm = one.algorithm;
        const openssl::DigestContextPtr copy(EVP_MD_CTX_new());
        if (copy == nullptr || EVP_MD_CTX_copy_ex(copy.get(), one.context.get()) != 1) {
            throw std::bad_alloc(); // a digest that is missing would count as one too many
        }
        if (finish(copy.get(), value)) {
            values.push_back(value);
        }
    }
    return values;
}

} // namespace Norvane::Crypto::CMS
