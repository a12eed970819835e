#pragma once

/// \file
/// A source that is read piece by piece: for readers that must come to the same answers however the pieces fall, and
/// must leave alone what does not belong to them.

#include <norvcmsg/Exception.h>
#include <norvcmsg/Media.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace norvtest {

class PiecesInImpl : public Norvane::MediaInImpl {
public:
    explicit PiecesInImpl(const std::vector<unsigned char>& octets) : m_octets(octets) {}

    [[nodiscard]] bool atEnd() const override { return m_at == m_octets.size(); }
    [[nodiscard]] int peek() const override { return atEnd() ? -1 : m_octets[m_at]; }
    using Norvane::MediaInImpl::read;
    int read(unsigned char* out, unsigned int length) override {
        if (m_at >= throwAt || length > throwAt - m_at) {
            throw Norvane::MediaException("PiecesIn", 4, "ReaderSource", 0);
        }
        ++reads;
        std::size_t count = std::min<std::size_t>({length, most, m_octets.size() - m_at});
        for (std::size_t size = 1; size < count; ++size) {
            if (m_at + size < 64 && (splits >> (m_at + size - 1) & 1U) != 0) {
                count = size;
            }
        }
        std::copy_n(m_octets.begin() + static_cast<std::ptrdiff_t>(m_at), count, out);
        m_at += count;
        return static_cast<int>(count);
    }

    void setpos(unsigned long position) override { m_at = position; }

    std::uint64_t splits = 0; ///< a read ends behind octet n + 1 for each bit n
    std::size_t throwAt = SIZE_MAX;
    std::size_t most = SIZE_MAX; ///< octets that a read gives at most
    std::size_t reads = 0;
    [[nodiscard]] std::size_t taken() const noexcept { return m_at; }

private:
    std::vector<unsigned char> m_octets;
    std::size_t m_at = 0;
};

class PiecesIn : public Norvane::MediaIn {
public:
    explicit PiecesIn(const std::vector<unsigned char>& octets)
        : MediaIn(Norvane::makeReference<PiecesInImpl, Norvane::MediaInImpl>(octets)),
          m_body(dynamic_cast<PiecesInImpl*>(operator->())) {}

    /// Begins anew, in other pieces.
    void splitAt(std::uint64_t splits) {
        m_body->splits = splits;
        m_body->setpos(0);
    }
    void throwAt(std::size_t octet) { m_body->throwAt = octet; }
    void giveAtMost(std::size_t octets) { m_body->most = octets; }
    [[nodiscard]] std::size_t reads() const noexcept { return m_body->reads; }
    /// How many octets were read.
    [[nodiscard]] std::size_t taken() const noexcept { return m_body->taken(); }

private:
    PiecesInImpl* m_body;
};

} // namespace norvtest
