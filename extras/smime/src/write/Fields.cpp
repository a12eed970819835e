#include "write/Fields.h"

#include "mime/AddressItems.h"
#include "mime/Gmime.h"
#include "mime/Header.h"
#include "mime/Limits.h"
#include "mime/Values.h"
#include "write/Fail.h"
#include "write/TextTraits.h"

#include <norvcrypto-trust/TrustSender.h>

#include <algorithm>
#include <optional>
#include <vector>

namespace Norvane::Crypto::SMime::writing {

namespace {

constexpr std::size_t ourLine = 78;
/// GMime goes down a level for each group of addresses that it takes to begin within another one.
constexpr std::ptrdiff_t mostGroups = 100;

/// The lines without their ends; a CR elsewhere, and a NUL, are blanks.
std::vector<std::string> linesOf(std::string_view octets) {
    std::vector<std::string> lines;
    while (!octets.empty()) {
        const std::size_t end = std::min(octets.find('\n'), octets.size());
        std::string line(octets.substr(0, end));
        octets.remove_prefix(std::min(end + 1, octets.size()));
        if (line.ends_with('\r')) {
            line.pop_back();
        }
        std::ranges::replace_if(
            line, [](char byte) { return byte == '\r' || byte == '\0'; }, ' ');
        lines.push_back(std::move(line));
    }
    return lines;
}

bool fits(std::string_view line) noexcept {
    return line.size() <= longestSentLine;
}

/// Breaks a line in front of blanks; what has none stays in one.
void fold(std::string_view line, std::string& out) {
    while (line.size() > ourLine) {
        // Not within the blanks of the start: a line of blanks alone ends a header for some.
        const std::size_t from = std::min(line.find_first_not_of(" \t"), line.size());
        const std::size_t blank = line.find_last_of(" \t", ourLine);
        // All blanks go to the next line.
        const std::size_t last = blank == std::string_view::npos ? blank : line.find_last_not_of(" \t", blank);
        const std::size_t at = last == std::string_view::npos ? line.find_first_of(" \t", from) : last + 1;
        if (line.find_first_not_of(" \t", at) == std::string_view::npos) {
            break;
        }
        out.append(line.substr(0, at)).append("\r\n");
        line.remove_prefix(at);
    }
    out.append(line).append("\r\n");
}

std::string joined(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) {
        text.append(line).append("\r\n");
    }
    return text;
}

bool allFit(const std::string& text) {
    return std::ranges::all_of(linesOf(text), fits);
}

/// Nothing of what relays change at the ends of lines, and no line that looks empty to some.
std::vector<std::string> tidied(std::vector<std::string> lines) {
    for (std::string& line : lines) {
        line.erase(line.find_last_not_of(" \t") + 1);
    }
    std::erase(lines, std::string());
    return lines;
}

std::string withCrLf(const char* text) {
    return joined(tidied(linesOf(text)));
}

/// A text without what may come and go when a field is encoded.
std::string bare(std::string text) {
    std::erase_if(text,
                  [](char byte) { return byte == '"' || byte == '\\' || static_cast<unsigned char>(byte) <= ' '; });
    return text;
}

/// Whether a field that GMime encoded still says all of its value: of what it cannot read it leaves parts out.
bool saysAll(const std::string& field, const std::string& name, const std::string& value) {
    const mime::GmimeText decoded(g_mime_utils_header_decode_text(nullptr, field.c_str()));
    return bare(decoded.get()) == bare(name + ':' + value);
}

/// Whether GMime may take a value for addresses: what that costs must not depend on who wrote it.
bool canBeAddresses(const std::string& value) {
    if (std::ranges::count(value, ':') > mostGroups) {
        return false;
    }
    const auto separators = std::ranges::count_if(value, [](char byte) { return byte == ',' || byte == ';'; });
    if (static_cast<std::size_t>(separators) < mime::maximumOthers) {
        return true;
    }
    const std::optional<mime::AddressCount> count = mime::countAddresses(value);
    return count && count->others <= mime::maximumOthers;
}

bool hasParameters(std::string_view name) {
    return mime::isSameName(name, "Content-Type") || mime::isSameName(name, "Content-Disposition");
}

/// Whether GMime may be given a field that has parameters.
bool canBeWritten(const std::string& name, const std::string& value) {
    if (mime::isSameName(name, "Content-Type")) {
        const mime::GmimeObject<GMimeContentType> type(g_mime_content_type_parse(nullptr, value.c_str()));
        return mime::haveShortNames(g_mime_content_type_get_parameters(type.get()));
    }
    const mime::GmimeObject<GMimeContentDisposition> disposition(
        g_mime_content_disposition_parse(nullptr, value.c_str()));
    return mime::haveShortNames(g_mime_content_disposition_get_parameters(disposition.get()));
}

/// The field as GMime writes it: each in the way of its kind. Empty for one that it cannot be given.
std::string encodedByKind(const std::string& name, const std::string& value) {
    if (hasParameters(name) && !canBeWritten(name, value)) {
        return "";
    }
    const mime::GmimeObject<GMimeHeaderList> list(g_mime_header_list_new(nullptr));
    g_mime_header_list_append(list.get(), name.c_str(), value.c_str(), "utf-8");
    const mime::GmimeText text(g_mime_header_list_to_string(list.get(), nullptr));
    return withCrLf(text.get());
}

std::string encodedAsText(const std::string& name, const std::string& value) {
    const mime::GmimeText text(g_mime_utils_header_encode_text(nullptr, value.c_str(), "utf-8"));
    return newField(name, text.get());
}

/// Whether readers still find the parts of a multipart: GMime takes a boundary like "=?utf-8?q?a?=" for an encoded word, and one
/// for all of a text may take the boundary in.
bool keepsParts(const std::string& field, const std::string& name, const std::string& value) {
    const mime::ContentType before = mime::contentTypeOf(readAgain(name + ": " + value + "\r\n"));
    const mime::ContentType after = mime::contentTypeOf(readAgain(field));
    return before.type != "multipart" || (after.text() == before.text() && after.boundary == before.boundary);
}

std::string encoded(const std::string& name, const std::string& value) {
    mime::startGmime();
    const std::string utf8 = asUtf8(value);
    std::string byKind;
    if (hasParameters(name) || canBeAddresses(utf8)) {
        byKind = encodedByKind(name, utf8);
        if (!isSevenBit(byKind) || !allFit(byKind)) {
            byKind.clear();
        }
        if (!byKind.empty() && (hasParameters(name) ? keepsParts(byKind, name, utf8) : saysAll(byKind, name, utf8))) {
            return byKind;
        }
    }
    // Remarks are left out, and domains get another form; words for all of the text may take addresses in.
    const std::string asText = encodedAsText(name, utf8);
    const bool isBetter = !byKind.empty() && addressesOf(asText, name, utf8) == Addresses::lost &&
                          addressesOf(byKind, name, utf8) == Addresses::kept;
    return isBetter ? byKind : asText;
}

} // namespace

bool isSevenBit(std::string_view text) noexcept {
    return std::ranges::none_of(text, [](char byte) { return static_cast<unsigned char>(byte) >= 0x80; });
}

std::string asUtf8(std::string_view bytes) {
    if (g_utf8_validate(bytes.data(), static_cast<gssize>(bytes.size()), nullptr) != 0) {
        return std::string(bytes);
    }
    std::string text;
    for (const char byte : bytes) {
        const auto value = static_cast<unsigned char>(byte);
        if (value < 0x80) {
            text += byte;
        } else {
            text += static_cast<char>(0xc0U | (value >> 6U));
            text += static_cast<char>(0x80U | (value & 0x3fU));
        }
    }
    return text;
}

std::string newField(std::string_view name, std::string_view value) {
    std::string field;
    fold(std::string(name) + ": " + std::string(value), field);
    return field;
}

std::string outerField(std::string_view octets) {
    std::string text;
    for (const std::string& line : linesOf(octets)) {
        if (line.empty()) {
            continue; // a CR at the very end of the message: the header would end here, in front of what is added
        }
        if (fits(line)) {
            text.append(line).append("\r\n");
        } else {
            fold(line, text);
        }
    }
    return text;
}

std::string linesAsTheyStand(std::string_view octets) {
    std::string text;
    while (!octets.empty()) {
        const std::size_t end = std::min(octets.find('\n'), octets.size());
        std::string_view line = octets.substr(0, end);
        octets.remove_prefix(std::min(end + 1, octets.size()));
        line.remove_suffix(line.ends_with('\r') ? 1 : 0);
        if (!line.empty()) { // see `outerField`
            text.append(line).append("\r\n");
        }
    }
    return text;
}

std::string withoutTrailingBlanks(std::string_view lines) {
    std::string text;
    for (std::size_t end = lines.find("\r\n"); end != std::string_view::npos; end = lines.find("\r\n")) {
        const std::string_view line = lines.substr(0, end);
        if (const std::size_t last = line.find_last_not_of(" \t"); last != std::string_view::npos) {
            text.append(line.substr(0, last + 1)).append("\r\n");
        }
        lines.remove_prefix(end + 2);
    }
    return text;
}

std::string innerField(std::string_view name, std::string_view value, const std::string& where) {
    const std::vector<std::string> lines = tidied(linesOf(std::string(name) + ':' + std::string(value)));
    std::string unfolded;
    for (const std::string& line : lines) {
        unfolded += line;
    }
    if (isSevenBit(unfolded) && std::ranges::all_of(lines, fits)) {
        return joined(lines);
    }
    const std::string content =
        unfolded.substr(std::min(unfolded.find_first_not_of(" \t", name.size() + 1), unfolded.size()));
    if (!isSevenBit(unfolded)) {
        std::string field = encoded(std::string(name), content);
        if (!keepsParts(field, std::string(name), asUtf8(content))) {
            fail("the field " + std::string(name) + " of " + where + " cannot be written in 7 bits");
        }
        if (allFit(field)) {
            return field;
        }
    } else if (std::string field = newField(name, content); allFit(field)) {
        return field;
    } else if (hasParameters(name)) {
        std::string split = encoded(std::string(name), content);
        if (allFit(split)) {
            return split;
        }
    }
    fail("the field " + std::string(name) + " of " + where + " has a line of " +
         std::to_string(std::ranges::max(lines, {}, &std::string::size).size()) + " characters that cannot be folded");
}

std::string withParameter(std::string field, std::string_view parameter) {
    field.erase(field.find_last_not_of(" \t\r\n;") + 1);
    return field.append(";\r\n ").append(parameter).append("\r\n");
}

Addresses addressesOf(const std::string& field, const std::string& name, const std::string& value) {
    const mime::Addresses before = mime::addressesOf(readAgain(name + ": " + value + "\r\n"), name);
    if (!before.isReadable || before.mailboxes.empty()) {
        return Addresses::none;
    }
    const mime::Addresses after = mime::addressesOf(readAgain(field), name);
    const bool isKept = after.isReadable && std::ranges::equal(before.mailboxes, after.mailboxes, {},
                                                               Trust::comparableAddress, Trust::comparableAddress);
    return isKept ? Addresses::kept : Addresses::lost;
}

mime::Header readAgain(const std::string& field) {
    mime::MemoryOctets octets(field);
    mime::Header header;
    static_cast<void>(mime::readHeader(octets, {field.size()}, header));
    return header;
}

} // namespace Norvane::Crypto::SMime::writing
