#include "Compared.h"

#include <openssl/err.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
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

bool isSegmented(const Node& node, const Node* content) {
    return node.isConstructed() && (node.isUniversal(4) || &node == content);
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
    Node all = *root;
    bool changed = false;
    for (const Change& change : changes) {
        changed = change.apply(all) || changed;
    }
    return changed && holds(all) ? std::optional(several) : std::nullopt;
}

bool retagSegments(Node& root, Node* content, bool ofTagZero) {
    bool changed = false;
    forEach(root, [&](Node& node) {
        if (isSegmented(node, content)) {
            changed = retagWithin(node, ofTagZero) || changed;
        }
    });
    return changed;
}

bool constructSets(Node& root) {
    bool changed = false;
    forEach(root, [&changed](Node& node) {
        const bool mayBeSet =
            node.isUniversal(16) || node.isUniversal(17) || (node.identifier.front() & 0xC0U) == 0x80U;
        if (node.isConstructed() || !mayBeSet) {
            return;
        }
        auto parts = parseAll(node.content);
        if (parts && (node.isUniversal(16) || node.isUniversal(17) || (!parts->empty() && areElements(*parts)))) {
            node.parts = std::move(*parts);
            node.content.clear();
            node.setConstructed(true);
            changed = true;
        }
    });
    return changed;
}

bool joinSegments(Node& root, Node* content) {
    bool changed = false;
    forEach(root, [&](Node& node) {
        if (isSegmented(node, content)) {
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

std::string described(const Answer& answer) {
    if (!answer.accepted) {
        return "refused: " + answer.text;
    }
    return "accepted " + std::to_string(answer.consumed) + " octets with a content of " +
           std::to_string(answer.content.size()) + ", " + norvauthority::toHex(answer.content).substr(0, 80);
}

const char* textOf(Outcome outcome) noexcept {
    switch (outcome) {
    case Outcome::bothAccept:
        return "both accept, the same content and length";
    case Outcome::bothRefuse:
        return "both refuse";
    case Outcome::segmentOfAnotherTag:
        return "a segment that is no octet string (X.690, 8.7.3.2)";
    case Outcome::segmentOfTagZero:
        return "a segment of tag 00, which ends contents (X.690, 8.1.5)";
    case Outcome::primitiveSet:
        return "a set or sequence that says to be primitive (X.690, 8.12.1)";
    case Outcome::budget:
        return "more than the budget";
    case Outcome::tooDeep:
        return "elements within elements to more than 32 levels";
    case Outcome::shortTag:
        return "GCM: a tag of less than 12 octets, or not of aes-ICVlen (RFC 5084, 3.2)";
    case Outcome::gcmParameters:
        return "GCM: parameters that are none (RFC 5084, 3.2)";
    case Outcome::cipher:
        return "a cipher that is not supported, named";
    case Outcome::missingParameters:
        return "a cipher without an initialisation vector, or behind one that is none (RFC 3565, 4.1)";
    case Outcome::attributesNotDer:
        return "authenticated or signed attributes that are not in DER (RFC 5083, 2.1; RFC 5652, 5.4)";
    case Outcome::contentTypeUnnamed:
        return "authenticated content other than data without the attribute that says so (RFC 5083, 2.1)";
    case Outcome::severalStricter:
        return "several of the above together";
    case Outcome::attributesForbidden:
        return "signed attributes that RFC 5652 forbids";
    case Outcome::algorithmsDiffer:
        return "algorithms of a signer that contradict each other";
    case Outcome::notSupported:
        return "an algorithm of a signature that is not supported, named";
    case Outcome::certificateRefused:
        return "a certificate that is refused, with a reason";
    case Outcome::otherRecipients:
        return "recipients that were not chosen are not decoded";
    case Outcome::originatorKeyInSegments:
        return "an originator's key as a bit string in segments";
    case Outcome::signatureAsDigest:
        return "a signature algorithm in the place of the digest algorithm in it";
    case Outcome::certificateExtensions:
        return "a certificate with extensions that OpenSSL finds invalid, which are not judged here";
    case Outcome::originatorInformation:
        return "originator information is not decoded";
    case Outcome::unprotectedAttributes:
        return "unprotected attributes are not decoded";
    case Outcome::authenticatedAttributes:
        return "authenticated attributes (RFC 5083), which older releases of OpenSSL 3.0 do not decode";
    case Outcome::nestedSegments:
        return "segments within segments to more levels than OpenSSL's five";
    case Outcome::otherCertificates:
        return "certificates that no signer names are not decoded";
    case Outcome::revocationLists:
        return "revocation lists are not decoded";
    case Outcome::unsignedAttributes:
        return "unsigned attributes are not decoded";
    case Outcome::otherDigestAlgorithms:
        return "digest algorithms that no signer uses are not looked up";
    case Outcome::edwardsCurve:
        return "Ed25519 and Ed448, which OpenSSL 3.0's CMS cannot verify";
    case Outcome::attributesInOrder:
        return "signed attributes out of order: what is signed is their DER (RFC 5652, 5.4)";
    case Outcome::severalWider:
        return "several of the above together ";
    case Outcome::unexplained:
        return "UNEXPLAINED";
    }
    return "";
}

bool isStricter(Outcome outcome) noexcept {
    return outcome > Outcome::bothRefuse && outcome < Outcome::otherRecipients;
}

bool isWider(Outcome outcome) noexcept {
    return outcome >= Outcome::otherRecipients && outcome < Outcome::unexplained;
}

void require(const Comparison& comparison, const Bytes& octets) {
    if (comparison.outcome == Outcome::unexplained) {
        std::fprintf(stderr, "%s\n%s\n", comparison.detail.c_str(), norvauthority::toHex(octets).c_str());
        std::abort();
    }
}

} // namespace fuzz
