#pragma once

/// \file
/// The digests of a body that passes.

#include "openssl/Pointers.h"

#include <array>
#include <cstddef>
#include <vector>

namespace Norvane::Crypto::CMS {

/// The digest of a body under one algorithm.
struct BodyDigest {
    const EVP_MD* algorithm = nullptr;
    std::array<unsigned char, EVP_MAX_MD_SIZE> value{};
    std::size_t length = 0;
};

/// The one by that algorithm, or null.
const BodyDigest* digestBy(const EVP_MD* algorithm, const std::vector<BodyDigest>& digests) noexcept;

/// Digests under way, `maximumDigests` at most, each once.
class BodyDigests {
public:
    /// Starts a digest unless it runs, or there are too many, or it does not start. \return whether it runs
    bool start(const EVP_MD* algorithm);
    void update(const unsigned char* data, std::size_t count) noexcept;
    /// Those of the bytes so far, which go on.
    [[nodiscard]] std::vector<BodyDigest> finished() const;

private:
    struct Running {
        const EVP_MD* algorithm;
        openssl::DigestContextPtr context;
    };
    std::vector<Running> m_running;
};

} // namespace Norvane::Crypto::CMS
