#include "files/RepeatableBody.h"
#include "files/Spill.h"

#include <norvcmsg/Exception.h>

#include <vector>

namespace norvcrypt {

namespace {

std::optional<unsigned long> positionOf(const Norvane::MediaIn& in) {
    try {
        return in.tell();
    } catch (const Norvane::Exception&) {
        return std::nullopt; // a pipe
    }
}

} // namespace

RepeatableBody::RepeatableBody(Inputs& inputs, const std::string& path, std::uint64_t longest, Progress* progress)
    : m_in(inputs.open(path, progress)),
      m_longest(longest),
      m_begin(positionOf(m_in)) {
    if (!m_begin)
        m_kept.emplace(emptySpill());
}

void RepeatableBody::write(Norvane::MediaOut& target) {
    if (m_begin) {
        m_in.write(target);
        return;
    }
    std::vector<unsigned char> piece(65536);
    for (int count = 0; (count = m_in.read(piece.data(), static_cast<unsigned int>(piece.size()))) > 0;) {
        target.write(piece.data(), static_cast<unsigned int>(count));
        if (m_kept)
            m_kept->write(piece.data(), static_cast<unsigned int>(count));
        if (m_kept && m_kept->length() > m_longest)
            m_kept.reset();
    }
}

Norvane::MediaIn RepeatableBody::again() {
    if (m_kept)
        return m_kept->in();
    m_in.setpos(*m_begin);
    return m_in;
}

} // namespace norvcrypt
