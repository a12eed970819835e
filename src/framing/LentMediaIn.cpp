#include "framing/LentMediaIn.h"

#include "framing/Reader.h"

#include <norvcmsg/BytesInMemory.h>

#include <algorithm>

namespace Norvane::Crypto::framing {

namespace {

class LentMediaInImpl : public MediaInImpl, public BytesInMemory {
public:
    explicit LentMediaInImpl(Octets octets) noexcept : m_octets(octets) {}

    using MediaInImpl::read;
    [[nodiscard]] bool atEnd() const override { return m_at == m_octets.size(); }
    [[nodiscard]] int peek() const override { return atEnd() ? -1 : m_octets[m_at]; }
    int read(unsigned char* out, unsigned int length) override {
        const auto count = static_cast<unsigned int>(std::min<std::size_t>(length, m_octets.size() - m_at));
        std::copy_n(m_octets.data() + m_at, count, out);
        m_at += count;
        return static_cast<int>(count);
    }

    [[nodiscard]] const unsigned char* rest() const noexcept override { return m_octets.data() + m_at; }
    [[nodiscard]] unsigned long left() const noexcept override { return m_octets.size() - m_at; }
    void skip(unsigned long count) noexcept override { m_at += count; }

private:
    Octets m_octets;
    std::size_t m_at = 0;
};

} // namespace

LentMediaIn::LentMediaIn(Octets octets) : MediaIn(makeReference<LentMediaInImpl, MediaInImpl>(octets)) {}

LentMediaIn::~LentMediaIn() = default;

Octets octetsOf(const Element& string, std::vector<unsigned char>& storage) {
    if (!string.header.constructed) {
        return string.content;
    }
    Reader reader(LentMediaIn(string.whole));
    storage.clear();
    reader.openString(Segments::strict);
    for (Octets piece = reader.piece(); !piece.empty(); piece = reader.piece()) {
        storage.insert(storage.end(), piece.begin(), piece.end());
    }
    return storage;
}

} // namespace Norvane::Crypto::framing
