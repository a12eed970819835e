#include "write/Boundary.h"

#include "mime/Lines.h"
#include "write/Fail.h"

#include <openssl/rand.h>

#include <algorithm>
#include <array>

namespace Norvane::Crypto::SMime::writing {

std::string newBoundary() {
    constexpr std::string_view letters = "abcdefghijklmnopqrstuvwxyz234567";
    std::array<unsigned char, 32> bytes{};
    if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1) {
        fail("there are no random bytes for a boundary");
    }
    std::string boundary = "=_";
    for (const unsigned char byte : bytes) {
        boundary += letters[byte % letters.size()];
    }
    return boundary;
}

BoundaryWatch::BoundaryWatch(const std::vector<std::string>& boundaries) {
    for (const std::string& boundary : boundaries) {
        m_lines.push_back("--" + boundary);
    }
}

void BoundaryWatch::see(std::string_view piece) {
    while (!piece.empty()) {
        if (m_skipping) {
            // All of them begin with a hyphen.
            const std::size_t end = mime::findLineStart(piece, '-');
            if (end == std::string_view::npos) {
                m_skipping = !piece.ends_with('\n');
                return;
            }
            piece.remove_prefix(end + 1);
            m_skipping = false;
            continue;
        }
        const char byte = piece.front();
        piece.remove_prefix(1);
        m_start += byte;
        const auto begins = [this](const std::string& line) { return line.starts_with(m_start); };
        const auto may = std::ranges::find_if(m_lines, begins);
        if (may != m_lines.end() && m_start.size() < may->size()) {
            continue;
        }
        m_found = m_found || may != m_lines.end();
        m_start.clear();
        m_skipping = byte != '\n';
    }
}

} // namespace Norvane::Crypto::SMime::writing
