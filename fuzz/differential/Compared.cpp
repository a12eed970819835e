#include "Compared.h"

#include <openssl/err.h>

#include <algorithm>
#include <random>
#include <stdexcept>

namespace fuzz {

namespace {

/// Somebody asked for an octet behind the structure.
struct ReadTooFar : std::logic_error {
    ReadTooFar() : std::logic_error("an octet behind the structure was asked for") {}
};

/// Delivers pieces of any size, and none behind the structure.
class PiecesBody : public Norvane::MediaInImpl {
public:
    explicit PiecesBody(const Bytes& octets)
        : m_octets(octets),
          m_random(static_cast<std::uint32_t>(octets.size())),
          m_structure(elementLength(octets)) {}

    using MediaInImpl::read;
    [[nodiscard]] bool atEnd() const override { return m_at == m_octets.size(); }
    [[nodiscard]] int peek() const override { return atEnd() ? -1 : m_octets[m_at]; }
    int read(unsigned char* out, unsigned int length) override {
        if (m_structure && length > *m_structure - m_at) {
            m_tooFar = true;
        }
        std::size_t count = std::min<std::size_t>(length, m_octets.size() - m_at);
        if (count > 1 && m_random() % 4 != 0) {
            count = 1 + m_random() % std::min<std::size_t>(count, 100);
        }
        std::copy_n(m_octets.begin() + static_cast<std::ptrdiff_t>(m_at), count, out);
        m_at += count;
        return static_cast<int>(count);
    }
    [[nodiscard]] std::size_t taken() const noexcept { return m_at; }
    [[nodiscard]] bool tooFar() const noexcept { return m_tooFar; }

private:
    const Bytes& m_octets;
    std::minstd_rand m_random;
    std::optional<std::size_t> m_structure;
    std::size_t m_at = 0;
    bool m_tooFar = false;
};

class Pieces : public Norvane::MediaIn {
public:
    explicit Pieces(const Bytes& octets) : MediaIn(Norvane::makeReference<PiecesBody, Norvane::MediaInImpl>(octets)) {}
    [[nodiscard]] const PiecesBody& body() const { return dynamic_cast<const PiecesBody&>(**this); }
};

bool isSegmented(const Node& node, const Tagged& strings) {
    return node.isConstructed() &&
           (node.isUniversal(4) || std::find(strings.begin(), strings.end(), &node) != strings.end());
}

/// Retags what stands in a string.
bool retagWithin(Node& string, bool ofTagZero) {
    bool changed = false;
    for (Node& segment : string.parts) {
        const bool isZero = segment.isUniversal(0);
        if (!segment.isUniversal(4) && isZero == ofTagZero) {
            segment.setTag(segment.isConstructed() ? 0x24 : 0x04);
            changed = true;
        }
        changed = retagWithin(segment, ofTagZero) || changed;
    }
    return changed;
}

void appendLeaves(const Node& node, Bytes& all) {
    all.insert(all.end(), node.content.begin(), node.content.end());
    for (const Node& part : node.parts) {
        appendLeaves(part, all);
    }
}

/// Whether these are what a set of CMS has in it: sequences, or choices with a tag.
bool areElements(const std::vector<Node>& parts) {
    return std::all_of(parts.begin(), parts.end(), [](const Node& part) {
        return part.isUniversal(16) || (part.isConstructed() && (part.identifier.front() & 0xC0U) == 0x80U);
    });
}

} // namespace

Bytes contentOf(BIO* memory) {
    char* data = nullptr;
    const long length = BIO_get_mem_data(memory, &data);
    return data == nullptr ? Bytes() : Bytes(data, data + length);
}

CmsPtr decoded(const Bytes& octets, std::size_t& consumed) {
    const unsigned char* at = octets.data();
    CmsPtr structure(d2i_CMS_ContentInfo(nullptr, &at, static_cast<long>(octets.size())));
    consumed = structure == nullptr ? 0 : static_cast<std::size_t>(at - octets.data());
    ERR_clear_error();
    return structure;
}

Answer inBothWays(const Bytes& octets, const std::function<Answer(Norvane::MediaIn&)>& read, std::string& finding) {
    Norvane::MemoryMediaIn memory(Norvane::Buffer(octets.data(), static_cast<unsigned int>(octets.size()), true));
    Answer answer = read(memory);
    const auto* body = dynamic_cast<const Norvane::BytesInMemory*>(memory.operator->());
    answer.consumed = octets.size() - body->left();

    Pieces pieces(octets);
    Answer other = read(pieces);
    other.consumed = pieces.body().taken();
    if (pieces.body().tooFar()) {
        finding = "an octet behind the structure was asked for";
    } else if (!answer.sameAs(other) || answer.text != other.text || answer.reason != other.reason) {
        finding = "in memory: " + described(answer) + "; in pieces: " + described(other);
    }
    return answer;
}

std::optional<Outcome> explain(const Bytes& octets, const std::vector<Change>& changes, Outcome several,
                               const std::function<bool(const Node&)>& holds) {
    const auto root = parse(octets);
    if (!root) {
        return std::nullopt;
    }
    for (const Change& change : changes) {
        Node copy = *root;
        if (change.apply(copy) && holds(copy)) {
            return change.outcome;
        }
    }
    const auto holdsAfter = [&](const std::function<bool(std::size_t)>& isMeant) {
        Node copy = *root;
        bool changed = false;
        for (std::size_t i = 0; i < changes.size(); ++i) {
            changed = (isMeant(i) && changes[i].apply(copy)) || changed;
        }
        return changed && holds(copy);
    };
    if (holdsAfter([](std::size_t /*index*/) { return true; })) {
        return several;
    }
    for (std::size_t first = 0; first < changes.size(); ++first) {
        for (std::size_t second = first + 1; second < changes.size(); ++second) {
            if (holdsAfter([=](std::size_t index) { return index == first || index == second; })) {
                return several;
            }
        }
    }
    return std::nullopt;
}

bool retagSegments(Node& root, const Tagged& strings, bool ofTagZero) {
    bool changed = false;
    forEach(root, [&](Node& node) {
        if (isSegmented(node, strings)) {
            changed = retagWithin(node, ofTagZero) || changed;
        }
    });
    return changed;
}

bool constructSets(Node& root, const Tagged& sets) {
    bool changed = false;
    forEach(root, [&](Node& node) {
        const bool isSet =
            node.isUniversal(16) || node.isUniversal(17) || std::find(sets.begin(), sets.end(), &node) != sets.end();
        const bool mayBeSet =
            node.isUniversal(16) || node.isUniversal(17) || (node.identifier.front() & 0xC0U) == 0x80U;
        if (node.isConstructed() || !mayBeSet) {
            return;
        }
        auto parts = parseAll(node.content);
        if (parts && (isSet || (!parts->empty() && areElements(*parts)))) {
            node.parts = std::move(*parts);
            node.content.clear();
            node.setConstructed(true);
            changed = true;
        }
    });
    return changed;
}

bool joinSegments(Node& root, const Tagged& strings) {
    bool changed = false;
    forEach(root, [&](Node& node) {
        if (isSegmented(node, strings)) {
            Bytes all;
            appendLeaves(node, all);
            node.content = std::move(all);
            node.parts.clear();
            node.setConstructed(false);
            node.indefinite = false;
            changed = true;
        }
    });
    return changed;
}

bool flatten(Node& root) {
    constexpr std::size_t deepest = 24; // the readers go 32 levels down
    const auto emptyAt = [](const auto& self, Node& node, std::size_t depth) -> bool {
        if (depth == deepest) {
            const bool changed = !node.parts.empty();
            node.parts.clear();
            return changed;
        }
        bool changed = false;
        for (Node& part : node.parts) {
            changed = self(self, part, depth + 1) || changed;
        }
        return changed;
    };
    return depthOf(root) > 32 && emptyAt(emptyAt, root, 1);
}

bool encodeInDer(Node& attributes) {
    const Bytes before = encode(attributes);
    const auto shorter = [](const Node& left, const Node& right) { return encode(left) < encode(right); };
    const auto normalise = [&shorter](const auto& self, Node& node) -> void {
        const bool isUniversal = (node.identifier.front() & 0xC0U) == 0;
        if (isUniversal && node.isConstructed() && !node.isUniversal(16) && !node.isUniversal(17)) {
            Bytes all;
            appendLeaves(node, all);
            node.content = std::move(all);
            node.parts.clear();
            node.setConstructed(false);
        }
        node.indefinite = false;
        node.lengthOctets = 1;
        if (node.tag < 0x1F) {
            node.setTag(
                static_cast<unsigned char>((node.identifier.front() & 0xE0U) | static_cast<unsigned int>(node.tag)));
        }
        for (Node& part : node.parts) {
            self(self, part);
        }
        if (node.isUniversal(17)) {
            std::sort(node.parts.begin(), node.parts.end(), shorter);
        }
    };
    normalise(normalise, attributes);
    std::sort(attributes.parts.begin(), attributes.parts.end(), shorter);
    return encode(attributes) != before;
}

Bytes identifierContent(const char* digits) {
    const Bytes encoded = norvauthority::der::oid(digits);
    return {encoded.begin() + 2, encoded.end()};
}

bool isIdentifier(const Node* node, const Bytes& content) {
    return node != nullptr && node->isUniversal(6) && node->content == content;
}

Node* at(Node& root, std::initializer_list<std::size_t> path) {
    Node* node = &root;
    for (const std::size_t index : path) {
        if (index >= node->parts.size()) {
            return nullptr;
        }
        node = &node->parts[index];
    }
    return node;
}

std::string opensslReasons() {
    std::string text = "OpenSSL";
    for (unsigned long code = ERR_get_error(); code != 0; code = ERR_get_error()) {
        const char* reason = ERR_reason_error_string(code);
        text += std::string(" / ") + (reason == nullptr ? "?" : reason);
    }
    return text;
}

std::string described(const Answer& answer) {
    if (!answer.accepted) {
        return "refused: " + answer.text;
    }
    return "accepted " + std::to_string(answer.consumed) + " octets with a content of " +
           std::to_string(answer.content.size()) + ", " + norvauthority::toHex(answer.content).substr(0, 80);
}

} // namespace fuzz
