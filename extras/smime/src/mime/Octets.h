#pragma once

/// \file
/// Bytes that are looked at before they are taken: what the walk through a message reads from. A part of a message is a
/// view into the bytes of what it lies in, so that nothing is copied on the way down.

#include "Wiped.h"

#include <norvcmsg/Media.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

namespace Norvane::Crypto::SMime::mime {

/// A source. Who takes one by `std::shared_ptr` reads from it alone until he is done.
class Octets {
public:
    Octets() = default;
    Octets(const Octets&) = delete;
    Octets& operator=(const Octets&) = delete;
    virtual ~Octets() = default;

    /// The next bytes: at least `atLeast` of them, or all that are left. Valid until the next call.
    [[nodiscard]] virtual std::string_view view(std::size_t atLeast) = 0;
    /// Takes bytes that `view` showed.
    virtual void skip(std::size_t count) = 0;
    [[nodiscard]] bool atEnd() { return view(1).empty(); }
};

using SharedOctets = std::shared_ptr<Octets>;

/// Reads a stream in pieces. What the stream throws passes through.
class MediaOctets : public Octets {
public:
    explicit MediaOctets(const MediaIn& in);
    std::string_view view(std::size_t atLeast) override;
    void skip(std::size_t count) override;

private:
    MediaIn m_in;
    WipedOctets m_buffer;
    std::size_t m_pieceLength;
    std::size_t m_from = 0;
    std::size_t m_until = 0;
    bool m_ended = false;
};

/// Bytes that lie in memory: a copy.
class MemoryOctets : public Octets {
public:
    explicit MemoryOctets(std::string_view bytes) : m_bytes(bytes) {}
    std::string_view view(std::size_t /*atLeast*/) override { return std::string_view(m_bytes).substr(m_from); }
    void skip(std::size_t count) override { m_from += count; }

private:
    WipedText m_bytes;
    std::size_t m_from = 0;
};

/// Passes on what `from` gives, and hands a copy of each byte that is taken to `copy`.
class CopiedOctets : public Octets {
public:
    CopiedOctets(SharedOctets from, const MediaOut& copy) : m_from(std::move(from)), m_copy(copy) {}
    std::string_view view(std::size_t atLeast) override { return m_from->view(atLeast); }
    void skip(std::size_t count) override;

private:
    SharedOctets m_from;
    MediaOut m_copy;
};

/// Bytes as a source that the readers of CMS take.
[[nodiscard]] MediaIn mediaOver(const SharedOctets& octets);

/// Takes all that is left. \returns how many bytes those were
std::uint64_t drain(Octets& from);
/// Copies all that is left.
std::uint64_t copy(Octets& from, MediaOut& to);

/// Takes a byte order mark that a message begins with: editors put it there, and it hides the field behind it. \returns whether there
/// was one
bool skipByteOrderMark(Octets& from);

/// Writes a text. A sink takes 32 bits of length at a time.
void put(MediaOut& out, std::string_view text);

} // namespace Norvane::Crypto::SMime::mime
