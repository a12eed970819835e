#include "Tree.h"

#include <openssl/asn1.h>
#include <openssl/err.h>

#include <algorithm>

namespace fuzz {

namespace {

/// Deeper ones stay octets.
constexpr std::size_t deepest = 150;

struct Header {
    std::size_t size = 0;
    std::size_t identifierSize = 0;
    int tag = 0;
    bool constructed = false;
    bool indefinite = false;
    std::size_t length = 0;
};

std::optional<Header> headerAt(const Bytes& octets, std::size_t at, std::size_t end) {
    if (at == end) {
        return std::nullopt;
    }
    const unsigned char* cursor = octets.data() + at;
    long length = 0;
    int tag = 0;
    int tagClass = 0;
    int flags = ASN1_get_object(&cursor, &length, &tag, &tagClass, static_cast<long>(end - at));
    auto size = static_cast<std::size_t>(cursor - octets.data()) - at;
    constexpr std::size_t longestHeader = 160;
    if ((flags & 0x80) != 0 && end - at <= longestHeader) {
        // Until 3.0.19 OpenSSL wants an octet behind a length of several octets, also when the length is nought.
        Bytes longer(octets.begin() + static_cast<std::ptrdiff_t>(at),
                     octets.begin() + static_cast<std::ptrdiff_t>(end));
        longer.push_back(0);
        cursor = longer.data();
        flags = ASN1_get_object(&cursor, &length, &tag, &tagClass, static_cast<long>(longer.size()));
        size = static_cast<std::size_t>(cursor - longer.data());
        flags = size == end - at && length == 0 ? flags : 0x80;
    }
    ERR_clear_error();
    if ((flags & 0x80) != 0) {
        return std::nullopt;
    }
    Header header;
    header.size = size;
    header.identifierSize = 1;
    if ((octets[at] & 0x1FU) == 0x1FU) {
        while ((octets[at + header.identifierSize++] & 0x80U) != 0) {
        }
    }
    header.tag = tag;
    header.constructed = (flags & V_ASN1_CONSTRUCTED) != 0;
    header.indefinite = (flags & 1) != 0;
    header.length = header.indefinite ? 0 : static_cast<std::size_t>(length);
    return header;
}

bool endsHere(const Bytes& octets, std::size_t at, std::size_t end) {
    return end - at >= 2 && octets[at] == 0 && octets[at + 1] == 0;
}

/// \param at is moved behind the element
std::optional<Node> parseAt(const Bytes& octets, std::size_t& at, std::size_t end, std::size_t depth) {
    const auto header = headerAt(octets, at, end);
    if (!header || depth == deepest) {
        return std::nullopt;
    }
    const auto place = [&](std::size_t index) { return octets.begin() + static_cast<std::ptrdiff_t>(index); };
    Node node;
    node.identifier.assign(place(at), place(at + header->identifierSize));
    node.tag = header->tag;
    node.indefinite = header->indefinite;
    node.lengthOctets = header->size - header->identifierSize;
    std::size_t inside = at + header->size;
    if (header->indefinite) {
        while (!endsHere(octets, inside, end)) {
            auto part = parseAt(octets, inside, end, depth + 1);
            if (!part) {
                return std::nullopt;
            }
            node.parts.push_back(std::move(*part));
        }
        at = inside + 2;
        return node;
    }
    const std::size_t behind = inside + header->length;
    node.content.assign(place(inside), place(behind));
    at = behind;
    if (header->constructed) {
        std::vector<Node> parts;
        while (inside < behind) {
            auto part = parseAt(octets, inside, behind, depth + 1);
            if (!part) {
                return node; // octets, as they are
            }
            parts.push_back(std::move(*part));
        }
        node.parts = std::move(parts);
        node.content.clear();
    }
    return node;
}

void append(Bytes& out, const Bytes& more) {
    out.insert(out.end(), more.begin(), more.end());
}

void encodeTo(Bytes& out, const Node& node) {
    append(out, node.identifier);
    Bytes content = node.content;
    for (const Node& part : node.parts) {
        encodeTo(content, part);
    }
    if (node.indefinite) {
        out.push_back(0x80);
        append(out, content);
        out.insert(out.end(), 2, 0);
        return;
    }
    Bytes length;
    for (std::size_t left = content.size(); left != 0; left >>= 8U) {
        length.insert(length.begin(), static_cast<unsigned char>(left & 0xFFU));
    }
    if (content.size() < 0x80 && node.lengthOctets <= 1) {
        out.push_back(static_cast<unsigned char>(content.size()));
    } else {
        while (length.empty() || length.size() + 1 < node.lengthOctets) {
            length.insert(length.begin(), 0);
        }
        out.push_back(static_cast<unsigned char>(0x80U | length.size()));
        append(out, length);
    }
    append(out, content);
}

} // namespace

std::optional<Node> parse(const Bytes& octets) {
    std::size_t at = 0;
    return parseAt(octets, at, octets.size(), 0);
}

std::optional<std::vector<Node>> parseAll(const Bytes& octets) {
    std::vector<Node> all;
    for (std::size_t at = 0; at < octets.size();) {
        auto node = parseAt(octets, at, octets.size(), 0);
        if (!node) {
            return std::nullopt;
        }
        all.push_back(std::move(*node));
    }
    return all;
}

Bytes encode(const Node& node) {
    Bytes out;
    encodeTo(out, node);
    return out;
}

std::optional<std::size_t> elementLength(const Bytes& octets) {
    std::size_t open = 0;
    std::size_t at = 0;
    do {
        if (open != 0 && endsHere(octets, at, octets.size())) {
            --open;
            at += 2;
            continue;
        }
        const auto header = headerAt(octets, at, octets.size());
        if (!header) {
            return std::nullopt;
        }
        open += header->indefinite ? 1U : 0U;
        at += header->size + header->length;
    } while (open != 0);
    return at;
}

void forEach(Node& node, const std::function<void(Node&)>& visit) {
    visit(node);
    for (Node& part : node.parts) {
        forEach(part, visit);
    }
}

std::vector<Node*> allOf(Node& node) {
    std::vector<Node*> all;
    forEach(node, [&all](Node& one) { all.push_back(&one); });
    return all;
}

std::size_t depthOf(const Node& node) {
    std::size_t most = 0;
    for (const Node& part : node.parts) {
        most = std::max(most, depthOf(part));
    }
    return most + 1;
}

} // namespace fuzz
