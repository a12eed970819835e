#include "openssl/Digests.h"

#include "openssl/DefaultCiphers.h"
#include "openssl/ErrorQueue.h"

#include <openssl/objects.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <utility>

namespace Norvane::Crypto::openssl {

std::string shortName(int nid) {
    const ErrorMark quiet;
    const char* name = OBJ_nid2sn(nid);
    return name == nullptr ? "" : name;
}

const EVP_MD* digestByNid(int nid) {
    // A digest found by name is a constant of OpenSSL's. It is remembered: looking it up takes as long as a tenth of
    // digesting a short text. The numbers above are those that programs add; a negative one, which
    // is none, comes out above, too.
    static std::array<std::atomic<const EVP_MD*>, 1200> found;
    const auto index = static_cast<std::size_t>(nid);
    const bool isRemembered = index < found.size();
    if (isRemembered) {
        if (const EVP_MD* digest = found[index].load(std::memory_order_relaxed)) {
            return digest;
        }
    }
    const ErrorMark quiet;
    const char* name = OBJ_nid2sn(nid);
    const EVP_MD* digest = name == nullptr || *name == '\0' ? nullptr : EVP_get_digestbyname(name);
    if (isRemembered) {
        found[index].store(digest, std::memory_order_relaxed);
    }
    return digest;
}

namespace {

/// A context at its beginning, which is copied and kept as long as the process lives; null where it may not be kept.
DigestContextPtr beginningOf(const EVP_MD* digest) {
    const ErrorMark quiet;
    const Owned<EVP_MD, EVP_MD_free> found(EVP_MD_fetch(nullptr, EVP_MD_get0_name(digest), nullptr));
    DigestContextPtr beginning(EVP_MD_CTX_new());
    const bool isDefault = found != nullptr && isOfDefaultProvider(EVP_MD_get0_provider(found.get()));
    return isDefault && beginning != nullptr && EVP_DigestInit_ex(beginning.get(), digest, nullptr) == 1
               ? std::move(beginning)
               : nullptr;
}

} // namespace

bool beginDigest(EVP_MD_CTX* context, const EVP_MD* digest) noexcept {
    // Those in use today, by the place of their numbers; the others are looked up each time.
    static constexpr std::array<int, 5> kept{NID_sha1, NID_sha224, NID_sha256, NID_sha384, NID_sha512};
    static std::array<std::atomic<const EVP_MD_CTX*>, kept.size()> beginnings;
    const auto* const place =
        std::find(kept.begin(), kept.end(), digest == nullptr ? NID_undef : EVP_MD_get_type(digest));
    if (place == kept.end() || !mayKeepImplementations()) {
        return EVP_DigestInit_ex(context, digest, nullptr) == 1;
    }
    std::atomic<const EVP_MD_CTX*>& beginning = beginnings[static_cast<std::size_t>(place - kept.begin())];
    const EVP_MD_CTX* known = beginning.load(std::memory_order_acquire);
    if (known == nullptr) {
        if (DigestContextPtr made = beginningOf(digest)) {
            if (beginning.compare_exchange_strong(known, made.get(), std::memory_order_acq_rel)) {
                known = made.release();
            }
        }
    }
    return known != nullptr ? EVP_MD_CTX_copy_ex(context, known) == 1
                            : EVP_DigestInit_ex(context, digest, nullptr) == 1;
}

} // namespace Norvane::Crypto::openssl
