// What an encrypted message is made of, without decoding or decrypting it.
#include "openssl/AlgorithmName.h"
#include "openssl/BerElements.h"
#include "openssl/ErrorQueue.h"
#include "openssl/Pointers.h"

#include <norvcrypto/CMSEnvelopeOutline.h>

#include <openssl/asn1.h>

#include <algorithm>
#include <array>
#include <optional>
#include <vector>

namespace Norvane::Crypto::CMS {

using openssl::BerBytes;
using openssl::BerElement;
using openssl::BerElements;

namespace {

constexpr std::size_t s_mostNames = 16;
constexpr std::array<unsigned char, 9> s_envelopedData{0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x07, 0x03};
constexpr std::array<unsigned char, 11> s_authEnvelopedData{0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D,
                                                            0x01, 0x09, 0x10, 0x01, 0x17};
constexpr std::array<unsigned char, 3> s_version0{0x02, 0x01, 0x00};

bool is(const BerElement& identifier, BerBytes value) {
    return std::equal(value.begin(), value.end(), identifier.content.begin(), identifier.content.end());
}

/// The parts of EnvelopedData (RFC 5652, 6.1), which AuthEnvelopedData begins with too.
struct Frame {
    BerElement type;
    bool hasOriginatorInfo;
    BerElement recipients;
    BerElement content;
    bool hasMore;
};

/// The content and its type (RFC 5652, 3).
std::optional<BerElement> contentOf(BerBytes message, BerElement& type) {
    const auto outer = openssl::firstElement(message);
    if (!outer || !outer->isUniversal(V_ASN1_SEQUENCE) || !outer->constructed) {
        return std::nullopt;
    }
    BerElements parts(*outer);
    const auto identifier = parts.nextUniversal(V_ASN1_OBJECT);
    const auto explicitContent = parts.nextContext(0);
    if (!identifier || !explicitContent || !explicitContent->constructed) {
        return std::nullopt;
    }
    type = *identifier;
    return BerElements(*explicitContent).next();
}

std::optional<Frame> frameOf(BerBytes message) {
    BerElement type;
    const auto envelope = contentOf(message, type);
    if (!envelope || !envelope->isUniversal(V_ASN1_SEQUENCE)) {
        return std::nullopt;
    }
    BerElements parts(*envelope);
    const auto version = parts.nextUniversal(V_ASN1_INTEGER);
    const auto originator = parts.nextContext(0);
    const auto recipients = parts.nextUniversal(V_ASN1_SET);
    const auto content = parts.nextUniversal(V_ASN1_SEQUENCE);
    if (!version || !recipients || !content) {
        return std::nullopt;
    }
    return Frame{type, originator.has_value(), *recipients, *content, !parts.atEnd()};
}

/// The name in an AlgorithmIdentifier.
std::string nameIn(const std::optional<BerElement>& algorithm) {
    const auto identifier = algorithm ? BerElements(*algorithm).nextUniversal(V_ASN1_OBJECT) : std::nullopt;
    if (!identifier) {
        return "no algorithm";
    }
    const openssl::ErrorMark mark;
    const unsigned char* at = identifier->whole.data();
    const openssl::ObjectPtr object(d2i_ASN1_OBJECT(nullptr, &at, static_cast<long>(identifier->whole.size())));
    return openssl::algorithmName(object.get());
}

/// What a recipient is when PKCS#7 does not know it; empty for one by issuer and serial number; nothing for a damaged one.
std::optional<std::string> otherKindOf(const BerElement& recipient) {
    BerElements parts(recipient);
    if (recipient.isContext(4)) {
        const auto type = parts.nextUniversal(V_ASN1_OBJECT);
        return type ? std::optional("recipients of the type " + nameIn(recipient)) : std::nullopt;
    }
    if (!parts.nextUniversal(V_ASN1_INTEGER)) {
        return std::nullopt;
    }
    if (recipient.isUniversal(V_ASN1_SEQUENCE)) {
        const auto who = parts.next();
        return !who                                ? std::nullopt
               : who->isUniversal(V_ASN1_SEQUENCE) ? std::optional(std::string())
               : who->isContext(0)                 ? std::optional(std::string("recipients by subject key identifier"))
                                                   : std::nullopt;
    }
    if (recipient.isContext(1)) {
        const auto originator = parts.nextContext(0);
        static_cast<void>(parts.nextContext(1));
        const auto algorithm = parts.nextUniversal(V_ASN1_SEQUENCE);
        return originator && algorithm ? std::optional("recipients by key agreement (" + nameIn(algorithm) + ")")
                                       : std::nullopt;
    }
    if (recipient.isContext(2)) {
        const auto identifier = parts.nextUniversal(V_ASN1_SEQUENCE);
        const auto algorithm = parts.nextUniversal(V_ASN1_SEQUENCE);
        return identifier && algorithm ? std::optional("recipients by key-encryption key (" + nameIn(algorithm) + ")")
                                       : std::nullopt;
    }
    return recipient.isContext(3) ? std::optional(std::string("recipients by password")) : std::nullopt;
}

bool isByIssuer(const BerElement& recipient) {
    const auto kind = otherKindOf(recipient);
    return kind && kind->empty();
}

/// Adds a name that is not there yet.
void add(std::list<std::string>& names, const std::string& name) {
    if (names.size() <= s_mostNames && std::find(names.begin(), names.end(), name) == names.end()) {
        names.push_back(names.size() < s_mostNames ? name : "others");
    }
}

BerBytes bytesOf(const Buffer& message) {
    return {message.data(), message.length()};
}

} // namespace

EnvelopeOutline::EnvelopeOutline(const Buffer& message) {
    BerElement type;
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
        BerElements parts(frame->content);
        static_cast<void>(parts.nextUniversal(V_ASN1_OBJECT));
        add(m_unsupported, "AuthEnvelopedData (" + nameIn(parts.nextUniversal(V_ASN1_SEQUENCE)) + ")");
    }
    bool hasReadable = false;
    BerElements recipients(frame->recipients);
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
    std::vector<BerBytes> chosen;
    BerElements all(frame->recipients);
    while (const auto recipient = all.next()) {
        if (isByIssuer(*recipient)) {
            chosen.push_back(recipient->whole);
        }
    }
    const auto constructed = [](int tag, int tagClass, const std::vector<BerBytes>& parts) {
        return openssl::berConstructed(tag, tagClass, parts);
    };
    const auto recipients = constructed(V_ASN1_SET, V_ASN1_UNIVERSAL, chosen);
    const auto envelope =
        constructed(V_ASN1_SEQUENCE, V_ASN1_UNIVERSAL, {s_version0, recipients, frame->content.whole});
    const auto content = constructed(0, V_ASN1_CONTEXT_SPECIFIC, {envelope});
    const auto whole = constructed(V_ASN1_SEQUENCE, V_ASN1_UNIVERSAL, {frame->type.whole, content});
    const bool complete = !recipients.empty() && !envelope.empty() && !content.empty();
    return complete ? Buffer(whole.data(), static_cast<unsigned int>(whole.size()), false) : Buffer();
}

} // namespace Norvane::Crypto::CMS
