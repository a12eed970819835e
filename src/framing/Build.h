#pragma once

/// \file
/// DER put together from parts.

#include "framing/Elements.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <vector>

namespace Norvane::Crypto::framing {

using Bytes = std::vector<unsigned char>;

/// A constructed element around parts that are elements already; empty beyond 2 GiB, as `constructed` is.
template <class... Parts> Bytes constructedOf(TagClass tagClass, std::uint32_t tag, const Parts&... parts) {
    const std::array<Octets, sizeof...(parts)> all{Octets(parts)...};
    return constructed(tagClass, tag, all);
}
template <class... Parts> Bytes sequenceOf(const Parts&... parts) {
    return constructedOf(TagClass::universal, sequence, parts...);
}

/// A primitive element of the universal class.
inline Bytes primitive(std::uint32_t tag, Octets content, TagClass tagClass = TagClass::universal) {
    Bytes out;
    out.reserve(headerSize(tag, content.size()) + content.size());
    appendHeader(out, tagClass, false, tag, content.size());
    out.insert(out.end(), content.begin(), content.end());
    return out;
}

/// A SET OF as DER has it: its members in the order of their encodings (X.690, 11.6), which `members` are in afterwards.
inline Bytes setOf(std::vector<Bytes>& members, TagClass tagClass = TagClass::universal, std::uint32_t tag = set) {
    std::sort(members.begin(), members.end());
    const std::vector<Octets> all(members.begin(), members.end());
    return constructed(tagClass, tag, all);
}

} // namespace Norvane::Crypto::framing
