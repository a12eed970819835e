#include "Octets.h"

#include <algorithm>
#include <cstring>

namespace Norvane::Crypto::SMime::mime {

namespace {

// Of a short message little is to be wiped.
constexpr std::size_t firstPieceLength = 4096;
constexpr std::size_t pieceLength = 32768;

/// The body of a source over octets.
class OctetsIn : public MediaInImpl {
public:
    explicit OctetsIn(SharedOctets octets) : m_octets(std::move(octets)) {}

    using MediaInImpl::read;
    [[nodiscard]] bool atEnd() const override { return m_octets->atEnd(); }
    [[nodiscard]] int peek() const override {
        const std::string_view bytes = m_octets->view(1);
        return bytes.empty() ? -1 : static_cast<unsigned char>(bytes.front());
    }
    int read(unsigned char* out, unsigned int length) override {
        std::size_t done = 0;
        while (done < length) {
            const std::string_view bytes = m_octets->view(1);
            if (bytes.empty())
                break;
            const std::size_t count = std::min<std::size_t>(bytes.size(), length - done);
            std::memcpy(out + done, bytes.data(), count);
            m_octets->skip(count);
            done += count;
        }
        return static_cast<int>(done);
    }
    MediaOut& write(MediaOut& out) override {
        copy(*m_octets, out);
        return out;
    }

private:
    SharedOctets m_octets;
};

} // namespace

MediaOctets::MediaOctets(const MediaIn& in) : m_in(in), m_pieceLength(firstPieceLength) {}

std::string_view MediaOctets::view(std::size_t atLeast) {
    if (m_until - m_from < atLeast && !m_ended) {
        // What was looked at but not taken moves to the front: it is short, since readers take what they can.
        if (m_from != 0) {
            std::memmove(m_buffer.data(), m_buffer.data() + m_from, m_until - m_from);
            m_until -= m_from;
            m_from = 0;
        }
        m_buffer.resize(std::max(m_buffer.size(), atLeast + m_pieceLength));
        while (m_until < atLeast && !m_ended) {
            const auto room = static_cast<unsigned int>(m_buffer.size() - m_until);
            const int count = m_in.read(reinterpret_cast<unsigned char*>(m_buffer.data()) + m_until, room);
            if (count <= 0)
                m_ended = true;
            else
                m_until += static_cast<std::size_t>(count);
        }
        if (m_until == m_buffer.size())
            m_pieceLength = pieceLength;
    }
    return {m_buffer.data() + m_from, m_until - m_from};
}

void MediaOctets::skip(std::size_t count) {
    m_from += std::min(count, m_until - m_from);
}

void CopiedOctets::skip(std::size_t count) {
    put(m_copy, m_from->view(count).substr(0, count));
    m_from->skip(count);
}

MediaIn mediaOver(const SharedOctets& octets) {
    return MediaIn(makeReference<OctetsIn, MediaInImpl>(octets));
}

std::uint64_t drain(Octets& from) {
    std::uint64_t count = 0;
    for (std::string_view bytes = from.view(1); !bytes.empty(); bytes = from.view(1)) {
        count += bytes.size();
        from.skip(bytes.size());
    }
    return count;
}

std::uint64_t copy(Octets& from, MediaOut& to) {
    std::uint64_t count = 0;
    for (std::string_view bytes = from.view(1); !bytes.empty(); bytes = from.view(1)) {
        count += bytes.size();
        put(to, bytes);
        from.skip(bytes.size());
    }
    return count;
}

bool skipByteOrderMark(Octets& from) {
    constexpr std::string_view mark = "\xEF\xBB\xBF";
    if (!from.view(mark.size()).starts_with(mark))
        return false;
    from.skip(mark.size());
    return true;
}

void put(MediaOut& out, std::string_view text) {
    constexpr std::size_t most = std::size_t{1} << 30U;
    while (!text.empty()) {
        const std::string_view piece = text.substr(0, most);
        out.write(reinterpret_cast<const unsigned char*>(piece.data()), static_cast<unsigned int>(piece.size()));
        text.remove_prefix(piece.size());
    }
}

} // namespace Norvane::Crypto::SMime::mime
