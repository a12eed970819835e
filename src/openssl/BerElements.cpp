#include "openssl/BerElements.h"

#include "openssl/ErrorQueue.h"

#include <openssl/asn1.h>

#include <climits>

namespace Norvane::Crypto::openssl {

namespace {

struct Header {
    int tag;
    int tagClass;
    bool constructed;
    bool indefinite;
    std::size_t header;
    std::size_t content; ///< 0 for an indefinite length
};

std::optional<Header> headerOf(BerBytes bytes) noexcept {
    if (bytes.size() < 2 || bytes.size() > static_cast<std::size_t>(LONG_MAX)) {
        return std::nullopt;
    }
    const ErrorMark mark;
    const unsigned char* at = bytes.data();
    long length = 0;
    int tag = 0;
    int tagClass = 0;
    const int flags = ASN1_get_object(&at, &length, &tag, &tagClass, static_cast<long>(bytes.size()));
    const bool indefinite = (flags & 1) != 0;
    const auto header = static_cast<std::size_t>(at - bytes.data());
    if ((flags & 0x80) != 0 || length < 0 || static_cast<std::size_t>(length) > bytes.size() - header) {
        return std::nullopt;
    }
    return Header{tag,        tagClass, (flags & V_ASN1_CONSTRUCTED) != 0,
                  indefinite, header,   indefinite ? 0 : static_cast<std::size_t>(length)};
}

bool isEndOfContents(BerBytes bytes) noexcept {
    return bytes.size() >= 2 && bytes[0] == 0 && bytes[1] == 0;
}

/// How many bytes lie before the end-of-contents octets that belong to the level where `bytes` begin.
std::optional<std::size_t> lengthOfContents(BerBytes bytes) noexcept {
    std::size_t depth = 0;
    for (std::size_t at = 0;;) {
        const BerBytes rest = bytes.subspan(at);
        if (isEndOfContents(rest)) {
            if (depth == 0) {
                return at;
            }
            --depth;
            at += 2;
            continue;
        }
        const auto header = headerOf(rest);
        if (!header) {
            return std::nullopt;
        }
        depth += header->indefinite ? 1U : 0U;
        at += header->header + header->content;
    }
}

} // namespace

bool BerElement::isUniversal(int number) const noexcept {
    return tagClass == V_ASN1_UNIVERSAL && tag == number;
}

bool BerElement::isContext(int number) const noexcept {
    return tagClass == V_ASN1_CONTEXT_SPECIFIC && tag == number;
}

std::optional<BerElement> firstElement(BerBytes bytes) noexcept {
    const auto header = headerOf(bytes);
    if (!header || isEndOfContents(bytes)) {
        return std::nullopt;
    }
    BerElement element{header->tag, header->tagClass, header->constructed, {}, {}};
    if (!header->indefinite) {
        element.whole = bytes.first(header->header + header->content);
        element.content = element.whole.subspan(header->header);
        return element;
    }
    const auto length = lengthOfContents(bytes.subspan(header->header));
    if (!length) {
        return std::nullopt;
    }
    element.content = bytes.subspan(header->header, *length);
    element.whole = bytes.first(header->header + *length + 2);
    return element;
}

std::optional<BerElement> BerElements::next() noexcept {
    const auto element = firstElement(m_rest);
    if (element) {
        m_rest = m_rest.subspan(element->whole.size());
    }
    return element;
}

std::optional<BerElement> BerElements::nextUniversal(int number) noexcept {
    const BerBytes before = m_rest;
    const auto element = next();
    if (element && element->isUniversal(number)) {
        return element;
    }
    m_rest = before;
    return std::nullopt;
}

std::optional<BerElement> BerElements::nextContext(int number) noexcept {
    const BerBytes before = m_rest;
    const auto element = next();
    if (element && element->isContext(number)) {
        return element;
    }
    m_rest = before;
    return std::nullopt;
}

std::vector<unsigned char> berConstructed(int tag, int tagClass, std::span<const BerBytes> parts) {
    std::size_t length = 0;
    for (const BerBytes part : parts) {
        length += part.size();
    }
    const int total = length > INT_MAX ? -1 : ASN1_object_size(1, static_cast<int>(length), tag);
    if (total < 0) {
        return {};
    }
    std::vector<unsigned char> out(static_cast<std::size_t>(total) - length);
    out.reserve(static_cast<std::size_t>(total));
    unsigned char* at = out.data();
    ASN1_put_object(&at, 1, static_cast<int>(length), tag, tagClass);
    for (const BerBytes part : parts) {
        out.insert(out.end(), part.begin(), part.end());
    }
    return out;
}

} // namespace Norvane::Crypto::openssl
