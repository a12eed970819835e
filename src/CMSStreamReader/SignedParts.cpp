#include "CMSStreamReader/SignedParts.h"

#include "framing/Reader.h"

#include <algorithm>
#include <array>

namespace Norvane::Crypto::CMS {

using framing::Broken;
using framing::Element;
using framing::Elements;
using framing::Fault;
using framing::Octets;

namespace {

/// The element, which must be there.
Element required(const std::optional<Element>& element) {
    if (!element) {
        throw Broken(Fault::malformed);
    }
    return *element;
}

Element requiredIdentifier(const std::optional<Element>& element) {
    if (!element || !framing::isObjectIdentifier(*element)) {
        throw Broken(Fault::malformed);
    }
    return *element;
}

Element requiredInteger(const std::optional<Element>& element) {
    if (!element || !framing::isInteger(*element)) {
        throw Broken(Fault::malformed);
    }
    return *element;
}

Element requiredConstructed(const std::optional<Element>& element) {
    if (!element || !element->header.constructed) {
        throw Broken(Fault::malformed);
    }
    return *element;
}

void requireEnd(const Elements& elements) {
    if (!elements.atEnd()) {
        throw Broken(Fault::malformed);
    }
}

/// Which of the attributes that are looked for is meant (RFC 5652, 11; RFC 8551, 2.5.2; RFC 2634; RFC 5035): 1.2.840.113549.1.9.n, or
/// 1.2.840.113549.1.9.16.2.n.
std::optional<AttributeType> typeOf(Octets identifier) noexcept {
    static constexpr std::array<unsigned char, 8> pkcs9{0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x09};
    if (!std::ranges::equal(identifier.first(std::min(identifier.size(), pkcs9.size())), pkcs9)) {
        return std::nullopt;
    }
    const Octets rest = identifier.subspan(pkcs9.size());
    if (rest.size() == 1) {
        switch (rest[0]) {
        case 3:
            return AttributeType::contentType;
        case 4:
            return AttributeType::messageDigest;
        case 5:
            return AttributeType::signingTime;
        case 6:
            return AttributeType::countersignature;
        case 15:
            return AttributeType::capabilities;
        default:
            return std::nullopt;
        }
    }
    if (rest.size() == 3 && rest[0] == 16 && rest[1] == 2) {
        switch (rest[2]) {
        case 1:
            return AttributeType::receiptRequest;
        case 12:
            return AttributeType::signingCertificate;
        case 47:
            return AttributeType::signingCertificateV2;
        default:
            return std::nullopt;
        }
    }
    return std::nullopt;
}

/// An attribute that the signer must have signed (RFC 5652, 11.1 to 11.3; RFC 2634, 2.7 and 5.4; RFC 5035, 3).
bool mustBeSigned(AttributeType type) noexcept {
    switch (type) {
    case AttributeType::contentType:
    case AttributeType::messageDigest:
    case AttributeType::signingTime:
    case AttributeType::signingCertificate:
    case AttributeType::signingCertificateV2:
    case AttributeType::receiptRequest:
        return true;
    case AttributeType::countersignature:
    case AttributeType::capabilities:
        break;
    }
    return false;
}

/// Hands each attribute to `take`: its type, where it is looked for, and its values.
template <class Take> void forEachAttribute(Elements attributes, Take take) {
    while (!attributes.atEnd()) {
        Elements parts(requiredConstructed(attributes.nextUniversal(framing::sequence)));
        const Element identifier = requiredIdentifier(parts.nextUniversal(framing::objectIdentifier));
        const Element values = requiredConstructed(parts.nextUniversal(framing::set));
        requireEnd(parts);
        take(typeOf(identifier.content), Elements(values));
    }
}

AttributeTable tableOf(Elements attributes) {
    AttributeTable table;
    forEachAttribute(attributes, [&](std::optional<AttributeType> type, Elements values) {
        if (!type) {
            return;
        }
        AttributeParts& parts = table[static_cast<std::size_t>(*type)];
        ++parts.count;
        while (!values.atEnd()) {
            const Element value = required(values.next());
            if (++parts.values == 1) {
                parts.value = value.whole;
            }
        }
    });
    return table;
}

} // namespace

Octets stringOctets(const Element& string, KeptOctets& kept) {
    if (!string.header.constructed) {
        return string.content;
    }
    constexpr std::size_t deepest = 32;
    std::vector<unsigned char>& whole = kept.emplace_back();
    std::vector<Elements> open{Elements(string)};
    while (!open.empty()) {
        if (open.back().atEnd()) {
            open.pop_back();
            continue;
        }
        const Element segment = required(open.back().nextUniversal(framing::octetString));
        if (!segment.header.constructed) {
            whole.insert(whole.end(), segment.content.begin(), segment.content.end());
        } else if (open.size() == deepest) {
            throw Broken(Fault::tooDeep);
        } else {
            open.emplace_back(segment);
        }
    }
    return whole;
}

/// SHAKE256 has two identifiers (RFC 8419, 2.3; RFC 8702, 3.1), one of which tells the length in bits.
constexpr std::array<unsigned char, 11> s_shake256{0x06, 0x09, 0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x0C};
constexpr std::array<unsigned char, 15> s_shake256WithLength{0x06, 0x09, 0x60, 0x86, 0x48, 0x01, 0x65, 0x03,
                                                             0x04, 0x02, 0x12, 0x02, 0x02, 0x02, 0x00};

Octets algorithmOf(const Element& algorithm) {
    if (std::ranges::equal(algorithm.content, s_shake256WithLength)) { // of the 512 bits that both mean
        return s_shake256;
    }
    constexpr std::uint32_t nullTag = 5;
    Elements parts(requiredConstructed(algorithm));
    const Element identifier = requiredIdentifier(parts.nextUniversal(framing::objectIdentifier));
    if (!parts.atEnd()) {
        const Element parameters = required(parts.next());
        if (parameters.isUniversal(nullTag) && (parameters.header.constructed || !parameters.content.empty())) {
            throw Broken(Fault::malformed);
        }
        requireEnd(parts);
    }
    return identifier.whole;
}

Octets shortestInteger(Octets content) noexcept {
    while (content.size() > 1 &&
           ((content[0] == 0 && content[1] < 0x80U) || (content[0] == 0xFFU && content[1] >= 0x80U))) {
        content = content.subspan(1);
    }
    return content;
}

SignerParts readSigner(Octets signerInfo, KeptOctets& kept) {
    SignerParts signer;
    Elements parts(requiredConstructed(Elements(signerInfo).nextUniversal(framing::sequence)));
    if (!framing::isSmallInteger(required(parts.nextUniversal(framing::integer)))) {
        throw Broken(Fault::malformed);
    }
    if (const auto identifier = parts.nextContext(0)) {
        signer.namedBy = NamedBy::subjectKeyIdentifier;
        signer.name = stringOctets(*identifier, kept);
    } else {
        const Element name = requiredConstructed(parts.nextUniversal(framing::sequence));
        Elements names(name);
        signer.name = name.whole;
        signer.issuer = requiredConstructed(names.nextUniversal(framing::sequence)).whole;
        signer.serialNumber = requiredInteger(names.nextUniversal(framing::integer)).content;
        requireEnd(names);
    }
    signer.digestAlgorithm = algorithmOf(required(parts.nextUniversal(framing::sequence)));
    signer.signedAttributes = parts.nextContext(0);
    if (signer.signedAttributes) {
        signer.attributes = tableOf(Elements(requiredConstructed(signer.signedAttributes)));
    }
    const Element algorithm = requiredConstructed(parts.nextUniversal(framing::sequence));
    signer.signatureAlgorithm = algorithm.whole;
    signer.signatureIdentifier = algorithmOf(algorithm);
    signer.signature = stringOctets(required(parts.nextUniversal(framing::octetString)), kept);
    if (const auto attributes = parts.nextContext(1)) {
        signer.unsignedAttributes = requiredConstructed(attributes).content;
        forEachAttribute(Elements(signer.unsignedAttributes), [&](std::optional<AttributeType> type, const Elements&) {
            signer.unsignedOnesMustBeSigned |= type && mustBeSigned(*type);
        });
    }
    requireEnd(parts);
    return signer;
}

void readCountersigners(SignerParts& signer, std::size_t most, std::size_t deepest, KeptOctets& kept) {
    if (signer.countersignersRead) {
        return;
    }
    std::vector<SignerParts> all;
    bool hasMore = false;
    const auto take = [&](Elements values) {
        while (!values.atEnd() && !hasMore) {
            const auto value = values.next();
            if (!value || all.size() == most || signer.depth == deepest) {
                hasMore = true;
                return;
            }
            SignerParts read = readSigner(value->whole, kept);
            read.signer = &signer;
            read.depth = signer.depth + 1;
            all.push_back(std::move(read));
        }
    };
    try {
        forEachAttribute(Elements(signer.unsignedAttributes),
                         [&](std::optional<AttributeType> type, const Elements& values) {
                             if (type == AttributeType::countersignature) {
                                 take(values);
                             }
                         });
    } catch (const Broken&) {
        hasMore = true;
    }
    signer.countersigners = std::move(all); // all of them, or none when there is no memory
    signer.hasMoreCountersigners = hasMore;
    signer.countersignersRead = true;
}

} // namespace Norvane::Crypto::CMS
