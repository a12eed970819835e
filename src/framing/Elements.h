#pragma once

/// \file
/// The elements of BER and DER encodings one after the other, where it is known what to look for; see Walk.h for all of
/// them. Lengths may be definite or indefinite.

#include "framing/Header.h"

#include <cstddef>
#include <optional>
#include <span>
#include <vector>

namespace Norvane::Crypto::framing {

using Octets = std::span<const unsigned char>;

/// One element, lent from the octets that it was found in.
struct Element {
    Header header;
    Octets whole;   ///< with its header, and the end-of-contents octets of an indefinite length
    Octets content; ///< without

    /// An element of the universal class.
    [[nodiscard]] bool isUniversal(std::uint32_t number) const noexcept {
        return header.is(TagClass::universal, number);
    }
    /// An element of the context-specific class: [number].
    [[nodiscard]] bool isContext(std::uint32_t number) const noexcept {
        return header.is(TagClass::contextSpecific, number);
    }
};

/// The first element; nothing when there is none, or when the octets end before it does. Takes time in proportion to the
/// number of elements inside one of indefinite length, and no memory, however deep they are nested. The two octets that
/// end contents are no element.
std::optional<Element> firstElement(Octets octets) noexcept;

/// Takes elements from the front of octets.
class Elements {
public:
    explicit Elements(Octets octets) noexcept : m_rest(octets) {}
    /// Those that an element is made of.
    explicit Elements(const Element& parent) noexcept : m_rest(parent.content) {}

    /// Moves to the next element; nothing at the end, and when what follows is none.
    std::optional<Element> next() noexcept;
    /// The next element when it is of that kind, which is passed then.
    std::optional<Element> nextUniversal(std::uint32_t number) noexcept;
    std::optional<Element> nextContext(std::uint32_t number) noexcept;
    [[nodiscard]] bool atEnd() const noexcept { return m_rest.empty(); }
    /// What is left.
    [[nodiscard]] Octets rest() const noexcept { return m_rest; }

private:
    std::optional<Element> nextOf(TagClass tagClass, std::uint32_t number) noexcept;

    Octets m_rest;
};

/// A primitive INTEGER in as few octets as it takes (X.690, 8.3).
bool isInteger(const Element& element) noexcept;
/// A primitive INTEGER of at most 32 bits in as few octets as that takes, as the versions of CMS are. None stands for 0,
/// as OpenSSL takes it.
bool isSmallInteger(const Element& element) noexcept;
/// A primitive OBJECT IDENTIFIER that holds whole numbers, each in as few octets as it takes (X.690, 8.19).
bool isObjectIdentifier(const Element& element) noexcept;

/// A constructed element of definite length around parts that are elements already; empty when it would take 2 GiB or
/// more, which OpenSSL does not count.
std::vector<unsigned char> constructed(TagClass tagClass, std::uint32_t tag, std::span<const Octets> parts);

} // namespace Norvane::Crypto::framing
