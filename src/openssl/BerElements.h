#pragma once

/// \file
/// Walking over the elements of BER (X.690) without decoding them: definite and indefinite lengths.

#include <cstddef>
#include <optional>
#include <span>
#include <vector>

namespace Norvane::Crypto::openssl {

using BerBytes = std::span<const unsigned char>;

/// One element, lent from the bytes that were walked over.
struct BerElement {
    int tag = 0;
    int tagClass = 0; ///< V_ASN1_UNIVERSAL, V_ASN1_CONTEXT_SPECIFIC, ...
    bool constructed = false;
    BerBytes whole;   ///< with header, and the end-of-contents octets of an indefinite length
    BerBytes content; ///< without

    /// An element of the universal class.
    [[nodiscard]] bool isUniversal(int number) const noexcept;
    /// An element of the context-specific class: [number].
    [[nodiscard]] bool isContext(int number) const noexcept;
};

/// The first element of `bytes`; nothing when they are none or end before it does. Takes time in proportion to the number
/// of elements inside one of indefinite length, and no memory, however deep they are nested.
std::optional<BerElement> firstElement(BerBytes bytes) noexcept;

/// The elements of a constructed element one after the other.
class BerElements {
public:
    explicit BerElements(const BerElement& parent) noexcept : m_rest(parent.content) {}

    /// Moves to the next element; nothing at the end, and when what follows is none.
    std::optional<BerElement> next() noexcept;
    /// The next element when it is of that kind, which is passed then.
    std::optional<BerElement> nextUniversal(int number) noexcept;
    std::optional<BerElement> nextContext(int number) noexcept;
    [[nodiscard]] bool atEnd() const noexcept { return m_rest.empty(); }

private:
    BerBytes m_rest;
};

/// An element of definite length around parts that are elements already.
std::vector<unsigned char> berConstructed(int tag, int tagClass, std::span<const BerBytes> parts);

} // namespace Norvane::Crypto::openssl
