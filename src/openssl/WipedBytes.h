#pragma once

/// \file
/// Key material that is wiped when it goes.

#include <openssl/crypto.h>

#include <cstddef>
#include <span>
#include <utility>
#include <vector>

namespace Norvane::Crypto::openssl {

/// Bytes of a length that only ever shrinks, so that no copy of them is left where they lay before. Moves, never copies.
class WipedBytes {
public:
    WipedBytes() = default;
    explicit WipedBytes(std::size_t length) : m_bytes(length) {}
    ~WipedBytes() { OPENSSL_cleanse(m_bytes.data(), m_bytes.size()); }
    WipedBytes(const WipedBytes&) = delete;
    WipedBytes& operator=(const WipedBytes&) = delete;
    WipedBytes(WipedBytes&& other) noexcept : m_bytes(std::move(other.m_bytes)) { other.m_bytes.clear(); }
    WipedBytes& operator=(WipedBytes&& other) noexcept {
        m_bytes.swap(other.m_bytes);
        return *this;
    }

    [[nodiscard]] unsigned char* data() noexcept { return m_bytes.data(); }
    [[nodiscard]] const unsigned char* data() const noexcept { return m_bytes.data(); }
    [[nodiscard]] std::size_t size() const noexcept { return m_bytes.size(); }
    [[nodiscard]] bool empty() const noexcept { return m_bytes.empty(); }
    [[nodiscard]] std::span<const unsigned char> octets() const noexcept { return m_bytes; }
    /// \param length at most the length so far
    void shorten(std::size_t length) noexcept {
        OPENSSL_cleanse(m_bytes.data() + length, m_bytes.size() - length);
        m_bytes.resize(length);
    }

private:
    std::vector<unsigned char> m_bytes;
};

} // namespace Norvane::Crypto::openssl
