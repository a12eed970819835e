// What an encrypted message is made of, without decoding or decrypting it.
#include "framing/Elements.h"
#include "openssl/AlgorithmName.h"
#include "openssl/ErrorQueue.h"
#include "openssl/Pointers.h"

#include <norvcrypto/CMSEnvelopeOutline.h>

#include <algorithm>
#include <array>
#include <optional>
#include <vector>

namespace Norvane::Crypto::CMS {

using framing::Element;
using framing::Elements;
using framing::Octets;
using framing::TagClass;

namespace {

constexpr std::size_t s_mostNames = 16;
constexpr std::array<unsigned char, 9> s_envelopedData{0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x07, 0x03};
constexpr std::array<unsigned char, 11> s_authEnvelopedData{0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D,
                                                            0x01, 0x09, 0x10, 0x01, 0x17};
constexpr std::array<unsigned char, 3> s_version0{0x02, 0x01, 0x00};

bool is(const Element& identifier, Octets value) {
    return std::equal(value.begin(), value.end(), identifier.content.begin(), identifier.content.end());
}

/// The parts of EnvelopedData (RFC 5652, 6.1), which AuthEnvelopedData begins with too.
struct Frame {
    Element type;
    Element recipients;
    Element content;
};

/// The content and its type (RFC 5652, 3).
std::optional<Element> contentOf(Octets message, Element& type) {
    const auto outer = framing::firstElement(message);
    if (!outer || !outer->isUniversal(framing::sequence) || !outer->header.constructed) {
        return std::nullopt;
    }
    Elements parts(*outer);
    const auto identifier = parts.nextUniversal(framing::objectIdentifier);
    const auto explicitContent = parts.nextContext(0);
    if (!identifier || !explicitContent || !explicitContent->header.constructed) {
        return std::nullopt;
    }
    type = *identifier;
    return Elements(*explicitContent).next();
}

std::optional<Frame> frameOf(Octets message) {
    Element type;
    const auto envelope = contentOf(message, type);
    if (!envelope || !envelope->isUniversal(framing::sequence)) {
        return std::nullopt;
    }
    Elements parts(*envelope);
    const auto version = parts.nextUniversal(framing::integer);
    static_cast<void>(parts.nextContext(0)); // originator information
    const auto recipients = parts.nextUniversal(framing::set);
    const auto content = parts.nextUniversal(framing::sequence);
    if (!version || !recipients || !content) {
        return std::nullopt;
    }
    return Frame{type, *recipients, *content};
}

/// The name in an AlgorithmIdentifier.
std::string nameIn(const std::optional<Element>& algorithm) {
    const auto identifier = algorithm ? Elements(*algorithm).nextUniversal(framing::objectIdentifier) : std::nullopt;
    if (!identifier) {
        return "no algorithm";
    }
    const openssl::ErrorMark mark;
    const unsigned char* at = identifier->whole.data();
    const openssl::ObjectPtr object(d2i_ASN1_OBJECT(nullptr, &at, static_cast<long>(identifier->whole.size())));
    return openssl::algorithmName(object.get());
}

/// What a recipient is when PKCS#7 does not know it; empty for one by issuer and serial number; nothing for a damaged one.
std::optional<std::string> otherKindOf(const Element& recipient) {
    Elements parts(recipient);
    if (recipient.isContext(4)) {
        const auto type = parts.nextUniversal(framing::objectIdentifier);
        return type ? std::optional("recipients of the type " + nameIn(recipient)) : std::nullopt;
    }
    if (!parts.nextUniversal(framing::integer)) {
        return std::nullopt;
    }
    if (recipient.isUniversal(framing::sequence)) {
        const auto who = parts.next();
        return !who                                  ? std::nullopt
               : who->isUniversal(framing::sequence) ? std::optional(std::string())
               : who->isContext(0) ? std::optional(std::string("recipients by subject key identifier"))
                                   : std::nullopt;
    }
    if (recipient.isContext(1)) {
        const auto originator = parts.nextContext(0);
        static_cast<void>(parts.nextContext(1));
        const auto algorithm = parts.nextUniversal(framing::sequence);
        return originator && algorithm ? std::optional("recipients by key agreement (" + nameIn(algorithm) + ")")
                                       : std::nullopt;
    }
    if (recipient.isContext(2)) {
        const auto identifier = parts.nextUniversal(framing::sequence);
        const auto algorithm = parts.nextUniversal(framing::sequence);
        return identifier && algorithm ? std::optional("recipients by key-encryption key (" + nameIn(algorithm) + ")")
                                       : std::nullopt;
    }
    return recipient.isContext(3) ? std::optional(std::string("recipients by password")) : std::nullopt;
}

bool isByIssuer(const Element& recipient) {
    const auto kind = otherKindOf(recipient);
    return kind && kind->empty();
}

/// Adds a name that is not there yet.
void add(std::list<std::string>& names, const std::string& name) {
    if (names.size() <= s_mostNames && std::find(names.begin(), names.end(), name) == names.end()) {
        names.push_back(names.size() < s_mostNames ? name : "others");
    }
}

Octets bytesOf(const Buffer& message) {
    return {message.data(), message.length()};
}

} // namespace

EnvelopeOutline::EnvelopeOutline(const Buffer& message) {
    Element type;
    if (!contentOf(bytesOf(message), type)) {
        return;
    }
    const bool authenticated = is(type, s_authEnvelopedData);
    if (!authenticated && !is(type, s_envelopedData)) {
        m_kind = OtherType;
        return;
    }
    const auto frame = frameOf(bytesOf(message));
    if (!frame) {
        return;
    }
    if (authenticated) {
        Elements parts(frame->content);
        static_cast<void>(parts.nextUniversal(framing::objectIdentifier));
        add(m_unsupported, "AuthEnvelopedData (" + nameIn(parts.nextUniversal(framing::sequence)) + ")");
    }
    bool hasReadable = false;
    Elements recipients(frame->recipients);
    while (const auto recipient = recipients.next()) {
        const auto kind = otherKindOf(*recipient);
        if (!kind) {
            m_unsupported.clear();
            return;
        }
        hasReadable = hasReadable || kind->empty();
        if (!kind->empty()) {
            add(m_unsupported, *kind);
        }
    }
    if (!recipients.atEnd()) {
        m_unsupported.clear();
        return;
    }
    m_kind = authenticated ? AuthEnvelopedData : EnvelopedData;
    m_readable = !authenticated && hasReadable;
}

Buffer EnvelopeOutline::readable(const Buffer& message) const {
    const auto frame = m_readable ? frameOf(bytesOf(message)) : std::nullopt;
    if (!frame) {
        return {};
    }
    std::vector<Octets> chosen;
    Elements all(frame->recipients);
    while (const auto recipient = all.next()) {
        if (isByIssuer(*recipient)) {
            chosen.push_back(recipient->whole);
        }
    }
    const auto constructed = [](TagClass tagClass, std::uint32_t tag, const std::vector<Octets>& parts) {
        return framing::constructed(tagClass, tag, parts);
    };
    const auto recipients = constructed(TagClass::universal, framing::set, chosen);
    const auto envelope =
        constructed(TagClass::universal, framing::sequence, {s_version0, recipients, frame->content.whole});
    const auto content = constructed(TagClass::contextSpecific, 0, {envelope});
    const auto whole = constructed(TagClass::universal, framing::sequence, {frame->type.whole, content});
    const bool complete = !recipients.empty() && !envelope.empty() && !content.empty();
    return complete ? Buffer(whole.data(), static_cast<unsigned int>(whole.size()), false) : Buffer();
}

} // namespace Norvane::Crypto::CMS
