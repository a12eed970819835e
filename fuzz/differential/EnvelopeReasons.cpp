#include "Envelope.h"
#include "EnvelopeParts.h"

#include <algorithm>

namespace fuzz {

namespace {

// What the reader does not decode

bool dropOriginator(Node& root) {
    const EnvelopeParts parts(root);
    if (parts.body == nullptr || parts.originator == 0) {
        return false;
    }
    parts.erase(parts.originator);
    return true;
}

bool dropUnprotected(Node& root) {
    const EnvelopeParts parts(root);
    if (parts.body == nullptr || parts.unprotected == 0) {
        return false;
    }
    parts.erase(parts.unprotected);
    return true;
}

bool join(Node& root) {
    return joinSegments(root, EnvelopeParts(root).strings());
}

/// The message for one recipient, and in an agreement with one key, for each of them.
std::vector<Node> forOneRecipient(const Node& root) {
    Node copy = root;
    const EnvelopeParts parts(copy);
    std::vector<Node> all;
    if (parts.body == nullptr) {
        return all;
    }
    const std::vector<Node> recipients = parts.body->parts[parts.recipients].parts;
    for (const Node& recipient : recipients) {
        parts.body->parts[parts.recipients].parts = {recipient};
        all.push_back(copy);
        if (recipient.isContext(1) && !recipient.parts.empty() && recipient.parts.back().parts.size() > 1) {
            Node& keys = parts.body->parts[parts.recipients].parts[0].parts.back();
            for (const Node& key : recipient.parts.back().parts) {
                keys.parts = {key};
                all.push_back(copy);
            }
        }
    }
    return all;
}

// What the reader refuses

/// What GCMParameters and the tag make of a message that the reader refuses.
std::optional<Outcome> faultOfGcm(Node root) {
    const EnvelopeParts parts(root);
    if (parts.body == nullptr || !parts.isAuthenticated || parts.tag == 0) {
        return std::nullopt;
    }
    const Node* const parameters = at(parts.body->parts[parts.encrypted], {1, 1});
    if (parameters == nullptr || !parameters->isUniversal(16) || !parameters->isConstructed() ||
        parameters->parts.empty() || parameters->parts.size() > 2 || !parameters->parts[0].isUniversal(4) ||
        parameters->parts[0].isConstructed()) {
        return Outcome::gcmParameters;
    }
    std::size_t announced = 12;
    if (parameters->parts.size() == 2) {
        const Node& number = parameters->parts[1];
        if (!number.isUniversal(2) || number.isConstructed() || number.content.size() != 1) {
            return Outcome::gcmParameters;
        }
        announced = number.content[0];
    }
    Node& tag = parts.body->parts[parts.tag];
    joinSegments(tag);
    return announced < 12 || announced > 16 || tag.content.size() != announced ? std::optional(Outcome::shortTag)
                                                                               : std::nullopt;
}

/// Brings the authenticated attributes into DER.
bool encodeAttributes(Node& root) {
    const EnvelopeParts parts(root);
    return parts.body != nullptr && parts.attributes != 0 && encodeInDer(parts.body->parts[parts.attributes]);
}

/// Names the type that the authenticated attributes name, or data: who changed it changed nothing that OpenSSL looks at.
bool nameContentType(Node& root) {
    const EnvelopeParts parts(root);
    if (parts.body == nullptr || !parts.isAuthenticated) {
        return false;
    }
    Node* const type = at(parts.body->parts[parts.encrypted], {0});
    if (type == nullptr) {
        return false;
    }
    const Bytes before = type->content;
    type->content = identifierContent("1.2.840.113549.1.7.1");
    if (parts.attributes != 0) {
        for (Node& attribute : parts.body->parts[parts.attributes].parts) {
            const Node* const identifier = at(attribute, {0});
            const Node* const value = at(attribute, {1, 0});
            if (value != nullptr && isIdentifier(identifier, identifierContent("1.2.840.113549.1.9.3"))) {
                type->content = value->content;
            }
        }
    }
    return type->content != before;
}

/// Joins the originators' keys.
bool joinBitStrings(Node& root) {
    bool changed = false;
    forEach(root, [&changed](Node& node) {
        if (node.isUniversal(3) && node.isConstructed()) {
            node.setTag(0x24);
            joinSegments(node);
            node.setTag(0x03);
            changed = true;
        }
    });
    return changed;
}

/// Names RSA where a recipient by RSA names an algorithm that is none.
bool nameTransport(Node& root) {
    const EnvelopeParts parts(root);
    bool changed = false;
    if (parts.body != nullptr) {
        for (Node& recipient : parts.body->parts[parts.recipients].parts) {
            Node* const identifier = recipient.isUniversal(16) ? at(recipient, {2, 0}) : nullptr;
            if (identifier != nullptr && !isIdentifier(identifier, identifierContent("1.2.840.113549.1.1.1")) &&
                !isIdentifier(identifier, identifierContent("1.2.840.113549.1.1.7"))) {
                identifier->content = identifierContent("1.2.840.113549.1.1.1");
                changed = true;
            }
        }
    }
    return changed;
}

/// Gives a cipher the vector of zeros that OpenSSL takes where there is none.
bool addVector(Node& root) {
    const EnvelopeParts parts(root);
    Node* const algorithm = parts.body == nullptr ? nullptr : at(parts.body->parts[parts.encrypted], {1});
    if (algorithm == nullptr || algorithm->parts.empty() || algorithm->parts.size() > 2 || parts.isAuthenticated) {
        return false;
    }
    const std::size_t length = algorithm->parts[0].content.size() == 9 ? 16 : 8; // AES; triple DES
    Node* const given = at(*algorithm, {1});
    if (given != nullptr && given->isUniversal(4) && given->content.size() == length) {
        return false;
    }
    algorithm->parts.resize(1);
    Node vector;
    vector.setTag(0x04);
    vector.content.assign(length, 0);
    algorithm->parts.push_back(vector);
    return true;
}

const std::vector<Change>& repairs() {
    // Sets first: what they hold is not seen before.
    static const std::vector<Change> all{
        {Outcome::primitiveSet, [](Node& root) { return constructSets(root, EnvelopeParts(root).sets()); }},
        {Outcome::segmentOfAnotherTag,
         [](Node& root) { return retagSegments(root, EnvelopeParts(root).strings(), false); }},
        {Outcome::segmentOfTagZero,
         [](Node& root) { return retagSegments(root, EnvelopeParts(root).strings(), true); }},
        {Outcome::attributesNotDer, encodeAttributes},
        {Outcome::contentTypeUnnamed, nameContentType},
        {Outcome::originatorKeyInSegments, joinBitStrings},
        {Outcome::missingParameters, addVector},
        {Outcome::transportUnknown, nameTransport},
        {Outcome::tooDeep, flatten}};
    return all;
}

} // namespace

std::optional<Outcome> whyWider(const Bytes& octets, Opener opener, const Answer& reader) {
    const auto root = parse(octets);
    if (!root) {
        return std::nullopt;
    }
    const auto agrees = [&](const Node& message) {
        const Answer answer = opensslSays(encode(message), opener);
        return answer.accepted && answer.content == reader.content;
    };
    const std::vector<Change> drops{{Outcome::originatorInformation, dropOriginator},
                                    {Outcome::unprotectedAttributes, dropUnprotected},
                                    {Outcome::nestedSegments, join}};
    for (const Change& drop : drops) {
        Node copy = *root;
        if (drop.apply(copy) && agrees(copy)) {
            return drop.outcome;
        }
    }
    const auto singles = forOneRecipient(*root);
    if (std::any_of(singles.begin(), singles.end(), agrees)) {
        return Outcome::otherRecipients;
    }
    const auto agreesWithAttributes = [&](const Node& message) {
        const Answer answer = opensslSaysWithAttributes(message, opener);
        return answer.accepted && answer.content == reader.content;
    };
    if (agreesWithAttributes(*root)) {
        return Outcome::authenticatedAttributes;
    }
    for (Node message : singles) {
        for (const Change& drop : drops) {
            drop.apply(message);
        }
        if (agreesWithAttributes(message)) {
            return Outcome::severalWider;
        }
    }
    return std::nullopt;
}

std::optional<Outcome> whyStricter(const Bytes& octets, Opener opener, const Answer& reader, const Answer& openssl,
                                   std::string& finding) {
    if (reader.costly) {
        return Outcome::budget;
    }
    const auto agrees = [&](const Node& message) {
        const Answer answer = readerSays(encode(message), opener, finding);
        return answer.accepted && answer.content == openssl.content;
    };
    if (const auto outcome = explain(octets, repairs(), Outcome::severalStricter, agrees)) {
        return outcome;
    }
    auto root = parse(octets);
    if (!root) {
        return std::nullopt;
    }
    // What cannot be repaired, as nobody else knows the key: it is seen, in the message or under the rest.
    const auto fault = faultOfGcm(*root);
    if (reader.text.find("not supported: ") != std::string::npos) {
        return Outcome::cipher;
    }
    for (const Change& repair : repairs()) {
        repair.apply(*root);
    }
    return fault ? fault : faultOfGcm(*root) ? std::optional(Outcome::severalStricter) : std::nullopt;
}

} // namespace fuzz
