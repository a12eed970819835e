#include "write/Preparation.h"

#include "mime/Limits.h"
#include "mime/Multipart.h"
#include "mime/Transfer.h"
#include "write/BoundedHeader.h"
#include "write/Fail.h"
#include "write/Fields.h"
#include "write/Filters.h"
#include "write/QuotedPrintable.h"
#include "write/Taken.h"

#include <algorithm>

namespace Norvane::Crypto::SMime::writing {

namespace {

bool isText(const mime::ContentType& type) {
    return type.type == "text" || type.type == "message" || type.type == "multipart";
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

/// Whether readers take the body for fields or a piece of a message as it stands: other encodings are forbidden (RFC 2045, 6.4;
/// RFC 3464, 2.1; RFC 8098, 3.1; RFC 5965, 3), but for the kinds of RFC 6532 and RFC 6533.
bool isReadAsItStands(const mime::ContentType& type) {
    return type.type == "message" && !type.subtype.starts_with("global");
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
    if (mime::contentTypeOf(readAgain(changed)).hp.empty()) {
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

} // namespace

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
    if (traits.isRelayProof() || (traits.isSendable() && isReadAsItStands(type))) {
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
