#include "AddressItems.h"

#include "Header.h"

#include <string>
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

/// An address as it stands, without the blanks and the apostrophes that some put around it.
std::string comparable(std::string_view text) {
    std::string result;
    for (const char c : text) {
        if (c != ' ' && c != '\t' && c != '\r' && c != '\n')
            result += lowered(c);
    }
    constexpr char apostrophe = '\'';
    const bool isBetween = result.size() > 1 && result.front() == apostrophe && result.back() == apostrophe;
    return isBetween ? result.substr(1, result.size() - 2) : result;
}

/// What stands between two separators.
class Item {
public:
    /// False when it cannot be an address any more.
    [[nodiscard]] bool take(char c) {
        switch (c) {
        case '<':
            m_nameSigns = std::exchange(m_signs, 0);
            return std::exchange(m_part, Part::angle) == Part::bare;
        case '>':
            return std::exchange(m_part, Part::behind) == Part::angle &&
                   (m_nameSigns == 0 || comparable(m_name) == comparable(m_angle));
        case '@':
            ++m_signs;
            takeText("@");
            return m_part == Part::bare || (m_part == Part::angle && m_signs == 1);
        default:
            takeText({&c, 1});
            return true;
        }
    }
    /// What is quoted.
    void takeText(std::string_view text) { (m_part == Part::bare ? m_name : m_angle) += text; }
    [[nodiscard]] bool hasText() const { return !comparable(m_name).empty() || !comparable(m_angle).empty(); }
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
    std::size_t m_nameSigns = 0;
    std::string m_name; ///< the address itself where there are no brackets
    std::string m_angle;
};

} // namespace

std::optional<AddressCount> countAddresses(std::string_view value) {
    AddressCount count;
    Item item;
    bool isLiteral = false; // "[IPv6:::1]"
    for (std::size_t at = 0; at <= value.size(); ++at) {
        const char c = at == value.size() ? ',' : value[at];
        if (c == '(' || c == '"') {
            const std::size_t end = skipQuoted(value, at);
            if (end == std::string_view::npos)
                return std::nullopt;
            if (c == '"')
                item.takeText(value.substr(at, end - at));
            at = end - 1;
            continue;
        }
        isLiteral = c == '[' || (isLiteral && c != ']' && c != '@' && at < value.size());
        if (!isLiteral && (c == ',' || c == ';' || c == ':')) {
            const std::optional<std::size_t> found = item.count();
            if (!found)
                return std::nullopt;
            count.addresses += *found;
            count.others += *found == 0 && c != ':' && item.hasText() ? 1 : 0;
            item = Item();
        } else if (!item.take(c)) {
            return std::nullopt;
        }
    }
    return count;
}

} // namespace Norvane::Crypto::SMime::mime
