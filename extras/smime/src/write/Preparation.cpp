#include "write/Preparation.h"

#include "mime/Limits.h"
#include "mime/Multipart.h"
#include "mime/Transfer.h"
#include "write/BoundedHeader.h"
#include "write/Fail.h"
#include "write/Fields.h"
#include "write/Filters.h"
#include "write/QuotedPrintable.h"

#include <algorithm>

namespace Norvane::Crypto::SMime::writing {

namespace {

[[noreturn]] void failChanged() {
    fail("the message changed while it was read");
}

bool isText(const mime::ContentType& type) {
    return type.type == "text" || type.type == "message" || type.type == "multipart";
}

bool isUsableBoundary(const std::string& boundary) {
    return !boundary.empty() && boundary.size() <= mime::maximumBoundary && boundary.back() != ' ' &&
           std::ranges::all_of(boundary, [](char c) { return c >= ' ' && c <= '~'; });
}

TextTraits traitsOf(std::string_view octets) {
    TextTraits traits;
    traits.see(octets);
    traits.end();
    return traits;
}

/// Lines of a header that are no field, fit to be sent. \throws Exception: they cannot be, and nothing stands for them
std::string sendableLines(std::string_view octets, const std::string& where) {
    std::string text = linesAsTheyStand(octets);
    // A mailbox put it in front of the message (RFC 4155), and would put ">" in front of this one.
    if (text.starts_with("From ") && text.find('\n') + 1 == text.size()) {
        return {};
    }
    text = withoutTrailingBlanks(text);
    if (!traitsOf(text).isRelayProof()) {
        fail(
            "the header of " + where +
            " has a line that is no field and not 7-bit text with short lines: a signature beside it would not survive "
            "its way. Sign the message opaquely");
    }
    return text;
}

/// Why a part must not be changed.
std::string whyItStays(const mime::Header& header, const mime::ContentType& type) {
    if (type.is("multipart", "signed")) {
        return "is signed already";
    }
    if (type.is("multipart", "encrypted")) {
        return "is encrypted already";
    }
    if (mime::transferOf(header) != mime::Transfer::identity) {
        return "has the transfer encoding " + mime::transferWordOf(header);
    }
    return "is a multipart without a proper boundary";
}

/// A Content-Type with the parameter of header protection. \throws Exception: it is not read from there
std::string protectedType(const std::string& field, std::string_view parameter) {
    std::string changed = withParameter(field, parameter);
    mime::MemoryOctets octets(changed);
    mime::Header header;
    static_cast<void>(mime::readHeader(octets, {changed.size(), 1}, header));
    if (mime::contentTypeOf(header).hp.empty()) {
        fail("the Content-Type of the message is not one to which header protection can be added");
    }
    return changed;
}

const char* wordOf(Way way) {
    switch (way) {
    case Way::quoted:
    case Way::quotedAnew:
        return "quoted-printable";
    case Way::base64:
    case Way::base64Exactly:
    case Way::base64Anew:
    case Way::base64Read:
        return "base64";
    case Way::asItIs:
        break;
    }
    return "7bit";
}

MediaOut filterFor(Way way, const MediaOut& target) {
    switch (way) {
    case Way::quoted:
        return canonicalLineEnds(quotedPrintable(target, QuotedFrom::text), LoneReturn::data);
    case Way::quotedAnew:
        return canonicalLineEnds(quotedPrintable(target, QuotedFrom::quoted), LoneReturn::data);
    case Way::base64:
        return canonicalLineEnds(base64Lines(target), LoneReturn::data);
    case Way::base64Exactly:
        return base64Lines(target);
    case Way::base64Anew:
        return base64LinesAnew(target);
    case Way::base64Read:
        return canonicalLineEnds(mime::DecodingMediaOut(base64Lines(target), mime::Transfer::quotedPrintable),
                                 LoneReturn::data);
    case Way::asItIs:
        break;
    }
    return canonicalLineEnds(target, LoneReturn::data);
}

/// Takes all that is left, looks at it, and passes it on where there is a target.
TextTraits taken(mime::Octets& octets, MediaOut* target, QuotedPrintableCheck* check = nullptr) {
    TextTraits traits;
    for (std::string_view piece = octets.view(1); !piece.empty(); piece = octets.view(1)) {
        traits.see(piece);
        if (check != nullptr) {
            check->see(piece);
        }
        if (target != nullptr) {
            put(*target, piece);
        }
        octets.skip(piece.size());
    }
    traits.end();
    if (check != nullptr) {
        check->end();
    }
    if (target != nullptr) {
        target->end();
    }
    return traits;
}

} // namespace

void Preparation::look(const mime::Header& header, const mime::SharedOctets& body) {
    m_parts.clear();
    m_shownTexts = 0;
    m_next = 0;
    m_writing = false;
    walk({header, body, "1", 0, false, true});
}

void Preparation::write(const mime::Header& header, const mime::SharedOctets& body, const MediaOut& target) {
    m_next = 0;
    m_writing = true;
    m_target = target;
    walk({header, body, "1", 0, false, true});
    if (m_next != m_parts.size()) {
        failChanged();
    }
}

void Preparation::put(std::string_view text) {
    if (m_writing) {
        writing::put(m_target, text);
    }
}

std::string Preparation::nameOf(const Entity& entity) {
    return entity.depth == 0 ? "the message" : "the part at " + entity.path;
}

Preparation::Kind Preparation::kindOf(const Entity& entity, const mime::ContentType& type) {
    const bool isIdentity = mime::transferOf(entity.header) == mime::Transfer::identity;
    if (type.type == "multipart") {
        if (type.subtype == "signed" || type.subtype == "encrypted" || !isIdentity ||
            !isUsableBoundary(type.boundary)) {
            return Kind::sealed;
        }
        return Kind::multipart;
    }
    const bool isMessage = type.is("message", "rfc822") || (entity.ofDigest && !entity.header.first("Content-Type"));
    return isMessage && isIdentity ? Kind::message : Kind::leaf;
}

std::size_t Preparation::begin(const Entity& entity) {
    if (m_writing) {
        if (m_next == m_parts.size()) {
            failChanged();
        }
        return m_next++;
    }
    if (m_parts.size() == m_budget.parts) {
        fail("the message has more than " + std::to_string(m_budget.parts) + " parts");
    }
    if (entity.depth > m_budget.depth) {
        fail("the parts of the message lie within one another more than " + std::to_string(m_budget.depth) + " deep");
    }
    m_parts.emplace_back();
    return m_parts.size() - 1;
}

void Preparation::walk(const Entity& entity) {
    const std::size_t number = begin(entity);
    const mime::ContentType type = mime::contentTypeOf(entity.header);
    const Kind kind = kindOf(entity, type);
    if (m_writing) {
        put(headerOf(entity, kind, number));
    } else {
        // What it throws is found before anything is written.
        m_parts[number].eightBitHeader = !traitsOf(headerOf(entity, kind, number)).isSendable();
    }
    switch (kind) {
    case Kind::multipart:
        walkParts(entity, type, number);
        break;
    case Kind::message:
        walkMessage(entity, number);
        break;
    case Kind::leaf:
    case Kind::sealed:
        if (m_writing) {
            writeLeaf(entity, number);
        } else {
            lookAtLeaf(entity, type, kind, number);
        }
        break;
    }
}

void Preparation::walkMessage(const Entity& entity, std::size_t number) {
    mime::Header header;
    readBounded(*entity.body, m_budget, "the message in " + nameOf(entity), header);
    const std::size_t first = m_writing ? 0 : m_parts.size();
    walk({header, entity.body, entity.path + ".1", entity.depth + 1});
    if (!m_writing) {
        m_parts[number].eightBit = m_parts[first].eightBit || m_parts[first].eightBitHeader;
    }
}

void Preparation::walkParts(const Entity& entity, const mime::ContentType& type, std::size_t number) {
    mime::Multipart parts(entity.body, type.boundary);
    // Where nothing but a preamble is there, it is all that readers have.
    const bool hasPreamble = walkFrame(parts.part(), m_parts[number].preamble);
    std::size_t count = 0;
    bool eightBit = false;
    while (parts.next()) {
        if (count != 0 || hasPreamble) {
            put("\r\n");
        }
        put("--" + type.boundary + "\r\n");
        const std::string path = entity.path + '.' + std::to_string(++count);
        mime::Header header;
        readBounded(*parts.part(), m_budget, "the part at " + path, header);
        const std::size_t first = m_writing ? 0 : m_parts.size();
        const bool isShownFirst = entity.isShownFirst && (count == 1 || type.subtype == "alternative");
        walk({header, parts.part(), path, entity.depth + 1, type.subtype == "digest", isShownFirst});
        eightBit = eightBit || (!m_writing && (m_parts[first].eightBit || m_parts[first].eightBitHeader));
    }
    if (count != 0 || parts.isClosed()) {
        if (count != 0 || hasPreamble) {
            put("\r\n");
        }
        put("--" + type.boundary + "--\r\n");
    }
    const bool hasEpilogue = walkFrame(entity.body, m_parts[number].epilogue);
    if (m_writing) {
        return;
    }
    m_parts[number].eightBit = eightBit;
    m_parts[number].preamble = hasPreamble;
    m_parts[number].epilogue = hasEpilogue;
    if (count == 0 && !hasPreamble) {
        if (m_sevenBitAlone) {
            fail(nameOf(entity) + " is a multipart without any part, and not text that can be sent");
        }
        m_parts[number].preamble = true;
        m_parts[number].eightBit = true;
    }
}

/// A preamble or an epilogue. \returns whether it can be sent as it is; while writing, whether it was written
bool Preparation::walkFrame(const mime::SharedOctets& octets, bool kept) {
    if (!m_writing) {
        return taken(*octets, nullptr).isRelayProof();
    }
    bool any = false;
    if (kept) {
        any = !octets->atEnd();
        MediaOut filter = canonicalLineEnds(keptOpen(m_target), LoneReturn::data);
        static_cast<void>(taken(*octets, &filter));
    } else {
        mime::drain(*octets);
    }
    return any;
}

void Preparation::lookAtLeaf(const Entity& entity, const mime::ContentType& type, Kind kind, std::size_t number) {
    QuotedPrintableCheck check;
    const bool isQuoted = mime::transferOf(entity.header) == mime::Transfer::quotedPrintable;
    constexpr std::size_t mostShown = 16;
    const bool isShown = kind == Kind::leaf && entity.isShownFirst && m_shownTexts++ < mostShown;
    const LegacyDisplay legacy = isShown ? legacyDisplayOf(entity.header, type, m_shown) : LegacyDisplay();
    const auto tag = std::make_shared<BodyTag>();
    MediaOut watch = mime::DecodingMediaOut(watching(tag), mime::transferOf(entity.header));
    const TextTraits traits = taken(*entity.body, legacy.isHtml ? &watch : nullptr, isQuoted ? &check : nullptr);
    Part& part = m_parts[number];
    part.traits = traits;
    part.way = kind == Kind::sealed ? Way::asItIs : wayOf(entity, type, traits, check.isWellFormed());
    takeLegacyDisplay(entity, number, legacy,
                      (!legacy.isHtml || tag->isFound()) && (!isQuoted || check.isWellFormed()));
    part.eightBit = part.way == Way::asItIs && !traits.isSendable();
    if (!part.eightBit || !m_sevenBitAlone) {
        return;
    }
    fail(nameOf(entity) + ' ' + whyItStays(entity.header, type) +
         " and is not 7-bit text with short lines: a signature beside it would not survive its way. Sign the message "
         "opaquely");
}

/// Once the way of the text is known: what it begins with is written in the same one. \param isFound there is a place for it
void Preparation::takeLegacyDisplay(const Entity& entity, std::size_t number, const LegacyDisplay& legacy,
                                    bool isFound) {
    Part& part = m_parts[number];
    const bool isOther = legacy.becomesUtf8 && part.traits.eightBit() != 0; // than the ASCII that it says to be
    if (legacy.element.empty() || !isFound || isOther) {
        return;
    }
    const Way before = part.way;
    part.legacy = legacy;
    switch (mime::transferOf(entity.header)) {
    case mime::Transfer::base64:
        part.way = Way::base64Exactly;
        break;
    case mime::Transfer::quotedPrintable:
        part.way = Way::quoted;
        break;
    default:
        part.way = before == Way::asItIs && !traitsOf(legacy.element).isRelayProof() ? Way::quoted : before;
    }
    mime::MemoryOctets octets(headerOf(entity, Kind::leaf, number));
    mime::Header header;
    readBounded(octets, m_budget, nameOf(entity), header);
    if (mime::contentTypeOf(header).hpLegacyDisplay != "1") {
        part.legacy = {};
        part.way = before;
    }
}

Way Preparation::wayOf(const Entity& entity, const mime::ContentType& type, const TextTraits& traits,
                       bool wellQuoted) const {
    switch (mime::transferOf(entity.header)) {
    case mime::Transfer::base64:
        return traits.isRelayProof() ? Way::asItIs : Way::base64Anew;
    case mime::Transfer::quotedPrintable:
        if (traits.isRelayProof() || wellQuoted) {
            return traits.isRelayProof() ? Way::asItIs : Way::quotedAnew;
        }
        // Nobody can tell what its writer meant: the octets stay, or else become what they were to one reader.
        return traits.isSendable() || !m_sevenBitAlone ? Way::asItIs : Way::base64Read;
    case mime::Transfer::unknown:
        return Way::asItIs;
    case mime::Transfer::identity:
        break;
    }
    if (mime::transferWordOf(entity.header) == "binary" && (!isText(type) || traits.zeros() != 0)) {
        return Way::base64Exactly;
    }
    if (traits.isRelayProof()) {
        return Way::asItIs;
    }
    return isText(type) && traits.zeros() == 0 && traits.isMostlyText() ? Way::quoted : Way::base64;
}

void Preparation::writeLeaf(const Entity& entity, std::size_t number) {
    const Part& part = m_parts[number];
    MediaOut filter = filterFor(part.way, keptOpen(m_target));
    if (!part.legacy.element.empty()) {
        filter = mime::DecodingMediaOut(withElement(filter, part.legacy), mime::transferOf(entity.header));
    }
    if (taken(*entity.body, &filter) != part.traits) {
        failChanged();
    }
}

std::string Preparation::headerOf(const Entity& entity, Kind kind, std::size_t number) const {
    const Part& part = m_parts[number];
    const bool isMessage = entity.depth == 0;
    const std::string where = nameOf(entity);
    std::string text;
    if (isMessage) {
        text += m_further;
    }
    const std::string word = mime::transferWordOf(entity.header);
    const bool changesWord =
        part.way != Way::asItIs || ((word == "8bit" || word == "binary") && !part.eightBit && kind != Kind::sealed);
    bool hasType = false;
    for (const mime::Header::Field& field : entity.header.fields()) {
        const std::string_view name = entity.header.nameOf(field);
        const bool isContent = mime::isSameName(name.substr(0, 8), "Content-");
        if (isMessage && !isContent) {
            continue;
        }
        if (name.empty()) {
            const std::string_view octets = entity.header.octetsOf(field);
            text += m_sevenBitAlone ? sendableLines(octets, where) : linesAsTheyStand(octets);
            continue;
        }
        if (changesWord && mime::isSameName(name, "Content-Transfer-Encoding")) {
            continue;
        }
        std::string written = innerField(name, entity.header.valueOf(field), where);
        if (!hasType && !part.legacy.element.empty() && mime::isSameName(name, "Content-Type")) {
            const std::string telling = legacyType(written, part.legacy);
            written = telling.empty() ? written : telling;
        }
        if (isMessage && !hasType && !m_parameter.empty() && mime::isSameName(name, "Content-Type")) {
            written = protectedType(written, m_parameter);
        }
        hasType = hasType || mime::isSameName(name, "Content-Type");
        text += written;
    }
    if ((isMessage || !part.legacy.element.empty()) && !hasType) {
        const char* const charset = part.traits.eightBit() == 0 ? "us-ascii"
                                    : part.traits.isUtf8()      ? "utf-8"
                                                                : "unknown-8bit";
        std::string type = newField("Content-Type", std::string("text/plain; charset=") + charset);
        type = part.legacy.element.empty() ? type : legacyType(type, part.legacy);
        text += !isMessage || m_parameter.empty() ? type : protectedType(type, m_parameter);
    }
    if (changesWord) {
        text += newField("Content-Transfer-Encoding", wordOf(part.way));
    }
    return text + "\r\n";
}

} // namespace Norvane::Crypto::SMime::writing
