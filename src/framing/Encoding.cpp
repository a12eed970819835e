#include "framing/Encoding.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace Norvane::Crypto::framing {

Encoded primitive(TagClass tagClass, std::uint32_t tag, Octets content) {
    Encoded out;
    out.reserve(headerSize(tag, content.size()) + content.size());
    appendHeader(out, tagClass, false, tag, content.size());
    out.insert(out.end(), content.begin(), content.end());
    return out;
}

Encoded integerOf(std::uint64_t number) {
    std::array<unsigned char, 9> octets{}; // the first one stays 0, so that no number is negative
    for (std::size_t at = octets.size(); at-- != 1; number >>= 8U) {
        octets[at] = static_cast<unsigned char>(number);
    }
    std::size_t first = 0;
    while (first + 1 < octets.size() && octets[first] == 0 && octets[first + 1] < 0x80U) {
        ++first;
    }
    return primitive(TagClass::universal, integer, Octets(octets).subspan(first));
}

Encoded octetStringOf(Octets content) {
    return primitive(TagClass::universal, octetString, content);
}

Encoded bitStringOf(Octets content) {
    Encoded bits;
    bits.reserve(content.size() + 1);
    bits.push_back(0); // unused bits in the last octet
    bits.insert(bits.end(), content.begin(), content.end());
    return primitive(TagClass::universal, bitString, bits);
}

Encoded null() {
    constexpr std::uint32_t nullTag = 5;
    return primitive(TagClass::universal, nullTag, {});
}

Encoded sequenceOf(std::initializer_list<Octets> elements) {
    return constructed(TagClass::universal, sequence, {elements.begin(), elements.size()});
}

Encoded setOf(std::span<const Encoded> elements) {
    return constructed(TagClass::universal, set, std::vector<Octets>(elements.begin(), elements.end()));
}

Encoded contextOf(std::uint32_t tag, std::initializer_list<Octets> elements) {
    return constructed(TagClass::contextSpecific, tag, {elements.begin(), elements.size()});
}

void sortForDer(std::vector<Encoded>& elements) {
    // No element is the beginning of another one, so that nothing needs to be padded. (Comparing the vectors themselves
    // makes GCC 12 warn of what is not there.)
    std::sort(elements.begin(), elements.end(), [](const Encoded& left, const Encoded& right) {
        const int order = std::memcmp(left.data(), right.data(), std::min(left.size(), right.size()));
        return order < 0 || (order == 0 && left.size() < right.size());
    });
}

} // namespace Norvane::Crypto::framing
