#include "openssl/StructureOctets.h"

#include <norvcmsg/BytesInMemory.h>

#include <openssl/err.h>

#include <sys/mman.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

namespace Norvane::Crypto::openssl {

using framing::Octets;

// GrowingOctets

namespace {

/// From here on, pages are taken from the system, which moves them without a copy: large ones where it has such, since
/// handing out small ones takes it several times as long as filling them.
constexpr std::size_t mappedFrom = 0x200000;
constexpr std::size_t page = mappedFrom;

bool isMapped(std::size_t capacity) noexcept {
    return capacity >= mappedFrom;
}

} // namespace

GrowingOctets::GrowingOctets(GrowingOctets&& other) noexcept
    : m_data(std::exchange(other.m_data, nullptr)),
      m_size(std::exchange(other.m_size, 0)),
      m_capacity(std::exchange(other.m_capacity, 0)) {}

GrowingOctets& GrowingOctets::operator=(GrowingOctets&& other) noexcept {
    std::swap(m_data, other.m_data);
    std::swap(m_size, other.m_size);
    std::swap(m_capacity, other.m_capacity);
    return *this;
}

GrowingOctets::~GrowingOctets() {
    if (isMapped(m_capacity)) {
        munmap(m_data, m_capacity);
    } else {
        std::free(m_data);
    }
}

void GrowingOctets::reserve(std::size_t capacity) {
    if (!isMapped(capacity)) {
        auto* larger = static_cast<unsigned char*>(std::realloc(m_data, capacity));
        if (larger == nullptr) {
            throw std::bad_alloc();
        }
        m_data = larger;
    } else {
        capacity = (capacity + page - 1) / page * page;
        void* larger = isMapped(m_capacity)
                           ? mremap(m_data, m_capacity, capacity, MREMAP_MAYMOVE)
                           // cppcheck-suppress invalidFunctionArg ; no file
                           : mmap(nullptr, capacity, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (larger == MAP_FAILED) {
            throw std::bad_alloc();
        }
        if (!isMapped(m_capacity)) {
            if (m_size != 0) {
                std::memcpy(larger, m_data, m_size);
            }
            std::free(m_data);
        }
        madvise(larger, capacity, MADV_HUGEPAGE); // refused where there are none, which makes no difference
        m_data = static_cast<unsigned char*>(larger);
    }
    m_capacity = capacity;
}

unsigned char* GrowingOctets::room(std::size_t count, std::size_t most) {
    if (m_capacity - m_size < count) {
        // A quarter more, so that growing is seldom: a stranger may have every two octets be asked for alone. What is mapped
        // grows without a copy, and by no more than is known to be needed.
        const std::size_t ahead = m_capacity + m_capacity / 4;
        reserve(std::max(m_size + count, isMapped(ahead) ? std::min(ahead, most) : ahead));
    }
    return m_data + m_size;
}

// StructureOctets

/// Where the octets come from, as far as they were asked for. `octets` are those that are there, `read` asks for more: there
/// are fewer only at the source's end.
class StructureOctets::Lent {
public:
    explicit Lent(const BytesInMemory& source) noexcept : m_all(source.rest(), source.left()) {}
    [[nodiscard]] Octets octets() const noexcept { return m_all.first(m_read); }
    /// How many elements with this header stand from there on, of which the first may not be there as a whole.
    [[nodiscard]] std::size_t countAlike(std::size_t at, const framing::Header& header) const noexcept {
        const Octets counted = m_all.first(std::min<std::size_t>(m_all.size(), INT_MAX)); // as OpenSSL counts
        return at < counted.size() ? framing::countAlike(counted.subspan(at), header) : 1;
    }
    void read(std::size_t count) { m_read += std::min(count, m_all.size() - m_read); }

private:
    Octets m_all;
    std::size_t m_read = 0;
};

class StructureOctets::Read {
public:
    Read(MediaIn& source, GrowingOctets& kept) noexcept : m_source(source), m_kept(kept) {}
    [[nodiscard]] Octets octets() const noexcept { return m_kept.octets(); }
    [[nodiscard]] static std::size_t countAlike(std::size_t /*at*/, const framing::Header& /*header*/) noexcept {
        return 1; // the next one is not there yet
    }
    void read(std::size_t count) {
        const std::size_t wanted = m_kept.octets().size() + count;
        while (m_kept.octets().size() != wanted) {
            // No more room at once than what has come already justifies: an announcement costs nothing.
            const std::size_t size = m_kept.octets().size();
            const std::size_t piece = std::min({wanted - size, std::max(size, smallestPiece), largestPiece});
            unsigned char* room = m_kept.room(piece, std::max(wanted, smallestPiece));
            const int got = m_source.read(room, static_cast<unsigned int>(piece));
            if (got <= 0) {
                return;
            }
            // A source that claims more than it was asked for wrote no more than there is room for.
            m_kept.grow(std::min(static_cast<std::size_t>(got), piece));
        }
    }

private:
    static constexpr std::size_t smallestPiece = 0x1000;
    static constexpr std::size_t largestPiece = 0x100000;

    MediaIn& m_source;
    GrowingOctets& m_kept;
};

/// Finds the end of the structure, for which no octet behind it is read. False for what OpenSSL and its versions may see
/// otherwise: tag numbers beyond one octet, lengths of more than eight, ends of contents that are none.
template <class Bytes> bool StructureOctets::frame(Bytes& bytes) {
    constexpr std::size_t smallestHeader = 2;
    constexpr unsigned int longTag = 0x1F;
    constexpr unsigned int longLength = 0x80;
    const auto need = [&](std::size_t count) {
        if (bytes.octets().size() < count) {
            bytes.read(count - bytes.octets().size());
        }
        return bytes.octets().size() >= count;
    };
    framing::LongestRun run;
    std::size_t end = 0;
    std::size_t open = 0;
    do {
        if (!need(end + smallestHeader) || (bytes.octets()[end] & longTag) == longTag) {
            return false;
        }
        const unsigned int length = bytes.octets()[end + 1];
        const std::size_t more = length < longLength ? 0 : length - longLength;
        framing::Header header;
        if (more > sizeof(std::uint64_t) || !need(end + smallestHeader + more) ||
            framing::readHeader(bytes.octets().data() + end, smallestHeader + more, header) !=
                framing::HeaderState::complete) {
            return false;
        }
        const std::size_t start = end;
        end += header.size;
        if (header.indefinite) {
            ++open;
        } else if (open != 0 && header.isEndOfContents()) {
            --open;
        } else if (header.contentLength > INT_MAX - std::min<std::size_t>(end, INT_MAX) ||
                   (open != 0 && header.contentLength == 0 && header.tag == 0)) {
            return false;
        } else {
            const std::size_t stride = header.size + static_cast<std::size_t>(header.contentLength);
            const std::size_t alike = open != 0 ? bytes.countAlike(start, header) : 1;
            run.add(start, header, alike);
            end = start + alike * stride;
            if (!need(end)) {
                return false;
            }
        }
    } while (open != 0);
    if (end > INT_MAX) {
        return false;
    }
    m_octets = bytes.octets().first(end);
    m_segments = run.longest();
    return true;
}

StructureOctets::StructureOctets(MediaIn& source) {
    if (auto* inMemory = dynamic_cast<BytesInMemory*>(source.operator->())) {
        Lent bytes(*inMemory);
        m_isWhole = frame(bytes);
        if (m_isWhole) {
            m_source = source;
            inMemory->skip(static_cast<unsigned long>(bytes.octets().size()));
        }
        return;
    }
    try {
        Read bytes(source, m_kept);
        m_isWhole = frame(bytes);
    } catch (...) {
        ERR_clear_error();
        throw;
    }
    if (!m_isWhole) {
        m_octets = m_kept.octets();
    }
}

// octetsSource

namespace {

class OctetsInImpl : public MediaInImpl, public BytesInMemory {
public:
    explicit OctetsInImpl(Octets octets) noexcept : m_octets(octets) {}
    using MediaInImpl::read;
    [[nodiscard]] bool atEnd() const override { return m_octets.empty(); }
    [[nodiscard]] int peek() const override { return m_octets.empty() ? -1 : m_octets.front(); }
    int read(unsigned char* out, unsigned int length) override {
        const std::size_t count = std::min<std::size_t>({length, m_octets.size(), INT_MAX});
        if (count != 0) {
            std::memcpy(out, m_octets.data(), count);
        }
        skip(count);
        return static_cast<int>(count);
    }
    [[nodiscard]] const unsigned char* rest() const noexcept override { return m_octets.data(); }
    [[nodiscard]] unsigned long left() const noexcept override { return m_octets.size(); }
    void skip(unsigned long count) noexcept override { m_octets = m_octets.subspan(count); }

private:
    Octets m_octets;
};

class OctetsAndRestInImpl : public MediaInImpl {
public:
    OctetsAndRestInImpl(Octets octets, const MediaIn& rest) : m_octets(octets), m_rest(rest) {}
    using MediaInImpl::read;
    [[nodiscard]] bool atEnd() const override { return m_octets.atEnd() && m_rest.atEnd(); }
    [[nodiscard]] int peek() const override { return m_octets.atEnd() ? m_rest.peek() : m_octets.peek(); }
    int read(unsigned char* out, unsigned int length) override {
        const int count = m_octets.read(out, length);
        return static_cast<unsigned int>(count) == length
                   ? count
                   : count + m_rest.read(out + count, length - static_cast<unsigned int>(count));
    }

private:
    OctetsInImpl m_octets;
    MediaIn m_rest;
};

} // namespace

MediaIn octetsSource(Octets octets) {
    return MediaIn(makeReference<OctetsInImpl, MediaInImpl>(octets));
}

MediaIn octetsSource(Octets octets, MediaIn& rest) {
    return MediaIn(makeReference<OctetsAndRestInImpl, MediaInImpl>(octets, rest));
}

} // namespace Norvane::Crypto::openssl
