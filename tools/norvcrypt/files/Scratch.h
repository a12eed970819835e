#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring> // explicit_bzero of <string.h> too
#include <memory>

namespace norvcrypt {

/// Memory that bytes pass through: not filled with zeros first, and wiped as far as it was used. What is never touched costs
/// nothing, which counts where a command takes no longer than touching some pages does.
class Scratch {
public:
    explicit Scratch(std::size_t size) : m_bytes(new unsigned char[size]), m_size(size) {}
    ~Scratch() { explicit_bzero(m_bytes.get(), m_used); }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;

    [[nodiscard]] unsigned char* data() const noexcept { return m_bytes.get(); }
    [[nodiscard]] std::size_t size() const noexcept { return m_size; }
    /// That many bytes from the beginning were filled.
    void used(std::size_t count) noexcept { m_used = std::max(m_used, count); }

private:
    std::unique_ptr<unsigned char[]> m_bytes; // NOLINT(*-avoid-c-arrays): not filled with zeros first
    std::size_t m_size;
    std::size_t m_used = 0;
};

} // namespace norvcrypt
