#pragma once

/// \file
/// A BER encoding as a tree that is changed and written again. It is taken apart by OpenSSL's ASN1_get_object, not by the
/// code that is judged with it.

#include <authority/Der.h>

#include <cstddef>
#include <functional>
#include <optional>
#include <vector>

namespace fuzz {

using norvauthority::Bytes;

struct Node {
    Bytes identifier; ///< the octets of class, form and number
    int tag = 0;      ///< the number
    bool indefinite = false;
    std::size_t lengthOctets = 1; ///< at least so many are written
    Bytes content;                ///< where there are no parts
    std::vector<Node> parts;

    [[nodiscard]] bool isConstructed() const noexcept { return (identifier.front() & 0x20U) != 0; }
    [[nodiscard]] bool isUniversal(int number) const noexcept {
        return (identifier.front() & 0xC0U) == 0 && tag == number;
    }
    [[nodiscard]] bool isContext(int number) const noexcept {
        return (identifier.front() & 0xC0U) == 0x80U && tag == number;
    }
    void setConstructed(bool constructed) noexcept {
        identifier.front() = static_cast<unsigned char>((identifier.front() & ~0x20U) | (constructed ? 0x20U : 0U));
    }
    /// An element with a short tag.
    void setTag(unsigned char octet) {
        identifier = {octet};
        tag = octet & 0x1F;
    }
};

/// The first element; what stands behind it is left out. What is inside an element without being elements stays octets.
std::optional<Node> parse(const Bytes& octets);
/// The elements that octets are made of; nothing when they are not.
std::optional<std::vector<Node>> parseAll(const Bytes& octets);
/// Lengths are those of what is in the tree now.
Bytes encode(const Node& node);
/// The length of the first element of some octets, if they hold all of it.
std::optional<std::size_t> elementLength(const Bytes& octets);

/// The element itself and all in it, outer ones first.
void forEach(Node& node, const std::function<void(Node&)>& visit);
std::vector<Node*> allOf(Node& node);
/// Levels of elements in one another.
std::size_t depthOf(const Node& node);

} // namespace fuzz
