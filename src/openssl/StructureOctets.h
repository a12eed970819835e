#pragma once

/// \file
/// The octets of one structure from a source, before anything is decoded.

#include "framing/SegmentRun.h"

#include <norvcmsg/Media.h>

#include <cstddef>
#include <cstdint>

namespace Norvane::Crypto::openssl {

/// Octets that grow at their end and are not copied while they do, once they are many.
class GrowingOctets {
public:
    GrowingOctets() noexcept = default;
    GrowingOctets(GrowingOctets&& other) noexcept;
    GrowingOctets& operator=(GrowingOctets&& other) noexcept;
    ~GrowingOctets();

    [[nodiscard]] framing::Octets octets() const noexcept { return {m_data, m_size}; }
    /// Where `count` more octets can be written. Room for up to `most` octets in all may be taken at once.
    /// \throws std::bad_alloc
    unsigned char* room(std::size_t count, std::size_t most);
    /// So many of them were.
    void grow(std::size_t count) noexcept { m_size += count; }

private:
    void reserve(std::size_t capacity);

    unsigned char* m_data = nullptr;
    std::size_t m_size = 0;
    std::size_t m_capacity = 0;
};

/// Reads one structure from a source, and not an octet of what follows it. The octets are lent by the source where its
/// bytes lie in memory, and kept otherwise.
class StructureOctets {
public:
    /// No octets.
    StructureOctets() noexcept = default;
    /// \throws what `source` throws, with OpenSSL's error queue empty
    explicit StructureOctets(MediaIn& source);

    /// False when the source ended before the structure did, or is not framed as senders do it. Then `octets` are those that
    /// were read from the source, which stands behind them: no more than OpenSSL reads to tell what is wrong, if anything is.
    [[nodiscard]] bool isWhole() const noexcept { return m_isWhole; }
    [[nodiscard]] framing::Octets octets() const noexcept { return m_octets; }
    /// The longest run of segments in them, if they are whole.
    [[nodiscard]] const framing::SegmentRun& segments() const noexcept { return m_segments; }

private:
    class Lent;
    class Read;
    template <class Bytes> bool frame(Bytes& bytes);

    MediaIn m_source; ///< what lends the octets
    GrowingOctets m_kept;
    framing::Octets m_octets;
    framing::SegmentRun m_segments;
    bool m_isWhole = false;
};

/// A source over octets that outlive it, and over what follows them in another source, if there is one.
MediaIn octetsSource(framing::Octets octets);
MediaIn octetsSource(framing::Octets octets, MediaIn& rest);

} // namespace Norvane::Crypto::openssl
