#include "openssl/Assured.h"

#include <openssl/asn1.h>

#include <algorithm>

namespace Norvane::Crypto::openssl {

namespace {

using framing::Element;
using framing::Elements;
using framing::Octets;

/// Names beyond this, OpenSSL's limit is a megabyte, are left to it.
constexpr std::size_t longestName = 0x10000;
/// Longer identifiers than any in use, which OpenSSL may find too long to print, are left to it.
constexpr std::size_t longestIdentifier = 64;

/// The universal tags that nothing but values of strings is asked of here.
enum StringTag : std::uint32_t {
    null = 5,
    utf8String = 12,
    numericString = 18,
    printableString = 19,
    teletexString = 20,
    ia5String = 22,
    bmpString = 30,
};
constexpr std::uint32_t boolean = 1;

bool isPrimitive(const Element& element, std::uint32_t tag) noexcept {
    return element.isUniversal(tag) && !element.header.constructed && !element.header.isEmptyInLongForm();
}

/// What a constructed element of definite length is made of.
std::optional<Elements> inside(const std::optional<Element>& element) noexcept {
    return element && element->header.constructed && !element->header.indefinite && !element->header.isEmptyInLongForm()
               ? std::optional(Elements(*element))
               : std::nullopt;
}

std::optional<Elements> sequenceIn(Elements& elements) noexcept {
    return inside(elements.nextUniversal(framing::sequence));
}

bool isIdentifier(const Element& element) noexcept {
    return framing::isObjectIdentifier(element) && element.content.size() <= longestIdentifier;
}

/// Leaves out the negative numbers about whose padding releases of OpenSSL differ.
bool isNumber(const Element& element) noexcept {
    constexpr unsigned char allOnes = 0xFF;
    return framing::isInteger(element) && (element.content.size() == 1 || element.content[0] != allOnes);
}

bool isBitString(const Element& element) noexcept {
    constexpr unsigned char mostUnused = 7;
    return isPrimitive(element, framing::bitString) && !element.content.empty() &&
           (element.content[0] == 0 || (element.content[0] <= mostUnused && element.content.size() > 1));
}

bool isTime(const Element& element) noexcept {
    return isPrimitive(element, framing::utcTime) || isPrimitive(element, framing::generalizedTime);
}

bool isCharacter(unsigned long value) noexcept {
    constexpr unsigned long firstSurrogate = 0xD800;
    constexpr unsigned long lastSurrogate = 0xDFFF;
    constexpr unsigned long last = 0x10FFFF;
    return value < firstSurrogate || (value > lastSurrogate && value <= last);
}

bool isUtf8(Octets octets) noexcept {
    while (!octets.empty()) {
        unsigned long value = 0;
        const int taken = UTF8_getc(octets.data(), static_cast<int>(octets.size()), &value);
        if (taken <= 0 || !isCharacter(value)) {
            return false;
        }
        octets = octets.subspan(static_cast<std::size_t>(taken));
    }
    return true;
}

bool isBmp(Octets octets) noexcept {
    constexpr unsigned int bits = 8;
    if (octets.size() % 2 != 0) {
        return false;
    }
    for (std::size_t at = 0; at != octets.size(); at += 2) {
        if (!isCharacter(static_cast<unsigned long>(octets[at]) << bits | octets[at + 1])) {
            return false;
        }
    }
    return true;
}

/// A value that OpenSSL brings into the form in which it compares names.
bool isNameValue(const Element& element) noexcept {
    if (element.header.tagClass != framing::TagClass::universal || element.header.constructed ||
        element.header.isEmptyInLongForm()) {
        return false;
    }
    switch (element.header.tag) {
    case utf8String:
        return isUtf8(element.content);
    case bmpString:
        return isBmp(element.content);
    case numericString:
    case printableString:
    case teletexString:
    case ia5String:
        return true;
    default:
        return false;
    }
}

bool isNameEntry(const std::optional<Element>& element) noexcept {
    auto entry = inside(element);
    if (!entry || !element->isUniversal(framing::sequence)) {
        return false;
    }
    const auto type = entry->next();
    const auto value = entry->next();
    return type && value && isIdentifier(*type) && isNameValue(*value) && entry->atEnd();
}

bool isName(const std::optional<Element>& element) noexcept {
    auto names = inside(element);
    if (!names || !element->isUniversal(framing::sequence) || element->whole.size() > longestName) {
        return false;
    }
    while (!names->atEnd()) {
        auto relative = inside(names->nextUniversal(framing::set));
        if (!relative || relative->atEnd()) {
            return false;
        }
        while (!relative->atEnd()) {
            if (!isNameEntry(relative->next())) {
                return false;
            }
        }
    }
    return true;
}

/// The parameters of an algorithm; what stands inside a sequence is not decoded with it.
bool isParameter(const Element& element) noexcept {
    return isPrimitive(element, framing::octetString) || isIdentifier(element) || isNumber(element) ||
           (isPrimitive(element, null) && element.content.empty()) ||
           (element.isUniversal(framing::sequence) && inside(element));
}

bool isAlgorithm(Elements& elements) noexcept {
    auto algorithm = sequenceIn(elements);
    const auto identifier = algorithm ? algorithm->next() : std::nullopt;
    if (!identifier || !isIdentifier(*identifier)) {
        return false;
    }
    if (algorithm->atEnd()) {
        return true;
    }
    const auto parameter = algorithm->next();
    return parameter && isParameter(*parameter) && algorithm->atEnd();
}

/// The next element, if it is such a one.
template <class Is> bool nextIs(Elements& elements, Is is) noexcept {
    const auto element = elements.next();
    return element && is(*element);
}

bool isExtension(Elements& extensions) noexcept {
    auto extension = sequenceIn(extensions);
    if (!extension || !nextIs(*extension, isIdentifier)) {
        return false;
    }
    if (const auto critical = extension->nextUniversal(boolean);
        critical && (critical->header.constructed || critical->content.size() != 1)) {
        return false;
    }
    return nextIs(*extension, [](const Element& value) { return isPrimitive(value, framing::octetString); }) &&
           extension->atEnd();
}

/// Extensions, one or more.
bool areExtensions(const std::optional<Element>& element) noexcept {
    auto extensions = inside(element);
    if (!extensions || !element->isUniversal(framing::sequence) || extensions->atEnd()) {
        return false;
    }
    while (!extensions->atEnd()) {
        if (!isExtension(*extensions)) {
            return false;
        }
    }
    return true;
}

/// Extensions under an explicit tag, which may be missing, at the end.
bool endsInExtensions(Elements& elements, std::uint32_t tag) noexcept {
    if (elements.atEnd()) {
        return true;
    }
    auto tagged = inside(elements.nextContext(tag));
    return tagged && areExtensions(tagged->next()) && tagged->atEnd() && elements.atEnd();
}

bool isValidity(Elements& elements) noexcept {
    auto validity = sequenceIn(elements);
    return validity && nextIs(*validity, isTime) && nextIs(*validity, isTime) && validity->atEnd();
}

bool isPublicKey(Elements& elements) noexcept {
    auto key = sequenceIn(elements);
    return key && isAlgorithm(*key) && nextIs(*key, isBitString) && key->atEnd();
}

/// The algorithm and the signature behind what is signed.
bool endsSigned(Elements& elements) noexcept {
    return isAlgorithm(elements) && nextIs(elements, isBitString) && elements.atEnd();
}

/// RevokedCertificates.
bool areRevoked(const Element& element) noexcept {
    auto revoked = inside(element);
    if (!revoked) {
        return false;
    }
    while (!revoked->atEnd()) {
        auto one = sequenceIn(*revoked);
        if (!one || !nextIs(*one, isNumber) || !nextIs(*one, isTime)) {
            return false;
        }
        if (!one->atEnd() && (!areExtensions(one->next()) || !one->atEnd())) {
            return false;
        }
    }
    return true;
}

} // namespace

std::optional<AssuredName> assuredCertificate(const Element& element) noexcept {
    auto certificate = element.isUniversal(framing::sequence) ? inside(element) : std::nullopt;
    auto body = certificate ? sequenceIn(*certificate) : std::nullopt;
    if (!body) {
        return std::nullopt;
    }
    if (const auto version = body->nextContext(0)) {
        auto number = inside(version);
        if (!number || !nextIs(*number, isNumber) || !number->atEnd()) {
            return std::nullopt;
        }
    }
    const auto serial = body->next();
    if (!serial || !isNumber(*serial) || !isAlgorithm(*body)) {
        return std::nullopt;
    }
    const auto issuer = body->next();
    if (!isName(issuer) || !isValidity(*body) || !isName(body->next()) || !isPublicKey(*body)) {
        return std::nullopt;
    }
    constexpr std::uint32_t extensionsTag = 3;
    if (!endsInExtensions(*body, extensionsTag) || !endsSigned(*certificate)) {
        return std::nullopt;
    }
    return AssuredName{issuer->whole, serial->whole};
}

bool isAssuredList(const Element& element) noexcept {
    auto list = element.isUniversal(framing::sequence) ? inside(element) : std::nullopt;
    auto body = list ? sequenceIn(*list) : std::nullopt;
    if (!body) {
        return false;
    }
    if (const auto version = body->nextUniversal(framing::integer); version && !isNumber(*version)) {
        return false;
    }
    if (!isAlgorithm(*body) || !isName(body->next()) || !nextIs(*body, isTime)) {
        return false;
    }
    for (const std::uint32_t tag : {framing::utcTime, framing::generalizedTime}) {
        if (const auto nextUpdate = body->nextUniversal(tag)) {
            if (!isTime(*nextUpdate)) {
                return false;
            }
            break;
        }
    }
    if (const auto revoked = body->nextUniversal(framing::sequence); revoked && !areRevoked(*revoked)) {
        return false;
    }
    return endsInExtensions(*body, 0) && endsSigned(*list);
}

std::optional<AssuredName> assuredRecipient(const Element& element, Octets known) noexcept {
    auto recipient = element.isUniversal(framing::sequence) ? inside(element) : std::nullopt;
    if (!recipient || !nextIs(*recipient, isNumber)) {
        return std::nullopt;
    }
    auto name = sequenceIn(*recipient);
    const auto issuer = name ? name->next() : std::nullopt;
    const bool isNamed = issuer && (std::ranges::equal(issuer->whole, known) || isName(issuer));
    const auto serial = isNamed ? name->next() : std::nullopt;
    if (!serial || !isNumber(*serial) || !name->atEnd() || !isAlgorithm(*recipient)) {
        return std::nullopt;
    }
    const bool hasKey = nextIs(*recipient, [](const Element& key) { return isPrimitive(key, framing::octetString); });
    return hasKey && recipient->atEnd() ? std::optional(AssuredName{issuer->whole, serial->whole}) : std::nullopt;
}

} // namespace Norvane::Crypto::openssl
