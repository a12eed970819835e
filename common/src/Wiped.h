#pragma once

/// \file
/// Bytes on the stack that streams pass through.

#include <array>
#include <cstddef>
#include <cstring>

namespace Norvane::detail {

/// What passes through may be a secret: it is wiped.
template <std::size_t length> class Wiped {
public:
    Wiped() = default;
    ~Wiped() { explicit_bzero(m_bytes.data(), m_bytes.size()); }
    Wiped(const Wiped&) = delete;
    Wiped& operator=(const Wiped&) = delete;
    [[nodiscard]] unsigned char* data() noexcept { return m_bytes.data(); }

private:
    std::array<unsigned char, length> m_bytes{};
};

} // namespace Norvane::detail
