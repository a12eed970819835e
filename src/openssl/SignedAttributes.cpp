#include "openssl/SignedAttributes.h"

#include "framing/Encoding.h"
#include "framing/Walk.h"
#include "openssl/Encode.h"
#include "openssl/ErrorQueue.h"
#include "openssl/Pointers.h"

#include <openssl/asn1t.h>

#include <algorithm>
#include <array>
#include <utility>

namespace Norvane::Crypto::openssl {

namespace {

using framing::Element;
using framing::Elements;
using framing::Octets;
using framing::Walk;
using Encodings = std::vector<std::vector<unsigned char>>;

void freeAttributes(STACK_OF(X509_ATTRIBUTE) * attributes) noexcept {
    sk_X509_ATTRIBUTE_pop_free(attributes, X509_ATTRIBUTE_free);
}
using AttributesPtr = Owned<STACK_OF(X509_ATTRIBUTE), freeAttributes>;

/// Whether all lengths, at every level, are as short as they can be.
bool hasShortestLengths(Octets element) noexcept {
    Walk walk(element.data(), element.size());
    for (auto step = walk.next(); step != Walk::Step::finished; step = walk.next()) {
        if (framing::isLast(step)) {
            return false;
        }
        const framing::Header& header = walk.header();
        if (step != Walk::Step::closed &&
            (header.indefinite || header.size != framing::headerSize(header.tag, header.contentLength))) {
            return false;
        }
    }
    return true;
}

/// Whether elements stand in the order of their encodings.
bool isSorted(Elements elements) noexcept {
    Octets last;
    while (!elements.atEnd()) {
        const auto element = elements.next();
        if (!element || std::ranges::lexicographical_compare(element->whole, last)) {
            return false;
        }
        last = element->whole;
    }
    return true;
}

/// Whether the attributes and the values of each stand in order.
bool areSorted(const Element& attributes) noexcept {
    if (!isSorted(Elements(attributes))) {
        return false;
    }
    Elements each(attributes);
    for (auto attribute = each.next(); attribute; attribute = each.next()) {
        Elements parts(*attribute);
        static_cast<void>(parts.next());
        const auto values = parts.next();
        if (!values || !isSorted(Elements(*values))) {
            return false;
        }
    }
    return true;
}

/// The set with its elements in the order of DER. Not by OpenSSL, which without memory to sort in writes what lay there before.
framing::Encoded sorted(Octets encodedSet) {
    std::vector<framing::Encoded> each;
    if (const auto whole = framing::firstElement(encodedSet)) {
        Elements elements(*whole);
        for (auto element = elements.next(); element; element = elements.next()) {
            each.emplace_back(element->whole.begin(), element->whole.end());
        }
    }
    framing::sortForDer(each);
    return framing::setOf(each);
}

void addNew(Encodings& encodings, framing::Encoded encoding) {
    if (std::ranges::find(encodings, encoding) == encodings.end()) {
        encodings.push_back(std::move(encoding));
    }
}

} // namespace

std::vector<std::vector<unsigned char>> signedAttributeEncodings(const Element& attributes) {
    const bool isDer = !attributes.header.indefinite && hasShortestLengths(attributes.whole) && areSorted(attributes);
    if (!isDer && attributes.content.size() > mostAttributesNotDer) {
        return {};
    }
    Encodings encodings;
    encodings.push_back(
        framing::constructed(framing::TagClass::universal, framing::set, std::array{attributes.content}));
    if (!isDer) {
        const ErrorMark mark;
        const unsigned char* at = encodings.front().data();
        const AttributesPtr decoded(reinterpret_cast<STACK_OF(X509_ATTRIBUTE)*>(
            ASN1_item_d2i(nullptr, &at, static_cast<long>(encodings.front().size()), ASN1_ITEM_rptr(PKCS7_ATTR_SIGN))));
        int length = 0;
        const auto encoded = encodeItem(decoded.get(), ASN1_ITEM_rptr(PKCS7_ATTR_VERIFY), length);
        if (length == 0) {
            mark.throwWithoutMemory();
            return encodings;
        }
        const Octets inOrderSent{encoded.get(), static_cast<std::size_t>(length)};
        addNew(encodings, {inOrderSent.begin(), inOrderSent.end()});
        addNew(encodings, sorted(inOrderSent));
    }
    return encodings;
}

} // namespace Norvane::Crypto::openssl
