#pragma once

/// \file
/// Keys of known small length, in place and wiped when they go.

#include "framing/Elements.h"

#include <openssl/crypto.h>

#include <array>
#include <cassert>
#include <cstddef>
#include <span>

namespace Norvane::Crypto::openssl {

/// Up to `most` secret octets. Not copied: each key is in one place.
class Secret {
public:
    static constexpr std::size_t most = 80; ///< a coordinate of P-521 has 66

    /// So many octets, which are zero.
    explicit Secret(std::size_t length = 0) noexcept : m_length(length) { assert(length <= most); }
    ~Secret() { OPENSSL_cleanse(m_octets.data(), m_octets.size()); }
    Secret(const Secret&) = delete;
    Secret& operator=(const Secret&) = delete;

    [[nodiscard]] std::span<unsigned char> octets() noexcept { return {m_octets.data(), m_length}; }
    [[nodiscard]] framing::Octets octets() const noexcept { return {m_octets.data(), m_length}; }
    [[nodiscard]] std::size_t size() const noexcept { return m_length; }
    void resize(std::size_t length) noexcept {
        assert(length <= most);
        m_length = length;
    }

private:
    std::array<unsigned char, most> m_octets{};
    std::size_t m_length;
};

} // namespace Norvane::Crypto::openssl
