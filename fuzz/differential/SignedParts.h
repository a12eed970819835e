#pragma once

/// \file
/// Where the parts of a SignedData are in its tree.

#include "Compared.h"

#include <string>
#include <vector>

namespace fuzz {

struct SignedParts {
    explicit SignedParts(Node& root);
    [[nodiscard]] std::vector<Node>& signers() const { return body->parts.back().parts; }
    [[nodiscard]] std::vector<Node>& algorithms() const { return body->parts[1].parts; }
    [[nodiscard]] std::vector<Node>& contentInfo() const { return body->parts[2].parts; }
    [[nodiscard]] bool isDetached() const { return contentInfo().size() < 2; }
    /// The key identifiers of signers.
    [[nodiscard]] Tagged strings() const;
    /// Certificates, lists, and the attributes of signers.
    [[nodiscard]] Tagged sets() const;

    Node* body;                   ///< null when it is no such message
    std::size_t certificates = 0; ///< 0: none
    std::size_t lists = 0;
};

/// The identifier of the digest algorithm of a signer.
const Node* digestOf(Node& signer);
/// The signed attributes of a signer, or null.
Node* attributesOf(Node& signer);
/// The unsigned ones, or null.
const Node* unsignedAttributesOf(Node& signer);
/// The identifier of its signature algorithm.
const Node* signatureAlgorithmOf(Node& signer);
/// The signature.
const Node* signatureOf(Node& signer);
/// How often an attribute stands there, and its values.
struct Attribute {
    std::size_t count = 0;
    std::vector<Node> values{};
};
Attribute attributeOf(const Node& attributes, const Bytes& type);

} // namespace fuzz
