// What keeps a well-formed structure from being decoded: a walk over its elements.
#include "openssl/ErrorQueue.h"

#include <norvcrypto/CMSVerification.h>

#include <openssl/asn1.h>
#include <openssl/objects.h>

#include <algorithm>
#include <array>
#include <climits>
#include <optional>
#include <span>
#include <string_view>

namespace Norvane::Crypto::CMS {

namespace {

using Octets = std::span<const unsigned char>;

/// An element: its first octet and its content.
struct Element {
    unsigned char tag = 0;
    Octets content;
};

/// Takes elements from the front of octets, BER or DER.
class Elements {
public:
    explicit Elements(Octets octets) : m_octets(octets) {}

    [[nodiscard]] bool atEnd() const noexcept { return m_octets.empty(); }
    /// The tag of the next element; 0 at the end.
    [[nodiscard]] unsigned char peek() const noexcept { return atEnd() ? 0 : m_octets.front(); }

    /// The next element; nothing when the octets are none or end before it.
    std::optional<Element> next() noexcept {
        const auto header = headerAt(0);
        if (!header) {
            return std::nullopt;
        }
        const auto [content, length] = *header;
        const auto end = length ? content + *length : endOfContents(content);
        if (!end) {
            return std::nullopt;
        }
        const std::size_t contentEnd = length ? *end : *end - 2;
        const Element element{m_octets.front(), m_octets.subspan(content, contentEnd - content)};
        m_octets = m_octets.subspan(*end);
        return element;
    }

    /// The content of the next element when its tag is this one.
    std::optional<Elements> inside(unsigned char tag) noexcept {
        if (peek() != tag) {
            return std::nullopt;
        }
        const auto element = next();
        return element ? std::optional(Elements(element->content)) : std::nullopt;
    }

    /// Whether the next element has this tag, which is then taken.
    bool take(unsigned char tag) noexcept { return peek() == tag && next(); }
    [[nodiscard]] Octets rest() const noexcept { return m_octets; }

private:
    struct Header {
        std::size_t content;               // where the content begins
        std::optional<std::size_t> length; // nothing for an indefinite one
    };

    [[nodiscard]] std::optional<Header> headerAt(std::size_t position) const noexcept {
        const unsigned char* const start = m_octets.data() + position;
        const unsigned char* cursor = start;
        long length = 0;
        int tag = 0;
        int tagClass = 0;
        const auto left = static_cast<long>(m_octets.size() - position);
        const int flags = left == 0 ? 0x80 : ASN1_get_object(&cursor, &length, &tag, &tagClass, left);
        if ((flags & 0x80) != 0) {
            return std::nullopt;
        }
        const Header header{position + static_cast<std::size_t>(cursor - start), static_cast<std::size_t>(length)};
        return (flags & 1) != 0 ? Header{header.content, std::nullopt} : header;
    }

    /// Where an element of indefinite length ends whose content begins at `position`.
    [[nodiscard]] std::optional<std::size_t> endOfContents(std::size_t position) const noexcept {
        for (std::size_t depth = 1; depth != 0;) {
            const auto header = headerAt(position);
            if (!header) {
                return std::nullopt;
            }
            if (!header->length) {
                ++depth;
                position = header->content;
            } else {
                depth -= m_octets[position] == V_ASN1_EOC && *header->length == 0 ? 1U : 0U;
                position = header->content + *header->length;
            }
        }
        return position;
    }

    Octets m_octets;
};

constexpr unsigned char integer = V_ASN1_INTEGER;
constexpr unsigned char octetString = V_ASN1_OCTET_STRING;
constexpr unsigned char identifier = V_ASN1_OBJECT;
constexpr unsigned char sequence = V_ASN1_SEQUENCE | V_ASN1_CONSTRUCTED;
constexpr unsigned char set = V_ASN1_SET | V_ASN1_CONSTRUCTED;
constexpr unsigned char context0 = 0x80; // the primitive form
constexpr unsigned char constructed0 = 0xA0;
constexpr unsigned char constructed1 = 0xA1;
constexpr unsigned char constructed2 = 0xA2;
constexpr unsigned char constructed3 = 0xA3;

/// What is told about the first unsupported element. The walk goes on behind it: only what is well formed to its end
/// is called unsupported.
using Finding = std::string_view;

void note(Finding& finding, Finding more) noexcept {
    if (finding.empty()) {
        finding = more;
    }
}

bool walkContent(Elements content, Finding& finding) noexcept {
    const auto type = content.inside(identifier);
    if (!type) {
        return false;
    }
    if (content.peek() != constructed0) {
        return content.atEnd();
    }
    const auto carried = content.inside(constructed0);
    if (!carried || !content.atEnd()) {
        return false;
    }
    // The types of PKCS#7 but data: 1.2.840.113549.1.7.2 and what follows it.
    static constexpr std::array<unsigned char, 8> arc{0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x07};
    const Octets name = type->rest();
    const bool structured = name.size() == arc.size() + 1 && std::equal(arc.begin(), arc.end(), name.begin()) &&
                            name.back() >= 2 && name.back() <= 6;
    if (structured && (carried->peek() & ~V_ASN1_CONSTRUCTED) == octetString) {
        note(finding, "a content that is a structure in an OCTET STRING");
    }
    return true;
}

bool walkCertificates(Elements certificates, Finding& finding) noexcept {
    while (!certificates.atEnd()) {
        switch (certificates.peek()) {
        case sequence:
            break;
        case constructed0:
            note(finding, "an extended certificate");
            break;
        case constructed1:
        case constructed2:
            note(finding, "an attribute certificate");
            break;
        case constructed3:
            note(finding, "a certificate of another format");
            break;
        default:
            return false;
        }
        if (!certificates.next()) {
            return false;
        }
    }
    return true;
}

bool walkRevocations(Elements revocations, Finding& finding) noexcept {
    while (!revocations.atEnd()) {
        if (revocations.peek() == constructed1) {
            note(finding, "revocation information that is no list");
        } else if (revocations.peek() != sequence) {
            return false;
        }
        if (!revocations.next()) {
            return false;
        }
    }
    return true;
}

bool walkSigner(Elements signer, Finding& finding) noexcept {
    if (!signer.take(integer)) {
        return false;
    }
    if (signer.take(context0)) {
        note(finding, "a signer that is named by a key identifier");
    } else if (!signer.take(sequence)) {
        return false;
    }
    if (!signer.take(sequence)) {
        return false;
    }
    signer.take(constructed0); // signed attributes
    if (!signer.take(sequence) || !signer.take(octetString)) {
        return false;
    }
    signer.take(constructed1); // unsigned attributes
    return signer.atEnd();
}

bool walkSigners(Elements signers, Finding& finding) noexcept {
    while (!signers.atEnd()) {
        const auto signer = signers.inside(sequence);
        if (!signer || !walkSigner(*signer, finding)) {
            return false;
        }
    }
    return true;
}

/// True when the signed data is well formed as far as it is walked.
bool walkSignedData(Elements data, Finding& finding) noexcept {
    if (!data.take(integer) || !data.take(set)) {
        return false;
    }
    const auto content = data.inside(sequence);
    if (!content || !walkContent(*content, finding)) {
        return false;
    }
    if (data.peek() == constructed0) {
        const auto certificates = data.inside(constructed0);
        if (!certificates || !walkCertificates(*certificates, finding)) {
            return false;
        }
    }
    if (data.peek() == constructed1) {
        const auto revocations = data.inside(constructed1);
        if (!revocations || !walkRevocations(*revocations, finding)) {
            return false;
        }
    }
    const auto signers = data.inside(set);
    return signers && data.atEnd() && walkSigners(*signers, finding);
}

bool walk(Elements outermost, Finding& finding) noexcept {
    auto structure = outermost.inside(sequence);
    const auto type = structure ? structure->inside(identifier) : std::nullopt;
    if (!type) {
        return false;
    }
    const ASN1_OBJECT* signedData = OBJ_nid2obj(NID_pkcs7_signed);
    if (!std::ranges::equal(type->rest(), Octets(OBJ_get0_data(signedData), OBJ_length(signedData)))) {
        return false;
    }
    auto explicitly = structure->inside(constructed0);
    const auto data = explicitly ? explicitly->inside(sequence) : std::nullopt;
    return data && explicitly->atEnd() && structure->atEnd() && walkSignedData(*data, finding);
}

} // namespace

std::string unsupportedPart(const unsigned char* structure, std::size_t length) {
    if (structure == nullptr || length > LONG_MAX) {
        return {};
    }
    const openssl::ErrorMark mark;
    Finding finding;
    return walk(Elements(Octets(structure, length)), finding) ? std::string(finding) : std::string();
}

std::string unsupportedPart(const Buffer& structure) {
    return unsupportedPart(structure.data(), structure.length());
}

} // namespace Norvane::Crypto::CMS
