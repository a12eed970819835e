#include "SignedParts.h"

namespace fuzz {

SignedParts::SignedParts(Node& root) : body(at(root, {1, 0})) {
    if (body == nullptr || body->parts.size() < 4) {
        body = nullptr;
        return;
    }
    for (std::size_t i = 3; i < body->parts.size(); ++i) {
        if (body->parts[i].isContext(0)) {
            certificates = i;
        } else if (body->parts[i].isContext(1)) {
            lists = i;
        }
    }
}

Tagged SignedParts::strings() const {
    Tagged all;
    if (body != nullptr) {
        for (Node& signer : signers()) {
            const Node* const name = at(signer, {1});
            if (name != nullptr && name->isContext(0)) {
                all.push_back(name);
            }
        }
    }
    return all;
}

Tagged SignedParts::sets() const {
    Tagged all;
    if (body != nullptr) {
        for (std::size_t i = 3; i < body->parts.size(); ++i) {
            all.push_back(&body->parts[i]);
        }
        for (Node& signer : signers()) {
            all.push_back(attributesOf(signer));
            all.push_back(signer.parts.empty() ? nullptr : &signer.parts.back());
        }
    }
    return all;
}

const Node* digestOf(Node& signer) {
    return at(signer, {2, 0});
}

Node* attributesOf(Node& signer) {
    Node* const fourth = at(signer, {3});
    return fourth != nullptr && fourth->isContext(0) ? fourth : nullptr;
}

const Node* signatureAlgorithmOf(Node& signer) {
    return at(signer, {attributesOf(signer) != nullptr ? 4U : 3U, 0});
}

const Node* signatureOf(Node& signer) {
    return at(signer, {attributesOf(signer) != nullptr ? 5U : 4U});
}

const Node* unsignedAttributesOf(Node& signer) {
    const Node* const last = at(signer, {attributesOf(signer) != nullptr ? 6U : 5U});
    return last != nullptr && last->isContext(1) ? last : nullptr;
}

Attribute attributeOf(const Node& attributes, const Bytes& type) {
    Attribute found;
    for (Node attribute : attributes.parts) {
        const Node* const values = at(attribute, {1});
        if (isIdentifier(at(attribute, {0}), type) && values != nullptr) {
            ++found.count;
            found.values.insert(found.values.end(), values->parts.begin(), values->parts.end());
        }
    }
    return found;
}

} // namespace fuzz
