#pragma once

/// \file
/// Key material that is wiped when it goes.

#include <openssl/crypto.h>

#include <cstddef>
#include <span>
#include <utility>
#include <vector>

namespace Norvane::Crypto::openssl {

/// Bytes of a length that only ever shrinks, so that no copy of them is left where they lay before. Moves, never copies. How
/// long a key is may be a secret: no step here depends on it.
class WipedBytes {
public:
    WipedBytes() = default;
    explicit WipedBytes(std::size_t length) : m_bytes(length), m_length(length) {}
    ~WipedBytes() { OPENSSL_cleanse(m_bytes.data(), m_bytes.size()); }
    WipedBytes(const WipedBytes&) = delete;
    WipedBytes& operator=(const WipedBytes&) = delete;
    WipedBytes(WipedBytes&& other) noexcept
        : m_bytes(std::move(other.m_bytes)),
          m_length(std::exchange(other.m_length, 0)) {
        other.m_bytes.clear();
    }
    WipedBytes& operator=(WipedBytes&& other) noexcept {
        m_bytes.swap(other.m_bytes);
        std::swap(m_length, other.m_length);
        return *this;
    }

    [[nodiscard]] unsigned char* data() noexcept { return m_bytes.data(); }
    [[nodiscard]] const unsigned char* data() const noexcept { return m_bytes.data(); }
    [[nodiscard]] std::size_t size() const noexcept { return m_length; }
    [[nodiscard]] bool empty() const noexcept { return m_length == 0; }
    [[nodiscard]] std::span<const unsigned char> octets() const noexcept { return {m_bytes.data(), m_length}; }
    /// As many as there were at first; what lies behind `size()` means nothing.
    [[nodiscard]] std::span<const unsigned char> room() const noexcept { return m_bytes; }
    /// \param length at most the length so far
    void shorten(std::size_t length) noexcept { m_length = length; }

private:
    std::vector<unsigned char> m_bytes;
    std::size_t m_length = 0;
};

} // namespace Norvane::Crypto::openssl
