#include "Values.h"

#include "AddressItems.h"
#include "Gmime.h"

#include <norvcmsg/EmailAddress.h>

#include <algorithm>

namespace Norvane::Crypto::SMime::mime {

namespace {

std::string textOf(const char* text) {
    return text == nullptr ? "" : text;
}

/// The options under which unquoted values with blanks and signs are read as their senders meant them. All that is read here is
/// read under them, so this starts the library.
GmimeOptions lenient() {
    startGmime();
    GmimeOptions options(g_mime_parser_options_new());
    g_mime_parser_options_set_parameter_compliance_mode(options.get(), GMIME_RFC_COMPLIANCE_LOOSE);
    g_mime_parser_options_set_address_compliance_mode(options.get(), GMIME_RFC_COMPLIANCE_LOOSE);
    return options;
}

/// The parameters by name; the first one counts where one stands twice.
class Parameters {
public:
    explicit Parameters(GMimeParamList* list) : m_list(list) {}
    [[nodiscard]] std::string find(const char* name) const {
        GMimeParam* found = at(name);
        return textOf(found == nullptr ? nullptr : g_mime_param_get_value(found));
    }
    /// Whether two of them may be read as one or the other.
    [[nodiscard]] bool stands(const char* name) const { return at(name) != nullptr; }
    [[nodiscard]] int count(const char* name) const {
        int count = 0;
        for (int index = 0; index < g_mime_param_list_length(m_list); ++index) {
            if (isSameName(g_mime_param_get_name(g_mime_param_list_get_parameter_at(m_list, index)), name))
                ++count;
        }
        return count;
    }

private:
    [[nodiscard]] GMimeParam* at(const char* name) const {
        for (int index = 0; index < g_mime_param_list_length(m_list); ++index) {
            GMimeParam* parameter = g_mime_param_list_get_parameter_at(m_list, index);
            if (isSameName(g_mime_param_get_name(parameter), name))
                return parameter;
        }
        return nullptr;
    }

    GMimeParamList* m_list;
};

/// The value with a blank for each octet that is quoted or stands in a comment (RFC 822, 3.4.3): what signs are left in it stand
/// between parameters and in their names.
std::string bareOf(const std::string& value) {
    std::string bare = value;
    std::size_t comments = 0;
    bool isQuoted = false;
    char before = ' ';
    for (char& c : bare) {
        const char sign = before == '\\' ? ' ' : c; // what is escaped is none
        const bool wasBare = comments == 0 && !isQuoted;
        if (sign == '"' && comments == 0)
            isQuoted = !isQuoted;
        else if (!isQuoted && sign == '(')
            ++comments;
        else if (!isQuoted && sign == ')' && comments > 0)
            --comments;
        c = wasBare && comments == 0 && !isQuoted ? sign : ' ';
        before = sign;
    }
    return bare;
}

/// RFC 2231, 3: the segments of a value stand in any order. The library takes the character set from the one that it meets
/// first, which has to be the one that names it, "name*0*".
std::string withFirstSegmentsFirst(const std::string& value) {
    const std::string bare = bareOf(value);
    const std::size_t type = std::min(bare.find(';'), bare.size());
    std::string first;
    std::string others;
    bool hasSegments = false;
    bool isOutOfOrder = false;
    for (std::size_t at = type; at < value.size();) {
        const std::size_t end = std::min(bare.find(';', at + 1), bare.size());
        std::string_view name = std::string_view(bare).substr(at, end - at);
        name = name.substr(0, name.find('='));
        name = name.substr(0, name.find_last_not_of(" \t") + 1);
        const bool isFirst = name.ends_with("*0*");
        isOutOfOrder = isOutOfOrder || (isFirst && hasSegments);
        hasSegments = hasSegments || (!isFirst && name.find('*') != std::string_view::npos);
        (isFirst ? first : others).append(value, at, end - at);
        at = end;
    }
    return isOutOfOrder ? value.substr(0, type) + first + others : value;
}

/// The boundary, which is compared with bytes: an encoded word in it is none.
std::string boundaryOf(const std::string& value) {
    // Stands for the "?" of "=?", and nowhere else.
    char shield = '\x01';
    while (shield != '\t' && value.find(shield) != std::string::npos)
        ++shield;
    if (shield == '\t')
        return {};
    std::string shielded = value;
    for (std::size_t at = shielded.find("=?"); at != std::string::npos; at = shielded.find("=?", at))
        shielded[at + 1] = shield;
    const GmimeObject<GMimeContentType> parsed(g_mime_content_type_parse(lenient().get(), shielded.c_str()));
    std::string boundary = Parameters(g_mime_content_type_get_parameters(parsed.get())).find("boundary");
    std::ranges::replace(boundary, shield, '?');
    return boundary;
}

std::string_view trimmed(std::string_view text) {
    const std::size_t begin = std::min(text.find_first_not_of(" \t"), text.size());
    return text.substr(begin, text.find_last_not_of(" \t") + 1 - begin);
}

/// Whether the parameter stands once in the value, in one piece, and is a word or quoted, with nothing that is escaped or may be
/// taken for an encoded word. Of "a b" some read "a", of "a\b" with its backslash, and of pieces (RFC 2231) the first one.
bool isPlain(const std::string& boundary, const std::string& value) {
    constexpr std::string_view name = "boundary";
    const std::string bare = bareOf(value);
    const std::string words = lowered(value);
    const std::size_t at = words.find(name);
    if (at == std::string::npos || bare[at] == ' ') // quoted, or in a comment
        return false;
    const std::size_t begin = bare.find_last_of(';', at);
    const std::size_t end = std::min(bare.find(';', at), value.size());
    const std::size_t sign = value.find('=', at);
    if (begin == std::string::npos || sign >= end || words.find(name, end) != std::string::npos ||
        trimmed(std::string_view(words).substr(begin + 1, sign - begin - 1)) != name)
        return false;
    std::string_view text = trimmed(std::string_view(value).substr(sign + 1, end - sign - 1));
    const bool isQuoted = text.size() > 1 && text.front() == '"' && text.back() == '"';
    if (isQuoted)
        text = text.substr(1, text.size() - 2);
    const std::string_view others = isQuoted ? "\"\\" : "\"\\ \t()<>@,[]";
    return text == boundary && text.find_first_of(others) == std::string_view::npos && !text.ends_with(' ') &&
           text.find("=?") == std::string_view::npos;
}

bool isUsable(const std::string& value) {
    return value.size() <= maximumValue && value.find('\0') == std::string::npos;
}

/// What is wrong with the fields of this name.
std::string oddityOf(const Header& header, std::string_view name) {
    if (header.count(name) > 1)
        return std::string(name) + " stands there twice";
    const std::string value = header.first(name).value_or("");
    if (value.size() > maximumValue)
        return std::string(name) + " is longer than " + std::to_string(maximumValue) + " bytes";
    return value.find('\0') == std::string::npos ? std::string() : "a NUL byte in " + std::string(name);
}

/// Whether there are octets that end an address for one reader and not for another: of "a@example.co", form feed, "m".
bool hasControls(const std::string& value) {
    return std::ranges::any_of(value, [](char c) {
        return (c >= 0 && c < ' ' && c != '\t' && c != '\r') || c == '\x7f'; // a CR is left of a line that has two
    });
}

/// Adds the mailboxes of a list, groups taken apart. False beyond the limit, and for what is no address.
bool collect(InternetAddressList* list, const std::string& value, std::vector<std::string>& mailboxes) {
    for (int index = 0; index < internet_address_list_length(list); ++index) {
        InternetAddress* address = internet_address_list_get_address(list, index);
        if (INTERNET_ADDRESS_IS_GROUP(address) != 0) {
            if (!collect(internet_address_group_get_members(INTERNET_ADDRESS_GROUP(address)), value, mailboxes))
                return false;
            continue;
        }
        const char* found = internet_address_mailbox_get_addr(INTERNET_ADDRESS_MAILBOX(address));
        const std::string mailbox = found == nullptr ? "" : found;
        const EmailAddress checked = EmailAddress::rfc5321Parse(mailbox, true);
        // "a@b@c": the library stops at the second "@", and a person reads on.
        const std::size_t at = value.find(mailbox + '@');
        if (checked.isNull() || checked.isEmptyAddress() || at != std::string::npos ||
            mailboxes.size() == maximumAddresses)
            return false;
        mailboxes.push_back(mailbox);
    }
    return true;
}

} // namespace

ContentType contentTypeOf(const Header& header) {
    ContentType result;
    const std::optional<std::string> value = header.first("Content-Type");
    if (!value)
        return result;
    result.type = "application";
    result.subtype = "octet-stream";
    result.oddity = oddityOf(header, "Content-Type");
    if (!isUsable(*value))
        return result;
    const std::string inOrder = withFirstSegmentsFirst(*value);
    const GmimeObject<GMimeContentType> parsed(g_mime_content_type_parse(lenient().get(), inOrder.c_str()));
    if (!parsed)
        return result;
    result.type = lowered(textOf(g_mime_content_type_get_media_type(parsed.get())));
    result.subtype = lowered(textOf(g_mime_content_type_get_media_subtype(parsed.get())));
    const Parameters parameters(g_mime_content_type_get_parameters(parsed.get()));
    if (parameters.stands("boundary"))
        result.boundary = boundaryOf(inOrder);
    result.isBoundaryPlain = isPlain(result.boundary, *value);
    if (parameters.count("boundary") > 1 && result.oddity.empty())
        result.oddity = "the parameter boundary stands there twice";
    result.protocol = lowered(parameters.find("protocol"));
    result.micalg = lowered(parameters.find("micalg"));
    result.characterSet = lowered(parameters.find("charset"));
    result.smimeType = lowered(parameters.find("smime-type"));
    result.name = parameters.find("name");
    result.hp = lowered(parameters.find("hp"));
    result.hpLegacyDisplay = parameters.find("hp-legacy-display");
    result.protectedHeaders = lowered(parameters.find("protected-headers"));
    result.forwarded = lowered(parameters.find("forwarded"));
    return result;
}

std::string fileNameOf(const Header& header, const ContentType& type) {
    const std::string value = header.first("Content-Disposition").value_or("");
    if (value.empty() || !isUsable(value))
        return type.name;
    const GmimeObject<GMimeContentDisposition> parsed(
        g_mime_content_disposition_parse(lenient().get(), withFirstSegmentsFirst(value).c_str()));
    if (!parsed)
        return type.name;
    const std::string name = Parameters(g_mime_content_disposition_get_parameters(parsed.get())).find("filename");
    return name.empty() ? type.name : name;
}

std::string transferWordOf(const Header& header) {
    std::string value = lowered(header.first("Content-Transfer-Encoding").value_or(""));
    value.erase(std::min(value.find_first_of(" \t;("), value.size()));
    return value;
}

Transfer transferOf(const Header& header) {
    const std::string value = transferWordOf(header);
    if (value.empty())
        return Transfer::identity;
    startGmime(); // as all calls of it ask for
    switch (g_mime_content_encoding_from_string(value.c_str())) {
    case GMIME_CONTENT_ENCODING_7BIT:
    case GMIME_CONTENT_ENCODING_8BIT:
    case GMIME_CONTENT_ENCODING_BINARY:
        return Transfer::identity;
    case GMIME_CONTENT_ENCODING_BASE64:
        return Transfer::base64;
    case GMIME_CONTENT_ENCODING_QUOTEDPRINTABLE:
        return Transfer::quotedPrintable;
    default:
        return Transfer::unknown;
    }
}

Addresses addressesOf(const Header& header, std::string_view name) {
    Addresses result;
    std::size_t signs = 0;
    for (const std::string& value : header.all(name)) {
        if (!isUsable(value) || hasControls(value)) {
            result.isReadable = false;
            continue;
        }
        // It makes objects of all that stand there, in each message that is forwarded, and goes through what is left of the
        // value for each word that is no address.
        signs += static_cast<std::size_t>(std::ranges::count_if(
            value, [](char c) { return std::string_view(",;<@").find(c) != std::string_view::npos; }));
        if (signs > maximumSigns) {
            result.isReadable = false;
            continue;
        }
        // The library calls itself for each group within a group, as deep as a stranger likes.
        if (std::ranges::count(value, ':') > static_cast<std::ptrdiff_t>(maximumAddresses)) {
            result.isReadable = false;
            continue;
        }
        const GmimeObject<InternetAddressList> list(internet_address_list_parse(lenient().get(), value.c_str()));
        const std::size_t before = result.mailboxes.size();
        const std::optional<AddressCount> count = countAddresses(value);
        if (!list || !collect(list.get(), value, result.mailboxes) || !count ||
            count->addresses != result.mailboxes.size() - before)
            result.isReadable = false;
    }
    return result;
}

std::string decodedText(const std::string& value) {
    if (!isUsable(value))
        return value.substr(0, std::min(value.find('\0'), maximumValue));
    const GmimeText text(g_mime_utils_header_decode_text(lenient().get(), value.c_str()));
    if (!text)
        return value;
    const GmimeText valid(g_utf8_make_valid(text.get(), -1));
    return valid.get();
}

} // namespace Norvane::Crypto::SMime::mime
