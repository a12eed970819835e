#include "DistinguishedName/Text.h"

#include "openssl/Name.h"

#include <norvcmsg/Strings.h>

#include <cctype>
#include <string_view>

namespace Norvane::Crypto::NVX509 {

namespace {

constexpr std::string_view hexDigits = "0123456789ABCDEF";

/// True when a GeneralString is made of four-byte characters that carry 7-bit text: only every fourth byte is used.
bool isWide(const openssl::NameEntry& entry) {
    if (entry.stringType != V_ASN1_GENERALSTRING || entry.value.size() % 4 != 0) {
        return false;
    }
    for (std::size_t i = 0; i < entry.value.size(); ++i) {
        if (i % 4 != 3 && entry.value[i] != '\0') {
            return false;
        }
    }
    return true;
}

std::string printableValue(const openssl::NameEntry& entry) {
    const bool wide = isWide(entry);
    std::string text;
    for (std::size_t i = wide ? 3 : 0; i < entry.value.size(); i += wide ? 4 : 1) {
        const auto byte = static_cast<unsigned char>(entry.value[i]);
        if (byte >= 0x20 && byte <= 0x7E) {
            text += entry.value[i];
        } else {
            text += {'\\', 'x', hexDigits[byte >> 4U], hexDigits[byte & 0x0FU]};
        }
    }
    return text;
}

Pairs pairsOf(const std::vector<openssl::NameEntry>& entries) {
    Pairs pairs;
    pairs.reserve(entries.size());
    for (const auto& entry : entries) {
        pairs.push_back({entry.type, printableValue(entry)});
    }
    return pairs;
}

/// One pass over a text that splits it at a character, which quotes and backslashes protect.
class Splitter {
public:
    /// \param quoteMayStart whether a quote that starts a token opens quotes; else a token's first character stays
    ///                      unexamined
    Splitter(char separator, bool quoteMayStart) : m_separator(separator), m_quoteMayStart(quoteMayStart) {}

    /// Calls `ended` with each token that a separator ended, then `last` with the one that the end of the text ended,
    /// if any.
    template <class Ended, class Last> void split(std::string_view text, Ended ended, Last last) {
        State state = State::between;
        State resumed = State::between;
        std::size_t start = 0;
        for (std::size_t i = 0; i < text.size(); ++i) {
            const char c = text[i];
            switch (state) {
            case State::between:
                if (c != m_separator && std::isspace(static_cast<unsigned char>(c)) == 0) {
                    start = i;
                    state = c == '"' && m_quoteMayStart ? State::quoted : State::token;
                }
                break;
            case State::token:
                if (c == m_separator) {
                    ended(text.substr(start, i - start));
                    state = State::between;
                    break;
                }
                [[fallthrough]];
            case State::quoted:
                if (c == '"') {
                    state = state == State::token ? State::quoted : State::token;
                } else if (c == '\\') {
                    resumed = state;
                    state = State::escaped;
                }
                break;
            case State::escaped:
                state = resumed;
                break;
            }
        }
        if (state == State::token) {
            last(text.substr(start));
        }
    }

private:
    enum class State : int { between, token, escaped, quoted };
    char m_separator;
    bool m_quoteMayStart;
};

void parseComponent(std::string_view component, Pairs& pairs) {
    RDNPair pair;
    Splitter('=', true).split(
        component,
        [&](std::string_view token) {
            pair.type = stringLeftTrim(stringRightTrim(std::string(token)));
            stringToUpperNoCopy(pair.type);
        },
        [&](std::string_view token) {
            pair.value = stringLeftTrim(stringRightTrim(std::string(token)));
            pairs.push_back(pair);
        });
}

} // namespace

Pairs pairsOf(const X509_name_st* name) {
    return pairsOf(openssl::entriesOf(name));
}

Pairs pairsOf(const stack_st_X509_NAME_ENTRY* entries) {
    return pairsOf(openssl::entriesOf(entries));
}

Pairs parsePairs(const std::string& text) {
    Pairs pairs;
    const auto component = [&](std::string_view token) { parseComponent(token, pairs); };
    Splitter(',', false).split(text, component, component);
    return pairs;
}

std::string printPairs(const Pairs& pairs) {
    std::string text;
    for (auto pair = pairs.rbegin(); pair != pairs.rend(); ++pair) {
        if (pair != pairs.rbegin()) {
            text += ',';
        }
        text.append(pair->type).append(1, '=').append(pair->value);
    }
    return text;
}

} // namespace Norvane::Crypto::NVX509
