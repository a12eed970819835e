#pragma once

// More room than there is memory.

#include <sys/mman.h>

#include <cstddef>
#include <stdexcept>

namespace norvtest {

/// So much address space, zeroes when it is read. Nothing but the pages that are touched takes memory.
class AddressSpace {
public:
    explicit AddressSpace(std::size_t length, int protection = PROT_READ)
        : m_start(mmap(nullptr, length, protection, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0)),
          m_length(length) {
        if (m_start == MAP_FAILED) {
            throw std::runtime_error("mmap");
        }
    }
    ~AddressSpace() { munmap(m_start, m_length); }
    AddressSpace(const AddressSpace&) = delete;
    AddressSpace& operator=(const AddressSpace&) = delete;

    [[nodiscard]] unsigned char* data() const { return static_cast<unsigned char*>(m_start); }

private:
    void* m_start;
    std::size_t m_length;
};

} // namespace norvtest
