#include "TlvMutator.h"

#include "Dictionary.h"

#include <algorithm>

namespace fuzz {

namespace {

/// Trees that are deeper are not read again by `parse`.
constexpr std::size_t deepest = 140;
/// Strings within strings that are taken apart.
constexpr std::size_t deepestString = 6;

/// Takes apart what strings hold: a string with parts is written as its content and these.
void openStrings(Node& node, std::size_t depth) {
    if (node.parts.empty() && !node.isConstructed() && depth != 0) {
        const bool isBits = node.isUniversal(3) && !node.content.empty() && node.content.front() == 0;
        if (!isBits && node.isUniversal(3)) {
            return;
        }
        const auto start = node.content.begin() + (isBits ? 1 : 0);
        // Whoever holds elements begins with a sequence, a set or another string, nearly always.
        if (start != node.content.end() && (*start == 0x30 || *start == 0x31 || *start == 0x04 || *start == 0x03)) {
            auto parts = parseAll(Bytes(start, node.content.end()));
            if (parts) {
                node.content.erase(start, node.content.end());
                node.parts = std::move(*parts);
            }
        }
        --depth;
    }
    for (Node& part : node.parts) {
        openStrings(part, depth);
    }
}

/// All elements of an input below one that is not written; nothing when there are none.
std::optional<Node> treeOf(const Bytes& octets) {
    auto parts = parseAll(octets);
    if (!parts || parts->empty()) {
        return std::nullopt;
    }
    Node root;
    root.setTag(0x30);
    root.parts = std::move(*parts);
    openStrings(root, deepestString);
    return root;
}

bool isEndOfContents(const Node& node) {
    return node.identifier == Bytes{0} && node.content.empty() && node.parts.empty() && node.lengthOctets <= 1;
}

/// Indefinite lengths where nothing else can be told from their end.
void repair(Node& node) {
    node.indefinite = node.indefinite && node.isConstructed() && node.content.empty() &&
                      std::none_of(node.parts.begin(), node.parts.end(), isEndOfContents);
    for (Node& part : node.parts) {
        repair(part);
    }
}

Bytes octetsOfParts(const Node& root) {
    Bytes out;
    for (const Node& part : root.parts) {
        const Bytes one = encode(part);
        out.insert(out.end(), one.begin(), one.end());
    }
    return out;
}

} // namespace

TlvMutator::TlvMutator(OctetsMutator octets, std::uint64_t number, Lengths lengths)
    : m_octets(octets),
      m_lengths(lengths),
      m_random(number),
      m_trees(elements(), number) {}

Bytes TlvMutator::changeOctets(Bytes octets, std::size_t most) {
    const std::size_t count = std::min(octets.size(), most);
    octets.resize(most);
    octets.resize(m_octets(octets.data(), count, most));
    return octets;
}

void TlvMutator::changeContent(Node& node, std::size_t most) {
    node.content = changeOctets(node.content, std::min(most, node.content.size() + 1 + below(64)));
}

/// Doubles, and doubles again: what costs more than it is long shows in numbers.
void TlvMutator::repeat(Node& parent, std::size_t most) {
    const Node copy = parent.parts[below(parent.parts.size())];
    const std::size_t room = most / (2 * encode(copy).size());
    const std::size_t count = std::min(room, std::size_t{1} << below(10));
    parent.parts.insert(parent.parts.begin() + static_cast<std::ptrdiff_t>(below(parent.parts.size() + 1)), count,
                        copy);
}

/// Puts a copy of a branch into a tree: in the place of one of the same tag, mostly.
void TlvMutator::graft(Node& root, const Node& branch) {
    std::vector<Node*> places;
    for (Node* one : allOf(root)) {
        if (one != &root && one->identifier == branch.identifier) {
            places.push_back(one);
        }
    }
    const Node copy = branch; // it may be part of what is replaced
    if (!places.empty() && below(4) != 0) {
        *places[below(places.size())] = copy;
        return;
    }
    const auto all = allOf(root);
    auto& parts = all[below(all.size())]->parts;
    parts.insert(parts.begin() + static_cast<std::ptrdiff_t>(below(parts.size() + 1)), copy);
}

void TlvMutator::changeOnce(Node& root, std::size_t most) {
    const auto all = allOf(root);
    Node& node = *all[below(all.size())];
    switch (below(8)) {
    case 0:
    case 1:
    case 2:
        if (&node != &root && node.parts.empty()) {
            changeContent(node, most);
            return;
        }
        break;
    case 3:
        graft(root, *all[below(all.size())]);
        return;
    case 4:
        if (!node.parts.empty() && below(2) == 0) {
            repeat(node, most);
            return;
        }
        if (node.parts.size() == 1 && &node != &root) {
            const Node inner = node.parts.front();
            node = inner;
            return;
        }
        break;
    default:
        break;
    }
    if (!root.parts.empty()) {
        m_trees.changeTree(root.parts.size() == 1 ? root.parts.front() : root);
    }
}

/// Spoils the length of one element, which is looked for among the octets.
void TlvMutator::spoilALength(Bytes& octets, Node& root) {
    const auto all = allOf(root);
    const Node& node = *all[below(all.size())];
    const Bytes spoilt = encode(node);
    const auto at = std::search(octets.begin(), octets.end(), spoilt.begin(), spoilt.end());
    const auto length = at + static_cast<std::ptrdiff_t>(node.identifier.size());
    if (at != octets.end() && length != octets.end()) {
        *length =
            below(2) == 0 ? static_cast<unsigned char>(*length + below(5) - 2) : static_cast<unsigned char>(below(256));
    }
}

std::optional<Bytes> TlvMutator::written(Node& root, std::size_t most) {
    // What takes part in an element is one: the outermost has neither tag nor length.
    root.setTag(0x30);
    root.indefinite = false;
    root.content.clear();
    repair(root);
    if (root.parts.empty() || depthOf(root) > deepest) {
        return std::nullopt;
    }
    Bytes octets = octetsOfParts(root);
    if (octets.size() > most) {
        return std::nullopt;
    }
    if (m_lengths == Lengths::sometimesWrong && below(16) == 0) {
        spoilALength(octets, root);
    }
    return octets;
}

Bytes TlvMutator::change(const Bytes& input, std::size_t most) {
    const auto tree = treeOf(input);
    if (!tree || (m_lengths == Lengths::sometimesWrong && below(16) == 0)) {
        return changeOctets(input, most);
    }
    for (int attempt = 0; attempt < 4; ++attempt) {
        Node root = *tree;
        for (std::size_t left = std::size_t{1} << below(4); left != 0; --left) {
            changeOnce(root, most);
        }
        auto octets = written(root, most);
        if (octets && *octets != input) {
            return *octets;
        }
    }
    return input.size() <= most ? input : changeOctets(input, most);
}

Bytes TlvMutator::cross(const Bytes& into, const Bytes& from, std::size_t most) {
    const auto first = treeOf(into);
    auto second = treeOf(from);
    if (!first || !second) {
        return changeOctets(into, most);
    }
    const auto branches = allOf(*second);
    for (int attempt = 0; attempt < 4; ++attempt) {
        Node root = *first;
        for (std::size_t left = 1 + below(3); left != 0; --left) {
            graft(root, *branches[below(branches.size())]);
        }
        if (auto octets = written(root, most)) {
            return *octets;
        }
    }
    return into.size() <= most ? into : changeOctets(into, most);
}

} // namespace fuzz
