#include "EnvelopeParts.h"

namespace fuzz {

EnvelopeParts::EnvelopeParts(Node& root) {
    Node* const type = at(root, {0});
    body = at(root, {1, 0});
    if (type == nullptr || body == nullptr || body->parts.size() < 3) {
        body = nullptr;
        return;
    }
    isAuthenticated = isIdentifier(type, identifierContent("1.2.840.113549.1.9.16.1.23"));
    std::size_t index = 1;
    if (body->parts[index].isContext(0)) {
        originator = index++;
    }
    recipients = index++;
    encrypted = index++;
    if (encrypted >= body->parts.size()) {
        body = nullptr;
        return;
    }
    Node& info = body->parts[encrypted];
    content = info.parts.size() > 2 && info.parts[2].isContext(0) ? &info.parts[2] : nullptr;
    if (index < body->parts.size() && body->parts[index].isContext(1)) {
        (isAuthenticated ? attributes : unprotected) = index++;
    }
    if (isAuthenticated) {
        tag = index++;
        if (index < body->parts.size() && body->parts[index].isContext(2)) {
            unprotected = index;
        }
        if (tag >= body->parts.size()) {
            tag = 0;
        }
    }
}

Tagged EnvelopeParts::strings() const {
    Tagged all{content};
    if (body != nullptr) {
        for (Node& recipient : body->parts[recipients].parts) {
            all.push_back(recipient.isUniversal(16) ? at(recipient, {1}) : at(recipient, {1, 0}));
            if (all.back() != nullptr && !all.back()->isContext(0)) {
                all.pop_back();
            }
        }
    }
    return all;
}

Tagged EnvelopeParts::sets() const {
    Tagged all;
    for (const std::size_t index : {originator, attributes, unprotected}) {
        if (body != nullptr && index != 0) {
            all.push_back(&body->parts[index]);
        }
    }
    return all;
}

} // namespace fuzz
