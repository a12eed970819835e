#include "AddressItems.h"

#include <utility>

namespace Norvane::Crypto::SMime::mime {

namespace {

/// Behind what is quoted, or behind a comment with those in it; `npos` when it is not closed. \param at where it begins
std::size_t skipQuoted(std::string_view value, std::size_t at) {
    const bool isComment = value[at] == '(';
    std::size_t depth = 1;
    while (++at < value.size()) {
        if (value[at] == '\\')
            ++at;
        else if (isComment && value[at] == '(')
            ++depth;
        else if (value[at] == (isComment ? ')' : '"') && --depth == 0)
            return at + 1;
    }
    return std::string_view::npos;
}

/// What stands between two separators.
class Item {
public:
    /// False when it cannot be an address any more.
    [[nodiscard]] bool take(char c) {
        switch (c) {
        case '<':
            m_signs = 0; // those before stand in the name
            return std::exchange(m_part, Part::angle) == Part::bare;
        case '>':
            return std::exchange(m_part, Part::behind) == Part::angle;
        case '@':
            ++m_signs;
            return m_part == Part::bare || (m_part == Part::angle && m_signs == 1);
        default:
            return true;
        }
    }
    /// How many addresses it is; nothing when that is not clear.
    [[nodiscard]] std::optional<std::size_t> count() const {
        if (m_part == Part::angle || m_signs > 1)
            return std::nullopt;
        return m_signs;
    }

private:
    enum class Part : int { bare, angle, behind };
    Part m_part = Part::bare;
    std::size_t m_signs = 0;
};

} // namespace

std::optional<std::size_t> countAddresses(std::string_view value) {
    std::size_t count = 0;
    Item item;
    bool isLiteral = false; // "[IPv6:::1]"
    for (std::size_t at = 0; at <= value.size(); ++at) {
        const char c = at == value.size() ? ',' : value[at];
        if (c == '(' || c == '"') {
            at = skipQuoted(value, at);
            if (at == std::string_view::npos)
                return std::nullopt;
            --at;
            continue;
        }
        isLiteral = c == '[' || (isLiteral && c != ']' && c != '@' && at < value.size());
        if (!isLiteral && (c == ',' || c == ';' || c == ':')) {
            const std::optional<std::size_t> found = item.count();
            if (!found)
                return std::nullopt;
            count += *found;
            item = Item();
        } else if (!item.take(c)) {
            return std::nullopt;
        }
    }
    return count;
}

} // namespace Norvane::Crypto::SMime::mime
