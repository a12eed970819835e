#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace Norvane::Crypto::SMime::writing {

/// A boundary for a multipart: "=_", which no quoted-printable and no base64 text has, and 160 random bits, which nobody can
/// have written before.
/// \throws Exception: there are no random bytes
std::string newBoundary();

/// Looks whether one of several boundaries, or the beginning of a longer one, stands in what goes by. Lines end with LF or
/// CRLF; a piece may end anywhere.
class BoundaryWatch {
public:
    explicit BoundaryWatch(const std::vector<std::string>& boundaries);
    void see(std::string_view piece);
    [[nodiscard]] bool found() const noexcept { return m_found; }

private:
    std::vector<std::string> m_lines; ///< the boundaries with their "--"
    std::string m_start;              ///< of the line, as long as it may be a boundary
    bool m_skipping = false;
    bool m_found = false;
};

} // namespace Norvane::Crypto::SMime::writing
