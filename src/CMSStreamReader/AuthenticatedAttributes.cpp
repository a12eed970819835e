#include "CMSStreamReader/AuthenticatedAttributes.h"

#include <algorithm>
#include <array>

namespace Norvane::Crypto::CMS {

using framing::Element;
using framing::Elements;
using framing::Octets;

namespace {

/// Object identifiers: data, and the attribute of the content's type.
constexpr std::array<unsigned char, 9> s_data{0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x07, 0x01};
constexpr std::array<unsigned char, 9> s_contentType{0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x09, 0x03};

/// Whether an attribute has exactly this value.
bool hasOneValue(Elements& attribute, Octets value) {
    const auto values = attribute.nextUniversal(framing::set);
    if (!values || !attribute.atEnd()) {
        return false;
    }
    Elements all(*values);
    const auto only = all.nextUniversal(framing::objectIdentifier);
    return only && all.atEnd() && std::ranges::equal(only->content, value);
}

/// Whether attributes name this type, once. They need not name data, which goes without saying: Bouncy Castle adds no
/// such attribute to a sender's own.
bool nameType(const Element& attributes, Octets type) {
    std::size_t named = 0;
    Elements all(attributes);
    while (const auto attribute = all.nextUniversal(framing::sequence)) {
        Elements parts(*attribute);
        const auto identifier = parts.nextUniversal(framing::objectIdentifier);
        if (!identifier) {
            return false;
        }
        if (std::ranges::equal(identifier->content, s_contentType)) {
            if (++named != 1 || !hasOneValue(parts, type)) {
                return false;
            }
        }
    }
    return all.atEnd() && (named == 1 || std::ranges::equal(type, s_data));
}

} // namespace

bool authenticatedAttributes(const EnvelopeFraming& frame, std::vector<unsigned char>& associated) {
    const auto identifier = framing::firstElement(frame.contentType());
    if (!identifier) {
        return false;
    }
    if (frame.attributes().empty()) {
        return std::ranges::equal(identifier->content, s_data);
    }
    const auto attributes = framing::firstElement(frame.attributes());
    if (!attributes || !attributes->header.constructed || !nameType(*attributes, identifier->content)) {
        return false;
    }
    const std::array<Octets, 1> content{attributes->content};
    associated = framing::constructed(framing::TagClass::universal, framing::set, content);
    return true;
}

} // namespace Norvane::Crypto::CMS
