#pragma once

/// \file
/// How the library's streams are fed.

#include "../Bodies.h"
#include "Contest.h"
#include "Material.h"

#include <norvcmsg/Buffer.h>
#include <norvcmsg/Media.h>

#include <cstring>
#include <memory>

namespace bench {

inline Norvane::Buffer bufferOf(const Bytes& bytes) {
    return {bytes.data(), static_cast<unsigned int>(bytes.size()), true};
}

inline void writeBody(Norvane::MediaOut& out, std::size_t size) {
    inPieces(body(size), size, [&](const unsigned char* data, unsigned int length) { out.write(data, length); });
    out.end();
}

/// A stream between a body and a target that counts.
template <class Make> Run writing(std::size_t size, Make make) {
    const auto target = std::make_shared<Norvane::NullMediaOut>();
    return [size, target, make] {
        auto out = make();
        out.attach(*target);
        writeBody(out, size);
    };
}

/// Hands bytes out by copying them, as a source does that cannot lend its memory.
class CopyingIn : public Norvane::MediaInImpl {
public:
    explicit CopyingIn(const Bytes& bytes) : m_bytes(bytes) {}
    [[nodiscard]] bool atEnd() const override { return m_at == m_bytes.size(); }
    [[nodiscard]] int peek() const override { return atEnd() ? -1 : m_bytes[m_at]; }
    using MediaInImpl::read;
    int read(unsigned char* out, unsigned int length) override {
        const std::size_t count = std::min<std::size_t>(length, m_bytes.size() - m_at);
        std::memcpy(out, m_bytes.data() + m_at, count);
        m_at += count;
        return static_cast<int>(count);
    }

private:
    const Bytes& m_bytes;
    std::size_t m_at = 0;
};

inline Norvane::MediaIn copyingFrom(const Bytes& bytes) {
    return Norvane::MediaIn(Norvane::makeReference<CopyingIn, Norvane::MediaInImpl>(bytes));
}

} // namespace bench
