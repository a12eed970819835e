#include "Mutations.h"

#include <algorithm>
#include <array>
#include <utility>

namespace fuzz {

Bytes Mutator::next() {
    Bytes octets = m_seeds[below(m_seeds.size())];
    for (std::size_t left = 1 + below(3); left != 0; --left) {
        auto root = below(6) == 0 ? std::nullopt : parse(octets);
        if (root) {
            changeTree(*root);
            octets = encode(*root);
        } else {
            changeOctets(octets);
        }
    }
    if (below(20) == 0) {
        octets.insert(octets.end(), below(4), static_cast<unsigned char>(below(256))); // what follows the structure
    }
    return octets;
}

void Mutator::changeOctets(Bytes& octets) {
    if (octets.empty()) {
        return;
    }
    const std::size_t at = below(octets.size());
    const auto place = octets.begin() + static_cast<std::ptrdiff_t>(at);
    switch (below(5)) {
    case 0:
        *place ^= static_cast<unsigned char>(1U << below(8));
        break;
    case 1:
        *place = static_cast<unsigned char>(below(256));
        break;
    case 2:
        octets.erase(place);
        break;
    case 3:
        octets.insert(place, static_cast<unsigned char>(below(256)));
        break;
    default:
        octets.resize(at);
        break;
    }
}

Node Mutator::fromASeed() {
    auto root = parse(m_seeds[below(m_seeds.size())]);
    const auto all = allOf(*root);
    return *all[below(all.size())];
}

/// The content of an element as that of a constructed string: in segments, that may be no segments at all.
void Mutator::inSegments(Node& node) {
    const Bytes content = std::exchange(node.content, {});
    node.setConstructed(true);
    std::vector<Node> segments;
    for (std::size_t at = 0; at < content.size() && segments.size() < 200;) {
        const std::size_t count = segments.size() == 199 ? content.size() - at : 1 + below(content.size() - at);
        Node segment;
        static constexpr std::array<unsigned char, 6> others{0x00, 0x03, 0x0C, 0x02, 0x80, 0x41};
        segment.setTag(below(6) == 0 ? others[below(others.size())] : 0x04);
        segment.content.assign(content.begin() + static_cast<std::ptrdiff_t>(at),
                               content.begin() + static_cast<std::ptrdiff_t>(at + count));
        at += count;
        if (below(8) == 0) {
            for (std::size_t levels = below(9); levels != 0; --levels) {
                Node outer;
                outer.setTag(0x24);
                outer.indefinite = below(2) == 0;
                outer.parts.push_back(std::move(segment));
                segment = std::move(outer);
            }
        }
        segments.push_back(std::move(segment));
    }
    node.parts = std::move(segments);
    node.indefinite = below(2) == 0;
}

void Mutator::changeElement(Node& node) {
    switch (below(10)) {
    case 0: // another number or class
        node.setTag(static_cast<unsigned char>((node.identifier.front() & 0x20U) | (below(4) << 6U) | below(0x1F)));
        break;
    case 1:
        node.setConstructed(!node.isConstructed());
        node.indefinite = node.indefinite && node.isConstructed();
        break;
    case 2:
    case 3:
        node.indefinite = node.isConstructed() && !node.indefinite;
        break;
    case 4:
        node.lengthOctets = 1 + below(10);
        break;
    case 5:
        if (node.parts.empty()) {
            inSegments(node);
        } else {
            for (const Node& part : std::exchange(node.parts, {})) {
                node.content.insert(node.content.end(), part.content.begin(), part.content.end());
            }
            node.setConstructed(false);
            node.indefinite = false;
        }
        break;
    case 6:
        changeOctets(node.content);
        break;
    case 7: {
        Node outer;
        outer.setTag(below(3) == 0 ? 0x24 : 0x30);
        for (std::size_t levels = below(20) == 0 ? 40 : 1; levels != 0; --levels) {
            outer.indefinite = below(2) == 0;
            outer.parts = {std::exchange(node, Node())};
            node = outer;
        }
        break;
    }
    case 8:
        node.content.clear();
        node.parts.clear();
        break;
    default: // the number in the long form
        node.identifier = {static_cast<unsigned char>(node.identifier.front() | 0x1FU),
                           static_cast<unsigned char>(node.tag & 0x7F)};
        break;
    }
}

void Mutator::changeList(Node& parent) {
    std::vector<Node>& parts = parent.parts;
    const std::size_t at = below(parts.size());
    const auto place = [&](std::size_t index) { return parts.begin() + static_cast<std::ptrdiff_t>(index); };
    switch (below(6)) {
    case 0: {
        const Node copy = parts[at];
        parts.insert(place(below(parts.size() + 1)), copy);
        break;
    }
    case 1:
        parts.erase(place(at));
        break;
    case 2:
        std::swap(parts[at], parts[below(parts.size())]);
        break;
    case 3:
        parts[at] = fromASeed();
        break;
    case 4:
        parts.insert(place(at), fromASeed());
        break;
    default: {
        Node other;
        other.setTag(static_cast<unsigned char>(below(256)) & 0xDFU);
        other.tag = other.identifier.front() & 0x1FU;
        if (other.tag == 0x1F) {
            other.identifier.push_back(0x21);
            other.tag = 0x21;
        }
        other.content.assign(below(4), 0x01);
        parts.insert(place(at), other);
        break;
    }
    }
}

void Mutator::changeTree(Node& root) {
    const auto all = allOf(root);
    Node& node = *all[below(all.size())];
    if (!node.parts.empty() && below(2) == 0) {
        changeList(node);
    } else {
        changeElement(node);
    }
}

} // namespace fuzz
