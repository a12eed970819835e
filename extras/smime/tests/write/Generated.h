#pragma once

// Mails of any length that are nowhere.

#include <norvcmsg/Media.h>

#include <algorithm>
#include <cstdint>
#include <string>

namespace smimetest {

using namespace Norvane;

/// A source that gives `length` bytes of a text attachment behind a header, and knows its position or not.
class GeneratedImpl : public MediaInImpl {
public:
    GeneratedImpl(std::string header, std::uint64_t length, bool returns)
        : m_header(std::move(header)),
          m_length(m_header.size() + length),
          m_returns(returns) {
        for (int column = 0; column < 4096; ++column) {
            m_lines += column % 64 == 63 ? '\n' : static_cast<char>('A' + column % 26);
        }
    }
    using MediaInImpl::read;
    [[nodiscard]] bool atEnd() const override { return m_position == m_length; }
    [[nodiscard]] int peek() const override { return atEnd() ? -1 : 'A'; }
    int read(unsigned char* out, unsigned int length) override {
        unsigned int done = 0;
        while (done < length && !atEnd()) {
            const bool inHeader = m_position < m_header.size();
            const std::string& from = inHeader ? m_header : m_lines;
            const std::size_t at = inHeader ? m_position : (m_position - m_header.size()) % m_lines.size();
            const std::size_t count = std::min<std::uint64_t>({length - done, from.size() - at, m_length - m_position});
            from.copy(reinterpret_cast<char*>(out) + done, count, at);
            done += static_cast<unsigned int>(count);
            m_position += count;
        }
        return static_cast<int>(done);
    }
    [[nodiscard]] unsigned long tell() const override { return m_returns ? m_position : MediaInImpl::tell(); }
    void setpos(unsigned long position) override {
        if (!m_returns) {
            MediaInImpl::setpos(position);
        }
        m_position = position;
    }

private:
    std::string m_header;
    std::uint64_t m_length;
    bool m_returns;
    std::string m_lines;
    std::uint64_t m_position = 0;
};

inline MediaIn generated(std::uint64_t length, bool returns) {
    return MediaIn(makeReference<GeneratedImpl, MediaInImpl>(
        "From: alice@example.com\nContent-Type: application/octet-stream\nContent-Transfer-Encoding: base64\n\n",
        length, returns));
}

} // namespace smimetest
