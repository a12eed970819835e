#pragma once

/// \file
/// A file descriptor that is closed with its owner.

#include <unistd.h>
#include <utility>

namespace norvmilter {

class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int number) noexcept : m_number(number) {}
    Descriptor(Descriptor&& other) noexcept : m_number(std::exchange(other.m_number, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        if (this != &other) {
            close();
            m_number = std::exchange(other.m_number, -1);
        }
        return *this;
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() { close(); }

    [[nodiscard]] int get() const noexcept { return m_number; }
    [[nodiscard]] explicit operator bool() const noexcept { return m_number >= 0; }
    [[nodiscard]] int release() noexcept { return std::exchange(m_number, -1); }
    void close() noexcept {
        if (m_number >= 0)
            ::close(std::exchange(m_number, -1));
    }

private:
    int m_number = -1;
};

} // namespace norvmilter
