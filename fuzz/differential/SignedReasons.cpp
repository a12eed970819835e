#include "Messages.h"
#include "Signed.h"
#include "SignedFaults.h"
#include "SignedParts.h"

#include <openssl/evp.h>

#include <algorithm>

namespace fuzz {

namespace {

bool dropLists(Node& root) {
    const SignedParts parts(root);
    if (parts.body == nullptr || parts.lists == 0) {
        return false;
    }
    parts.body->parts.erase(parts.body->parts.begin() + static_cast<std::ptrdiff_t>(parts.lists));
    return true;
}

bool dropUnsigned(Node& root) {
    const SignedParts parts(root);
    bool changed = false;
    if (parts.body != nullptr) {
        for (Node& signer : parts.signers()) {
            if (signer.parts.size() > 1 && signer.parts.back().isContext(1)) {
                signer.parts.pop_back();
                changed = true;
            }
        }
    }
    return changed;
}

/// Leaves the certificates that the reader found for the signers, once each.
bool keepNamed(Node& root, const std::vector<Bytes>& certificates) {
    const SignedParts parts(root);
    if (parts.body == nullptr || parts.certificates == 0) {
        return false;
    }
    std::vector<Bytes> each = certificates;
    std::sort(each.begin(), each.end());
    each.erase(std::unique(each.begin(), each.end()), each.end());
    Node& set = parts.body->parts[parts.certificates];
    set.parts.clear();
    set.content.clear();
    for (const Bytes& certificate : each) {
        if (auto node = parse(certificate)) {
            set.parts.push_back(std::move(*node));
        }
    }
    return true;
}

/// Leaves the digest algorithms that signers name.
bool keepUsed(Node& root) {
    const SignedParts parts(root);
    if (parts.body == nullptr) {
        return false;
    }
    std::vector<Bytes> used;
    for (Node& signer : parts.signers()) {
        if (const Node* const identifier = digestOf(signer)) {
            used.push_back(identifier->content);
        }
    }
    auto& algorithms = parts.algorithms();
    const auto isUnused = [&used](const Node& algorithm) {
        return algorithm.parts.empty() || std::find(used.begin(), used.end(), algorithm.parts[0].content) == used.end();
    };
    return std::erase_if(algorithms, isUnused) != 0;
}

/// Has each signer name the first digest algorithm of the message.
bool nameDigest(Node& root) {
    const SignedParts parts(root);
    if (parts.body == nullptr || parts.algorithms().empty()) {
        return false;
    }
    bool changed = false;
    for (Node& signer : parts.signers()) {
        Node* const algorithm = at(signer, {2});
        if (algorithm != nullptr && encode(*algorithm) != encode(parts.algorithms()[0])) {
            *algorithm = parts.algorithms()[0];
            changed = true;
        }
    }
    return changed;
}

/// Announces the digest algorithms that signers name (RFC 5652, 5.1: others may be refused). Where the content is behind
/// them there is no digest by another.
bool announceUsed(Node& root) {
    const SignedParts parts(root);
    if (parts.body == nullptr || !parts.isDetached()) {
        return false;
    }
    bool changed = false;
    for (Node& signer : parts.signers()) {
        const Node* const algorithm = at(signer, {2});
        const auto isIt = [&](Node& announced) { return isIdentifier(at(announced, {0}), digestOf(signer)->content); };
        if (digestOf(signer) != nullptr && std::none_of(parts.algorithms().begin(), parts.algorithms().end(), isIt)) {
            parts.algorithms().push_back(*algorithm);
            changed = true;
        }
    }
    return changed;
}

/// Leaves the identifiers of algorithms that have no parameters: all but RSASSA-PSS.
bool dropParameters(Node& root) {
    const SignedParts parts(root);
    bool changed = false;
    const auto drop = [&changed](Node* algorithm) {
        if (algorithm != nullptr && algorithm->parts.size() > 1 &&
            !isIdentifier(algorithm->parts.data(), identifierContent("1.2.840.113549.1.1.10"))) {
            algorithm->parts.resize(1);
            changed = true;
        }
    };
    if (parts.body != nullptr) {
        for (Node& algorithm : parts.algorithms()) {
            drop(&algorithm);
        }
        for (Node& signer : parts.signers()) {
            drop(at(signer, {2}));
            drop(at(signer, {attributesOf(signer) != nullptr ? 4U : 3U}));
        }
    }
    return changed;
}

/// Brings signed attributes into the order of DER.
bool sortAttributes(Node& root) {
    const auto inDer = [](const Node& node) {
        Node set;
        set.setTag(0x31);
        set.parts = {node};
        encodeInDer(set);
        return encode(set.parts[0]);
    };
    const auto shorter = [&inDer](const Node& left, const Node& right) { return inDer(left) < inDer(right); };
    const SignedParts parts(root);
    bool changed = false;
    if (parts.body != nullptr) {
        for (Node& signer : parts.signers()) {
            if (Node* const attributes = attributesOf(signer)) {
                const Bytes before = encode(*attributes);
                for (Node& attribute : attributes->parts) {
                    if (Node* const values = at(attribute, {1})) {
                        std::sort(values->parts.begin(), values->parts.end(), shorter);
                    }
                }
                std::sort(attributes->parts.begin(), attributes->parts.end(), shorter);
                changed = changed || encode(*attributes) != before;
            }
        }
    }
    return changed;
}

/// Brings signed attributes into DER: lengths, and strings in one piece.
bool encodeAttributes(Node& root) {
    const SignedParts parts(root);
    bool changed = false;
    if (parts.body != nullptr) {
        for (Node& signer : parts.signers()) {
            Node* const attributes = attributesOf(signer);
            changed = (attributes != nullptr && encodeInDer(*attributes)) || changed;
        }
    }
    return changed;
}

/// Joins the segments of octet strings in certificates.
bool encodeCertificates(Node& root) {
    const SignedParts parts(root);
    return parts.body != nullptr && parts.certificates != 0 && joinSegments(parts.body->parts[parts.certificates]);
}

struct OpensslKeyFree {
    void operator()(EVP_PKEY* key) const noexcept { EVP_PKEY_free(key); }
    void operator()(EVP_MD_CTX* context) const noexcept { EVP_MD_CTX_free(context); }
};

/// Whether a signature on an Edwards curve is right, by OpenSSL's keys and digests (RFC 8419).
bool isRightOnEdwardsCurve(Node& signer, const Bytes& content, const Bytes& certificate) {
    const norvauthority::X509Ptr holder = norvauthority::Certificate{certificate}.x509();
    const Node* const signature = signatureOf(signer);
    const Node* const algorithm = digestOf(signer);
    Bytes covered = content;
    if (Node* const given = attributesOf(signer)) {
        const Attribute digest = attributeOf(*given, identifierContent("1.2.840.113549.1.9.4"));
        Node attributes = *given;
        encodeInDer(attributes);
        attributes.setTag(0x31);
        covered = encode(attributes);
        const bool isShake = !isIdentifier(algorithm, identifierContent("2.16.840.1.101.3.4.2.3"));
        const EVP_MD* const type = isShake ? EVP_shake256() : EVP_sha512();
        const std::unique_ptr<EVP_MD_CTX, OpensslKeyFree> context(EVP_MD_CTX_new());
        Bytes value(64);
        if (EVP_DigestInit_ex(context.get(), type, nullptr) != 1 ||
            EVP_DigestUpdate(context.get(), content.data(), content.size()) != 1 ||
            (isShake ? EVP_DigestFinalXOF(context.get(), value.data(), value.size())
                     : EVP_DigestFinal_ex(context.get(), value.data(), nullptr)) != 1 ||
            digest.count != 1 || digest.values.size() != 1 || digest.values[0].content != value) {
            return false;
        }
    }
    const std::unique_ptr<EVP_MD_CTX, OpensslKeyFree> context(EVP_MD_CTX_new());
    return signature != nullptr &&
           EVP_DigestVerifyInit(context.get(), nullptr, nullptr, nullptr, X509_get0_pubkey(holder.get())) == 1 &&
           EVP_DigestVerify(context.get(), signature->content.data(), signature->content.size(), covered.data(),
                            covered.size()) == 1;
}

/// Whether it is of a structure that OpenSSL decodes, its signers on Edwards curves are right by their keys, and the others
/// by OpenSSL's CMS.
bool isRightOnEdwardsCurves(Node root, const Answer& reader, const Judged& judged) {
    const SignedParts parts(root);
    std::size_t consumed = 0;
    if (parts.body == nullptr || decoded(encode(root), consumed) == nullptr ||
        judged.certificates.size() != parts.signers().size()) {
        return false;
    }
    joinSegments(root);
    bool right = true;
    std::vector<Node> others;
    std::size_t index = 0;
    for (Node& signer : parts.signers()) {
        const Bytes& certificate = judged.certificates[index++];
        const Node* const algorithm = signatureAlgorithmOf(signer);
        if (isIdentifier(algorithm, identifierContent("1.3.101.112")) ||
            isIdentifier(algorithm, identifierContent("1.3.101.113"))) {
            right = right && isRightOnEdwardsCurve(signer, reader.content, certificate);
        } else {
            others.push_back(signer);
        }
    }
    if (!right || others.size() == parts.signers().size()) {
        return false;
    }
    parts.signers() = others;
    return others.empty() || opensslSays(encode(root)).accepted;
}

} // namespace

std::optional<Outcome> whyWider(const Bytes& octets, const Answer& reader, const Judged& judged) {
    const auto agrees = [&](const Node& message) {
        const Answer answer = opensslSays(encode(message));
        return answer.accepted && answer.content == reader.content;
    };
    const std::vector<Change> drops{
        {Outcome::unsignedAttributes, dropUnsigned},
        {Outcome::revocationLists, dropLists},
        {Outcome::otherCertificates, [&](Node& root) { return keepNamed(root, judged.certificates); }},
        {Outcome::otherDigestAlgorithms, keepUsed},
        {Outcome::digestsUnannounced, announceUsed},
        {Outcome::algorithmParameters, dropParameters},
        {Outcome::attributesInOrder, sortAttributes},
        {Outcome::nestedSegments, [](Node& root) { return joinSegments(root, SignedParts(root).strings()); }}};
    if (const auto outcome = explain(octets, drops, Outcome::severalWider, agrees)) {
        return outcome;
    }
    auto root = parse(octets);
    if (!root) {
        return std::nullopt;
    }
    Node named = *root;
    const bool isSignatureNamed = nameDigest(named);
    if (isSignatureNamed && agrees(named)) {
        return Outcome::signatureAsDigest;
    }
    for (const Change& drop : drops) {
        drop.apply(*root);
        drop.apply(named);
    }
    if (isSignatureNamed && agrees(named)) {
        return Outcome::severalWider;
    }
    if (isRightWith(encode(*root), judged.certificates)) {
        return Outcome::certificateExtensions;
    }
    return isRightOnEdwardsCurves(*root, reader, judged) ? std::optional(Outcome::edwardsCurve) : std::nullopt;
}

std::optional<Outcome> whyStricter(const Bytes& octets, const Answer& reader, const Answer& openssl,
                                   std::string& finding) {
    // Sets first: what they hold is not seen before.
    static const std::vector<Change> repairs{
        {Outcome::primitiveSet, [](Node& root) { return constructSets(root, SignedParts(root).sets()); }},
        {Outcome::segmentOfAnotherTag,
         [](Node& root) { return retagSegments(root, SignedParts(root).strings(), false); }},
        {Outcome::segmentOfTagZero, [](Node& root) { return retagSegments(root, SignedParts(root).strings(), true); }},
        {Outcome::attributesNotDer, encodeAttributes},
        {Outcome::certificateNotDer, encodeCertificates},
        {Outcome::tooDeep, flatten}};
    if (reader.costly) {
        return Outcome::budget;
    }
    const auto says = [&](const Node& message) {
        Judged judged;
        return readerSays(encode(message), judged, finding);
    };
    const auto agrees = [&](const Node& message) {
        const Answer answer = says(message);
        return answer.accepted && answer.content == openssl.content;
    };
    if (const auto outcome = explain(octets, repairs, Outcome::severalStricter, agrees)) {
        return outcome;
    }
    auto root = parse(octets);
    if (!root) {
        return std::nullopt;
    }
    if (const auto fault = faultIn(*root, reader.reason)) {
        return fault;
    }
    for (const Change& repair : repairs) {
        repair.apply(*root);
    }
    const Answer repaired = says(*root);
    if (faultIn(*root, repaired.reason)) {
        return Outcome::severalStricter;
    }
    finding += "; after all repairs: " + described(repaired);
    return std::nullopt;
}

} // namespace fuzz
