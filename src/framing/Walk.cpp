#include "framing/Walk.h"

namespace Norvane::Crypto::framing {

Walk::Walk(const unsigned char* octets, std::size_t length, Opening opening) noexcept
    : m_octets(octets),
      m_length(length),
      m_opening(opening) {}

/// Whether the walk goes into the element whose header was read.
bool Walk::isOpened() const noexcept {
    return m_header.constructed || m_header.is(TagClass::universal, sequence) ||
           m_header.is(TagClass::universal, set) ||
           (m_opening == Opening::contextSpecific && m_header.tagClass == TagClass::contextSpecific);
}

Walk::Step Walk::last(Step step) noexcept {
    m_last = step;
    return step;
}

Walk::Step Walk::close(std::size_t at) noexcept {
    const Open& closing = m_stack[--m_open];
    m_elementSize = at - closing.start;
    m_depth = m_open;
    m_at = at;
    return Step::closed;
}

/// Closes what cannot be read any further: everything up to the innermost element whose end is known, that included.
Walk::Step Walk::abandon() noexcept {
    if (m_open == 0) {
        return last(Step::damaged);
    }
    const Open& closing = m_stack[m_open - 1];
    m_abandoning = closing.indefinite;
    return close(closing.indefinite ? m_at : closing.end);
}

Walk::Step Walk::enter(std::size_t start) noexcept {
    if (m_open == deepest) {
        return last(Step::tooDeep);
    }
    const std::size_t end =
        m_header.indefinite ? limit() : m_contentAt + static_cast<std::size_t>(m_header.contentLength);
    m_stack[m_open] = {start, end, m_header.indefinite};
    m_depth = m_open++;
    m_at = m_contentAt;
    return Step::opened;
}

bool Walk::pass(std::size_t octets) noexcept {
    if (octets > limit() - m_at) {
        return false;
    }
    m_at += octets;
    return true;
}

Walk::Step Walk::next() noexcept {
    if (isLast(m_last)) {
        return m_last;
    }
    if (m_abandoning) {
        return abandon();
    }
    if (m_open == 0 && m_at != 0) {
        return last(Step::finished);
    }
    const bool inside = m_open != 0;
    if (inside && !m_stack[m_open - 1].indefinite && m_at == m_stack[m_open - 1].end) {
        return close(m_at);
    }
    const std::size_t start = m_at;
    const std::size_t left = limit() - start;
    if (readHeader(m_octets + start, left, m_header) != HeaderState::complete ||
        m_header.contentLength > left - m_header.size) {
        return abandon();
    }
    m_contentAt = start + m_header.size;
    if (inside && m_stack[m_open - 1].indefinite && m_header.isEndOfContents()) {
        return close(m_contentAt);
    }
    if (isOpened()) {
        return enter(start);
    }
    prefetchHeader({m_octets + start, left}, m_header);
    m_at = m_contentAt + static_cast<std::size_t>(m_header.contentLength);
    m_depth = m_open;
    m_elementSize = m_at - start;
    return Step::primitive;
}

} // namespace Norvane::Crypto::framing
