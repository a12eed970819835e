#include "engine/AuthenticationResults.h"

#include "message/Message.h"

#include <norvcrypto-trust/TrustSender.h>

#include <algorithm>
#include <array>
#include <cstdio>

namespace norvmilter {

namespace {

constexpr std::size_t longestText = 300;
constexpr std::size_t longestLine = 76;

/// Printable ASCII alone.
std::string printable(const std::string& text) {
    std::string result;
    for (const char one : text) {
        if (result.size() >= longestText) {
            result += "...";
            break;
        }
        // One blank is as good as many, at which lines could be folded into empty ones.
        if (one == ' ' && result.ends_with(' '))
            continue;
        if (one >= ' ' && one <= '~') {
            result += one;
            continue;
        }
        std::array<char, 5> escaped{};
        std::snprintf(escaped.data(), escaped.size(), "\\x%02X",
                      static_cast<unsigned int>(static_cast<unsigned char>(one)));
        result += escaped.data();
    }
    return result;
}

std::string quoted(const std::string& text) {
    std::string result = "\"";
    for (const char one : printable(text)) {
        if (one == '"' || one == '\\')
            result += '\\';
        result += one;
    }
    return result + '"';
}

bool isLetterOrDigit(char one) {
    return (one >= 'a' && one <= 'z') || (one >= 'A' && one <= 'Z') || (one >= '0' && one <= '9');
}

/// A token of RFC 2045: what may stand without quotes.
bool isTokenCharacter(char one) {
    constexpr std::string_view specials = "()<>@,;:\\\"/[]?=";
    return one > ' ' && one <= '~' && specials.find(one) == std::string_view::npos;
}

/// A value, or an address (RFC 8601, 2.2: pvalue), in quotes where it must.
std::string pvalue(const std::string& text) {
    if (!text.empty() && text.size() <= longestText && std::ranges::all_of(text, isTokenCharacter))
        return text;
    const std::size_t at = text.rfind('@');
    const auto isLocal = [](char one) { return isTokenCharacter(one) && one != '%'; };
    const auto isDomain = [](char one) { return isLetterOrDigit(one) || one == '.' || one == '-'; };
    const bool isAddress = at != std::string::npos && at > 0 && at + 1 < text.size() && text.size() <= longestText &&
                           std::ranges::all_of(text.substr(0, at), isLocal) &&
                           std::ranges::all_of(text.substr(at + 1), isDomain);
    return isAddress ? text : quoted(text);
}

/// Puts pieces together with blanks, a new line where the last one would be too long. A quoted text that is longer than a line
/// is folded at its own blanks, which it keeps.
class Folder {
public:
    explicit Folder(std::size_t column) : m_column(column) {}

    void add(const std::string& piece) {
        if (m_column + 1 + piece.size() <= longestLine) {
            append(" " + piece);
            return;
        }
        fold();
        std::size_t begin = 0;
        while (m_column + piece.size() - begin > longestLine) {
            const std::size_t room = longestLine - m_column;
            std::size_t blank = piece.rfind(' ', begin + room);
            if (blank == std::string::npos || blank <= begin)
                blank = piece.find(' ', begin + 1);
            if (blank == std::string::npos)
                break;
            append(piece.substr(begin, blank - begin));
            // The blank is the one that the new line begins with.
            m_text += '\n';
            m_column = 0;
            begin = blank;
        }
        append(piece.substr(begin));
    }

    [[nodiscard]] const std::string& text() const noexcept { return m_text; }

private:
    void fold() {
        m_text += "\n ";
        m_column = 1;
    }
    void append(const std::string& piece) {
        m_text += piece;
        m_column += piece.size();
    }

    std::string m_text;
    std::size_t m_column;
};

/// Reads a value as RFC 5322 and RFC 2045 have it.
class Scanner {
public:
    explicit Scanner(std::string_view text) : m_text(text) {}

    /// Comments, which lie in one another, and folding white space. False for a comment that does not end.
    bool skipCfws() {
        std::size_t depth = 0;
        for (; m_at < m_text.size(); ++m_at) {
            const char one = m_text[m_at];
            if (one == '(') {
                ++depth;
            } else if (depth > 0) {
                if (one == '\\')
                    ++m_at;
                else if (one == ')')
                    --depth;
            } else if (one != ' ' && one != '\t' && one != '\r' && one != '\n') {
                break;
            }
        }
        return depth == 0;
    }

    std::optional<std::string> value() {
        if (m_at < m_text.size() && m_text[m_at] == '"')
            return quotedString();
        const std::size_t begin = m_at;
        // Beyond ASCII: identifiers with U-labels (RFC 8616).
        while (m_at < m_text.size() &&
               (isTokenCharacter(m_text[m_at]) || static_cast<unsigned char>(m_text[m_at]) >= 0x80))
            ++m_at;
        if (m_at == begin)
            return std::nullopt;
        return std::string(m_text.substr(begin, m_at - begin));
    }

    /// Whether what follows is what stands behind an identifier: perhaps a version, and then results.
    bool isAtResults() {
        if (!skipCfws())
            return false;
        while (m_at < m_text.size() && m_text[m_at] >= '0' && m_text[m_at] <= '9')
            ++m_at;
        return skipCfws() && (m_at >= m_text.size() || m_text[m_at] == ';');
    }

private:
    std::optional<std::string> quotedString() {
        std::string result;
        for (++m_at; m_at < m_text.size(); ++m_at) {
            const char one = m_text[m_at];
            if (one == '"') {
                ++m_at;
                return result;
            }
            if (one == '\\' && m_at + 1 < m_text.size())
                result += m_text[++m_at];
            else if (one != '\r' && one != '\n')
                result += one;
        }
        return std::nullopt;
    }

    std::string_view m_text;
    std::size_t m_at = 0;
};

/// A text without its comments, as far as those end.
std::string withoutComments(std::string_view text) {
    std::string result;
    std::size_t depth = 0;
    for (const char one : text) {
        if (one == '(')
            ++depth;
        else if (one == ')' && depth > 0)
            --depth;
        else if (depth == 0)
            result += one;
    }
    return result;
}

/// Whether a name is in a text, whatever stands between its letters that is in no name.
bool isIn(std::string_view text, const std::string& name, const std::string& comparableName) {
    std::string plain = lowered(text);
    std::erase_if(plain, [](char one) { return !isLetterOrDigit(one) && one != '.' && one != '-' && one >= 0; });
    return plain.find(lowered(name)) != std::string::npos || plain.find(comparableName) != std::string::npos;
}

/// A form in which two identifiers are compared.
std::string comparable(std::string_view identifier) {
    const std::size_t begin = std::min(identifier.find_first_not_of(" \t"), identifier.size());
    identifier = identifier.substr(begin, identifier.find_last_not_of(" \t.") + 1 - begin);
    const std::string asDomain = Norvane::Crypto::Trust::comparableAddress("x@" + std::string(identifier));
    return asDomain.empty() ? lowered(identifier) : asDomain.substr(2);
}

} // namespace

std::string valueOf(const std::string& authservId, const SMimeResult& result) {
    constexpr std::string_view name = "Authentication-Results:";
    Folder folder(name.size());
    // Letters beyond ASCII would be escaped, which would make another identifier.
    const bool isAscii = std::ranges::all_of(authservId, [](char one) { return one >= 0; });
    folder.add(pvalue(isAscii ? authservId : comparable(authservId)) + ";");
    folder.add("smime=" + result.result);
    if (!result.reason.empty())
        folder.add("reason=" + quoted(result.reason));
    const std::array<std::pair<const char*, const std::string*>, 4> properties{{{"part", &result.part},
                                                                                {"identifier", &result.identifier},
                                                                                {"serial", &result.serial},
                                                                                {"issuer", &result.issuer}}};
    for (const auto& [property, value] : properties) {
        if (!value->empty())
            folder.add(std::string("body.smime-") + property + '=' + pvalue(*value));
    }
    return folder.text();
}

std::optional<std::string> authservIdOf(std::string_view value) {
    Scanner scanner(value);
    if (!scanner.skipCfws())
        return std::nullopt;
    std::optional<std::string> identifier = scanner.value();
    if (!identifier || !scanner.isAtResults())
        return std::nullopt;
    return identifier;
}

bool claims(std::string_view value, const std::string& authservId) {
    const std::string ours = comparable(authservId);
    const std::optional<std::string> identifier = authservIdOf(value);
    const std::string theirs = identifier ? comparable(*identifier) : std::string();
    // What is neither ASCII nor a domain may be another one without its blanks, U+00A0 say.
    if (!theirs.empty() && std::ranges::all_of(theirs, [](char one) { return one >= 0; }))
        return theirs == ours;
    // Readers that are more generous may find it where it cannot be found here, or ask for the result alone. Hosts that leave
    // the identifier out write of other methods than this one.
    return lowered(value).find("smime") != std::string::npos || isIn(value, authservId, ours) ||
           isIn(withoutComments(value), authservId, ours);
}

} // namespace norvmilter
