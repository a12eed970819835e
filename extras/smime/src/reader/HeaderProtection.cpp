// Which header fields the layers around the content cover (RFC 9788; RFC 8551, 3.1), and the header of what is handed on.

#include "Session.h"

#include <algorithm>
#include <map>

namespace Norvane::Crypto::SMime {

using mime::Header;
using mime::lowered;

namespace {

constexpr std::size_t maximumOutsideOnly = 100;

/// A value for people and for comparison: relays fold lines anew, and encode words in another way.
std::string comparable(const std::string& value) {
    const std::string text = mime::decodedText(value);
    std::string result;
    for (const char c : text) {
        const bool isBlank = c == ' ' || c == '\t';
        if (!isBlank)
            result += c;
        else if (!result.empty() && result.back() != ' ')
            result += ' ';
    }
    return result;
}

/// The values of fields by name, each name's in their order.
using Values = std::map<std::string, std::vector<std::string>>;

Values valuesOf(const Header& header) {
    Values values;
    for (const Header::Field& field : header.fields())
        values[lowered(header.nameOf(field))].push_back(comparable(header.unfolded(field)));
    return values;
}

/// What the sender put outside, as HP-Outer says (RFC 9788, 2.2).
Values announced(const Header& inner) {
    Values values;
    for (const std::string& value : inner.all("HP-Outer")) {
        const std::size_t colon = value.find(':');
        if (colon == std::string::npos)
            continue;
        const std::size_t begin = value.find_first_not_of(" \t", colon + 1);
        values[lowered(value.substr(0, value.find_last_not_of(" \t", colon - 1) + 1))].push_back(
            begin == std::string::npos ? std::string() : comparable(value.substr(begin)));
    }
    return values;
}

std::optional<std::string> at(const Values& values, const std::string& name, std::size_t index) {
    const auto found = values.find(name);
    if (found == values.end() || index >= found->second.size())
        return std::nullopt;
    return found->second[index];
}

bool isProtected(std::string_view name) {
    return !name.empty() && !isStructural(name) && !mime::isSameName(name, "HP-Outer");
}

FieldState stateOf(const std::string& inside, const std::optional<std::string>& outside,
                   const std::optional<std::string>& expected) {
    if (outside == inside)
        return FieldState::same;
    if (outside == expected)
        return FieldState::obscured;
    return outside ? FieldState::differs : FieldState::missing;
}

/// The lines of those who leave NUL bytes and the blanks at the start of a header out, and end lines at a CR.
/// \param visit is given a line, and whether it is the last one
template <class Visit> void eachLineOfOthers(const Header& header, Visit visit) {
    mime::WipedText octets(header.octets());
    std::erase(octets, '\0');
    for (std::size_t begin = octets.find_first_not_of(" \t"); begin < octets.size();) {
        const std::size_t end = std::min(octets.find_first_of("\r\n", begin), octets.size());
        const std::string_view behind = std::string_view(octets).substr(end);
        const std::size_t next = end + (behind.starts_with("\r\n") ? 2 : 1);
        visit(std::string_view(octets).substr(begin, end - begin), next >= octets.size());
        begin = next;
    }
}

/// Whether they find more fields of a name than there are.
bool hasHidden(const Header& header, std::string_view wanted) {
    std::size_t found = 0;
    eachLineOfOthers(header, [&](std::string_view line, bool /*isLast*/) {
        const std::string_view name = line.substr(0, line.find(':'));
        const bool isWanted =
            name.size() < line.size() && mime::isSameName(name.substr(0, name.find_last_not_of(" \t") + 1), wanted);
        found += isWanted ? 1 : 0;
    });
    return found > header.count(wanted);
}

/// Whether a line is there that is no field, at which many begin the body. That of a mailbox file is known to all.
bool hasOtherLines(const Header& header) {
    const auto isOther = [&](const Header::Field& field) {
        const bool isOfMailbox = field.begin == 0 && header.octetsOf(field).starts_with("From ");
        return header.nameOf(field).empty() && !isOfMailbox;
    };
    return std::ranges::any_of(header.fields(), isOther);
}

/// A field with line ends like those of the header that it goes to.
mime::WipedText withLineEnds(std::string_view field, bool isCrLf) {
    mime::WipedText result;
    result.reserve(field.size() + 2);
    for (std::size_t index = 0; index < field.size(); ++index) {
        const bool isLineEnd = field[index] == '\r' && index + 1 < field.size() && field[index + 1] == '\n';
        if (isLineEnd)
            continue;
        if (field[index] == '\n' && isCrLf)
            result += '\r';
        result += field[index];
    }
    if (result.empty() || result.back() != '\n')
        result += isCrLf ? "\r\n" : "\n";
    return result;
}

} // namespace

bool isStructural(std::string_view name) {
    constexpr std::string_view prefix = "Content-";
    return mime::isSameName(name.substr(0, prefix.size()), prefix) || mime::isSameName(name, "MIME-Version");
}

std::string ambiguousLineIn(const Header& header) {
    if (hasHidden(header, "Content-Type"))
        return "a line that others may take for a Content-Type";
    bool endsEarly = hasOtherLines(header);
    eachLineOfOthers(header,
                     [&](std::string_view line, bool isLast) { endsEarly = endsEarly || (line.empty() && !isLast); });
    return endsEarly ? "a line that others may take for the end of the header" : "";
}

Senders sendersIn(const Header& header) {
    Senders result;
    const auto collect = [&](std::string_view name, std::vector<std::string>& into) {
        const mime::Addresses addresses = mime::addressesOf(header, name);
        into = addresses.mailboxes;
        // What cannot be read is compared with the signer, too, and fits nobody: these words are no address.
        if (!addresses.isReadable)
            into.push_back("not readable: " + comparable(header.first(name).value_or("")).substr(0, 100));
    };
    collect("From", result.from);
    if (hasHidden(header, "From"))
        result.from.emplace_back("not readable: a line that others may take for a From");
    collect("Sender", result.sender);
    return result;
}

HeaderProtection compareHeaders(const Header& inner, HeaderScheme scheme, const Header& outer) {
    HeaderProtection result;
    result.scheme = scheme;
    if (scheme == HeaderScheme::none)
        return result;
    const Values outside = valuesOf(outer);
    const Values said = announced(inner);
    const bool isSaid = scheme == HeaderScheme::cipher || !said.empty();
    std::map<std::string, std::size_t> seen;
    for (const Header::Field& field : inner.fields()) {
        const std::string_view spelled = inner.nameOf(field);
        if (!isProtected(spelled))
            continue;
        const std::string name = lowered(spelled);
        const std::size_t index = seen[name]++;
        ProtectedField found;
        found.name = spelled;
        found.value = comparable(inner.unfolded(field));
        found.outside = at(outside, name, index);
        found.state = stateOf(found.value, found.outside,
                              isSaid ? at(said, name, index) : std::optional<std::string>(found.value));
        result.fields.push_back(std::move(found));
    }
    for (const auto& [name, values] : outside) {
        if (isProtected(name) && seen.count(name) == 0 && result.outsideOnly.size() < maximumOutsideOnly)
            result.outsideOnly.push_back(name);
    }
    return result;
}

void writeHeader(Session& session, const Header& covered, HeaderScheme scheme, const Header& entity) {
    if (!session.options.wholeMessage) {
        mime::put(session.content, entity.octets());
        return;
    }
    const bool isCrLf = entity.endsLinesInCrLf();
    const Values inside = valuesOf(covered);
    mime::WipedText fields;
    for (const Header::Field& field : session.outer.fields()) {
        const std::string_view name = session.outer.nameOf(field);
        const bool isReplaced = scheme != HeaderScheme::none && inside.count(lowered(name)) > 0;
        if (isProtected(name) && !isReplaced)
            fields += withLineEnds(session.outer.octetsOf(field), isCrLf);
    }
    const bool isEntity = &covered == &entity;
    for (const Header::Field& field : covered.fields()) {
        const std::string_view name = covered.nameOf(field);
        if ((isEntity && isStructural(name)) || (scheme != HeaderScheme::none && isProtected(name)))
            fields += withLineEnds(covered.octetsOf(field), isCrLf);
    }
    for (const Header::Field& field : entity.fields()) {
        if (!isEntity && isStructural(entity.nameOf(field)))
            fields += withLineEnds(entity.octetsOf(field), isCrLf);
    }
    if (entity.count("MIME-Version") == 0)
        fields += withLineEnds("MIME-Version: 1.0", isCrLf);
    mime::put(session.content, fields);
    mime::put(session.content, isCrLf ? "\r\n" : "\n");
}

} // namespace Norvane::Crypto::SMime
