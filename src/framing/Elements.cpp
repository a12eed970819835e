#include "framing/Elements.h"

#include <limits>

namespace Norvane::Crypto::framing {

namespace {

/// The header in front of an element that the octets hold to its end, or of which they do not tell where it ends.
std::optional<Header> headerOf(Octets octets) noexcept {
    Header header;
    if (readHeader(octets.data(), octets.size(), header) != HeaderState::complete ||
        header.contentLength > octets.size() - header.size) {
        return std::nullopt;
    }
    return header;
}

/// How many octets lie before the end-of-contents octets that belong to the level where `octets` begin.
std::optional<std::size_t> lengthOfContents(Octets octets) noexcept {
    std::size_t depth = 0;
    for (std::size_t at = 0;;) {
        const auto header = headerOf(octets.subspan(at));
        if (!header) {
            return std::nullopt;
        }
        if (header->isEndOfContents()) {
            if (depth == 0) {
                return at;
            }
            --depth;
        }
        depth += header->indefinite ? 1U : 0U;
        at += header->size + static_cast<std::size_t>(header->contentLength);
    }
}

} // namespace

std::optional<Element> firstElement(Octets octets) noexcept {
    const auto header = headerOf(octets);
    if (!header || header->isEndOfContents()) {
        return std::nullopt;
    }
    const Octets behind = octets.subspan(header->size);
    const auto length = header->indefinite ? lengthOfContents(behind) : static_cast<std::size_t>(header->contentLength);
    if (!length) {
        return std::nullopt;
    }
    constexpr std::size_t endOfContents = 2;
    return Element{*header, octets.first(header->size + *length + (header->indefinite ? endOfContents : 0)),
                   behind.first(*length)};
}

std::optional<Element> Elements::next() noexcept {
    const auto element = firstElement(m_rest);
    if (element) {
        m_rest = m_rest.subspan(element->whole.size());
    }
    return element;
}

std::optional<Element> Elements::nextUniversal(std::uint32_t number) noexcept {
    return nextOf(TagClass::universal, number);
}

std::optional<Element> Elements::nextContext(std::uint32_t number) noexcept {
    return nextOf(TagClass::contextSpecific, number);
}

std::optional<Element> Elements::nextOf(TagClass tagClass, std::uint32_t number) noexcept {
    // Only the header is looked at before it is known that the element is wanted.
    const auto header = headerOf(m_rest);
    return header && header->is(tagClass, number) ? next() : std::nullopt;
}

bool isInteger(const Element& element) noexcept {
    constexpr unsigned int sign = 0x80;
    const Octets number = element.content;
    const bool isPadded =
        number.size() > 1 && ((number[0] == 0 && number[1] < sign) || (number[0] == 0xFF && number[1] >= sign));
    return element.isUniversal(integer) && !element.header.constructed && !number.empty() && !isPadded;
}

bool isSmallInteger(const Element& element) noexcept {
    constexpr std::size_t most = 4;
    const bool isEmpty = element.isUniversal(integer) && !element.header.constructed && element.content.empty();
    return isEmpty || (isInteger(element) && element.content.size() <= most);
}

bool isObjectIdentifier(const Element& element) noexcept {
    constexpr unsigned int more = 0x80;
    if (!element.isUniversal(objectIdentifier) || element.header.constructed || element.content.empty() ||
        (element.content.back() & more) != 0) {
        return false;
    }
    bool begins = true;
    for (const unsigned char octet : element.content) {
        if (begins && octet == more) {
            return false;
        }
        begins = (octet & more) == 0;
    }
    return true;
}

std::vector<unsigned char> constructed(TagClass tagClass, std::uint32_t tag, std::span<const Octets> parts) {
    constexpr std::size_t most = std::numeric_limits<std::int32_t>::max();
    std::size_t length = 0;
    for (const Octets part : parts) {
        length += part.size();
    }
    const std::size_t ofHeader = headerSize(tag, length);
    if (length > most - ofHeader) {
        return {};
    }
    std::vector<unsigned char> out;
    out.reserve(ofHeader + length);
    appendHeader(out, tagClass, true, tag, length);
    for (const Octets part : parts) {
        out.insert(out.end(), part.begin(), part.end());
    }
    return out;
}

} // namespace Norvane::Crypto::framing
