#pragma once

/// \file
/// Where the parts of an EnvelopedData or AuthEnvelopedData are in its tree.

#include "Compared.h"

namespace fuzz {

struct EnvelopeParts {
    explicit EnvelopeParts(Node& root);
    void erase(std::size_t index) const { body->parts.erase(body->parts.begin() + static_cast<std::ptrdiff_t>(index)); }
    /// The content, and the key identifiers of recipients and originators.
    [[nodiscard]] Tagged strings() const;
    /// Originator information and attributes.
    [[nodiscard]] Tagged sets() const;

    Node* body = nullptr; ///< null when it is no such message
    Node* content = nullptr;
    bool isAuthenticated = false;
    std::size_t originator = 0; ///< 0: none
    std::size_t recipients = 0;
    std::size_t encrypted = 0;
    std::size_t attributes = 0; ///< authenticated
    std::size_t tag = 0;
    std::size_t unprotected = 0;
};

} // namespace fuzz
