#include "show/Asn1Tree.h"
#include "openssl/CertificateDetails.h"
#include "openssl/OpenSsl.h"

#include <norvcmsg/Escape.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <optional>
#include <string_view>

namespace norvcrypt {

namespace {

constexpr int deepest = 64;
constexpr std::size_t mostLines = 20000;
constexpr std::size_t longestValue = 64; ///< octets that are shown of a value

struct Element {
    int tag = 0;
    int tagClass = 0;
    bool constructed = false;
    bool indefinite = false;
    std::size_t header = 0;
    std::size_t content = 0;
};

class Tree {
public:
    Tree(const Norvane::Buffer& encoded, const std::function<void(const std::string&)>& line)
        : m_start(encoded.data()),
          m_line(line) {}

    /// The elements from one place to another; of an indefinite length, to the end that it has. Answers where it came to.
    std::size_t elements(std::size_t at, std::size_t end, int depth, bool untilEnd) {
        while (at < end && !m_full) {
            const auto element = elementAt(at, end);
            if (!element) {
                tell(at, depth, "no element: " + hexOf(at, end));
                return end;
            }
            const bool isEnd = element->tag == 0 && element->tagClass == V_ASN1_UNIVERSAL && element->content == 0;
            tell(at, depth, describe(*element, at, end));
            const std::size_t content = at + element->header;
            const bool cut = !element->indefinite && element->content > end - content;
            const std::size_t contentEnd = element->indefinite || cut ? end : content + element->content;
            at = contentEnd;
            if (element->constructed)
                at = within(content, contentEnd, depth, element->indefinite);
            else
                encapsulated(*element, content, contentEnd, depth);
            if (cut)
                tell(end, depth,
                     "(cut off: " + std::to_string(element->content - (end - content)) + " octets are missing)");
            if (isEnd && untilEnd)
                return at;
        }
        return at;
    }

private:
    std::optional<Element> elementAt(std::size_t at, std::size_t end) const {
        const QuietQuestion quiet;
        const unsigned char* here = m_start + at;
        long content = 0;
        Element element;
        const int flags =
            ASN1_get_object(&here, &content, &element.tag, &element.tagClass, static_cast<long>(end - at));
        element.header = static_cast<std::size_t>(here - m_start) - at;
        // 0x80 tells that the header cannot be read, or that it announces more than there is.
        if (element.header == 0 || element.header > end - at)
            return std::nullopt;
        element.constructed = (static_cast<unsigned int>(flags) & 0x20U) != 0;
        element.indefinite = (static_cast<unsigned int>(flags) & 1U) != 0;
        element.content = static_cast<std::size_t>(std::max(content, 0L));
        return element;
    }

    std::size_t within(std::size_t at, std::size_t end, int depth, bool untilEnd) {
        if (depth + 1 < deepest)
            return elements(at, end, depth + 1, untilEnd);
        tell(at, depth + 1, "(deeper than " + std::to_string(deepest) + " levels: not shown)");
        return end;
    }

    /// An element in a string of octets or bits, as certificates have them.
    void encapsulated(const Element& element, std::size_t content, std::size_t end, int depth) {
        const bool isBits = element.tag == V_ASN1_BIT_STRING;
        if (element.tagClass != V_ASN1_UNIVERSAL || (!isBits && element.tag != V_ASN1_OCTET_STRING))
            return;
        if (isBits && (content == end || m_start[content++] != 0))
            return;
        const auto inner = content < end && (m_start[content] & 0x20U) != 0 ? elementAt(content, end) : std::nullopt;
        if (inner && !inner->indefinite && inner->header + inner->content == end - content)
            within(content, end, depth, false);
    }

    void tell(std::size_t at, int depth, const std::string& text) {
        if (m_full)
            return;
        m_full = ++m_lines > mostLines;
        std::string offset = std::to_string(at);
        offset.insert(0, offset.size() < 6 ? 6 - offset.size() : 0, ' ');
        m_line(m_full ? "(more than " + std::to_string(mostLines) + " elements: the others are not shown)"
                      : offset + ": " + std::string(2 * static_cast<std::size_t>(depth), ' ') + text);
    }

    static std::string nameOf(const Element& element) {
        if (element.tagClass != V_ASN1_UNIVERSAL) {
            const char* const kind = element.tagClass == V_ASN1_CONTEXT_SPECIFIC ? ""
                                     : element.tagClass == V_ASN1_APPLICATION    ? "application "
                                                                                 : "private ";
            return std::string("[") + kind + std::to_string(element.tag) + "]";
        }
        const char* const name = element.tag <= 30 ? ASN1_tag2str(element.tag) : "(unknown)";
        return name[0] == '(' || name[0] == '<' ? "tag " + std::to_string(element.tag) : name;
    }

    std::string hexOf(std::size_t at, std::size_t end) const {
        std::string text;
        for (std::size_t one = at; one < std::min(end, at + longestValue / 2); ++one) {
            std::array<char, 3> digits{};
            std::snprintf(digits.data(), digits.size(), "%02x", m_start[one]);
            text += digits.data();
        }
        return text + (end - at > longestValue / 2 ? "..." : "");
    }

    std::string describe(const Element& element, std::size_t at, std::size_t end) const {
        std::string text = nameOf(element) + ", " + std::to_string(element.header) + " + ";
        text += element.indefinite ? "indefinite" : std::to_string(element.content);
        if (element.constructed)
            return text;
        const std::size_t content = at + element.header;
        const std::size_t contentEnd = content + std::min(element.content, end - content);
        const std::string value = valueOf(element, content, contentEnd, at);
        return text + (value.empty() ? "" : ": " + value);
    }

    std::string valueOf(const Element& element, std::size_t content, std::size_t end, std::size_t at) const {
        if (element.tagClass != V_ASN1_UNIVERSAL)
            return hexOf(content, end);
        switch (element.tag) {
        case V_ASN1_NULL:
        case V_ASN1_EOC:
            return "";
        case V_ASN1_BOOLEAN:
            return end == content ? "" : m_start[content] != 0 ? "true" : "false";
        case V_ASN1_OBJECT: {
            const QuietQuestion quiet;
            const unsigned char* here = m_start + at;
            const Owned<ASN1_OBJECT, ASN1_OBJECT_free> object(
                d2i_ASN1_OBJECT(nullptr, &here, static_cast<long>(end - at)));
            return object ? Norvane::escapeForDisplay(objectName(object.get())) : hexOf(content, end);
        }
        case V_ASN1_UTF8STRING:
        case V_ASN1_PRINTABLESTRING:
        case V_ASN1_IA5STRING:
        case V_ASN1_T61STRING:
        case V_ASN1_VISIBLESTRING:
        case V_ASN1_NUMERICSTRING:
        case V_ASN1_UTCTIME:
        case V_ASN1_GENERALIZEDTIME: {
            const std::string_view text(reinterpret_cast<const char*>(m_start + content), end - content);
            return Norvane::escapeForDisplay(std::string(text.substr(0, longestValue))) +
                   (text.size() > longestValue ? "..." : "");
        }
        default:
            return hexOf(content, end);
        }
    }

    const unsigned char* m_start;
    const std::function<void(const std::string&)>& m_line;
    std::size_t m_lines = 0;
    bool m_full = false;
};

} // namespace

void showTree(const Norvane::Buffer& encoded, const std::function<void(const std::string&)>& line) {
    Tree(encoded, line).elements(0, encoded.length(), 0, false);
}

} // namespace norvcrypt
