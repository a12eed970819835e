// Header fields written another way.
#include "diagnosis/Undoing.h"

#include <algorithm>
#include <utility>

namespace Norvane::Crypto::SMime::diagnosis {

namespace {

using Field = std::vector<HeaderLine>;

std::string_view withoutBlanksInFront(std::string_view text) noexcept {
    return text.substr(std::min(text.find_first_not_of(" \t"), text.size()));
}

/// A field on one line. \param between what stands for each line end and the blanks behind it; they stay without
std::string joined(const Field& field, const char* between) {
    std::string text;
    for (const HeaderLine& line : field) {
        if (&line == &field.front()) {
            text = line.octets;
        } else if (between == nullptr) {
            text += line.octets;
        } else {
            text += between;
            text += withoutBlanksInFront(line.octets);
        }
    }
    return text;
}

/// Those of parts that have parameters (RFC 2045, 5.1; RFC 2183, 2): in others a semicolon or "=" is part of the value.
bool hasParameters(const Field& field) {
    const std::string_view name = fieldName(field.front().octets);
    return sameLetters(name, "Content-Type") || sameLetters(name, "Content-Disposition");
}

/// A text cut at those characters outside quotes, which stay at the ends of what is in front of them.
std::vector<std::string> cutAt(std::string_view text, char separator) {
    std::vector<std::string> parts(1);
    bool isQuoted = false;
    for (std::size_t at = 0; at != text.size(); ++at) {
        parts.back() += text[at];
        if (text[at] == '"') {
            isQuoted = !isQuoted;
        } else if (text[at] == '\\' && isQuoted && at + 1 != text.size()) {
            parts.back() += text[++at];
        } else if (text[at] == separator && !isQuoted) {
            parts.emplace_back();
        }
    }
    return parts;
}

enum class Folded : std::uint8_t { each, first, last };

/// \param lead what continued lines begin with
Field folded(const Field& field, Folded which, const char* lead) {
    if (!hasParameters(field)) {
        return field;
    }
    const std::vector<std::string> parts = cutAt(joined(field, " "), ';');
    Field changed{{parts.front(), field.front().end}};
    for (std::size_t at = 1; at != parts.size(); ++at) {
        const bool folds = which == Folded::each || (which == Folded::first && at == 1) ||
                           (which == Folded::last && at + 1 == parts.size());
        if (folds) {
            changed.push_back({lead + std::string(withoutBlanksInFront(parts[at])), field.front().end});
        } else {
            changed.back().octets += parts[at];
        }
    }
    changed.back().end = field.back().end;
    return changed;
}

Field continuedBy(Field field, const char* lead) {
    for (HeaderLine& line : field) {
        if (continues(line.octets)) {
            line.octets = lead + std::string(withoutBlanksInFront(line.octets));
        }
    }
    return field;
}

Field blanksBehindColon(Field field, const char* blanks) {
    std::string& line = field.front().octets;
    const std::size_t colon = line.find(':') + 1;
    const std::string rest(withoutBlanksInFront(std::string_view(line).substr(colon)));
    line.replace(colon, std::string::npos, blanks + rest);
    return field;
}

Field blanksBehindSemicolons(Field field, const char* blanks) {
    if (!hasParameters(field)) {
        return field;
    }
    for (HeaderLine& line : field) {
        std::string text;
        for (const std::string& part : cutAt(line.octets, ';')) {
            const bool isFirst = text.empty();
            const std::string_view rest = isFirst ? std::string_view(part) : withoutBlanksInFront(part);
            text += isFirst || rest.empty() ? "" : blanks;
            text += rest;
        }
        line.octets = text;
    }
    return field;
}

char capitalLetter(char letter) noexcept {
    return letter >= 'a' && letter <= 'z' ? static_cast<char>(letter - 'a' + 'A') : letter;
}

Field named(Field field, HeaderChange change) {
    std::string& line = field.front().octets;
    const std::size_t length = fieldName(line).size();
    std::string name = smallLetters(std::string_view(line).substr(0, length));
    if (change != HeaderChange::smallNames) {
        for (std::size_t at = 0; at != name.size(); ++at) {
            if (at == 0 || (change != HeaderChange::capitalNames && name[at - 1] == '-')) {
                name[at] = capitalLetter(name[at]);
            }
        }
    }
    if (change == HeaderChange::usualNames) {
        if (const std::size_t at = name.find("Mime-"); at != std::string::npos) {
            name.replace(at, 4, "MIME");
        }
        for (const std::string_view usual : {"-ID", "-MD5"}) {
            if (smallLetters(name).ends_with(smallLetters(usual))) {
                name.replace(name.size() - usual.size(), std::string::npos, usual);
            }
        }
    }
    line.replace(0, length, name);
    return field;
}

/// Changes the value of each parameter, without the blanks around it.
template <class Change> Field withValues(Field field, Change change) {
    if (!hasParameters(field)) {
        return field;
    }
    for (HeaderLine& line : field) {
        std::string text;
        for (const std::string& part : cutAt(line.octets, ';')) {
            const std::size_t equals = part.find('=');
            if (equals == std::string::npos) {
                text += part;
                continue;
            }
            const std::size_t end = part.find_last_not_of("; \t") + 1;
            const std::string name = smallLetters(withoutBlanksInFront(part.substr(0, equals)));
            text +=
                part.substr(0, equals + 1) + change(name, part.substr(equals + 1, end - equals - 1)) + part.substr(end);
        }
        line.octets = text;
    }
    return field;
}

std::string quoted(const std::string& /*name*/, const std::string& value) {
    return value.starts_with('"') ? value : '"' + value + '"';
}

std::string unquoted(const std::string& /*name*/, const std::string& value) {
    const bool isQuoted = value.size() > 2 && value.starts_with('"') && value.ends_with('"');
    return isQuoted ? value.substr(1, value.size() - 2) : value;
}

std::string withCapitals(const std::string& name, std::string value) {
    if (name == "charset") {
        std::ranges::transform(value, value.begin(), capitalLetter);
    }
    return value;
}

std::string withSmallLetters(const std::string& name, const std::string& value) {
    return name == "charset" ? smallLetters(value) : value;
}

Field rewritten(const Field& field, HeaderChange change) {
    switch (change) {
    case HeaderChange::unfoldedToOneBlank:
        return {{joined(field, " "), field.back().end}};
    case HeaderChange::unfolded:
        return {{joined(field, nullptr), field.back().end}};
    case HeaderChange::continuedByTab:
        return continuedBy(field, "\t");
    case HeaderChange::continuedByBlank:
        return continuedBy(field, " ");
    case HeaderChange::eachParameterFoldedByTab:
        return folded(field, Folded::each, "\t");
    case HeaderChange::eachParameterFoldedByBlank:
        return folded(field, Folded::each, " ");
    case HeaderChange::firstParameterFoldedByTab:
        return folded(field, Folded::first, "\t");
    case HeaderChange::firstParameterFoldedByBlank:
        return folded(field, Folded::first, " ");
    case HeaderChange::lastParameterFoldedByTab:
        return folded(field, Folded::last, "\t");
    case HeaderChange::lastParameterFoldedByBlank:
        return folded(field, Folded::last, " ");
    case HeaderChange::blankBehindColon:
        return blanksBehindColon(field, " ");
    case HeaderChange::noBlankBehindColon:
        return blanksBehindColon(field, "");
    case HeaderChange::blankBehindSemicolons:
        return blanksBehindSemicolons(field, " ");
    case HeaderChange::noBlankBehindSemicolons:
        return blanksBehindSemicolons(field, "");
    case HeaderChange::usualNames:
    case HeaderChange::capitalWords:
    case HeaderChange::capitalNames:
    case HeaderChange::smallNames:
        return named(field, change);
    case HeaderChange::quoted:
        return withValues(field, quoted);
    case HeaderChange::unquoted:
        return withValues(field, unquoted);
    case HeaderChange::capitalCharacterSet:
        return withValues(field, withCapitals);
    case HeaderChange::smallCharacterSet:
        return withValues(field, withSmallLetters);
    }
    return field;
}

class HeaderRewriting : public Undoing {
public:
    HeaderRewriting(LineOutput& out, HeaderChange change) : Undoing(out), m_change(change) {}

    void header(const std::vector<HeaderLine>& lines, const PartHeader& /*part*/) override {
        Field field;
        for (const HeaderLine& line : lines) {
            if (!continues(line.octets) || withoutBlanksInFront(line.octets).empty()) {
                putField(field);
            }
            field.push_back(line);
        }
        putField(field);
    }

private:
    void putField(Field& field) {
        const bool isField = !field.empty() && !fieldName(field.front().octets).empty();
        for (const HeaderLine& line : isField ? rewritten(field, m_change) : field) {
            put(line);
        }
        field.clear();
    }

    HeaderChange m_change;
};

} // namespace

UndoingPtr rewriteHeaders(LineOutput& out, HeaderChange change) {
    return std::make_unique<HeaderRewriting>(out, change);
}

} // namespace Norvane::Crypto::SMime::diagnosis
