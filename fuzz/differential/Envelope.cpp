#include "Compared.h"
#include "Messages.h"

#include <norvcrypto/CMSEnvelopeReader.h>
#include <norvcrypto/Key.h>

#include <openssl/err.h>
#include <openssl/evp.h>

#include <algorithm>
#include <cstring>
#include <list>

namespace fuzz {

namespace {

namespace CMS = Norvane::Crypto::CMS;
namespace NVX509 = Norvane::Crypto::NVX509;
using norvauthority::Identity;

/// Whose key opens.
enum class Opener : std::uint8_t { rsa, agreement, keyEncryptionKey, password };
constexpr std::array<Opener, 4> openers{Opener::rsa, Opener::agreement, Opener::keyEncryptionKey, Opener::password};

/// What the other side is spared, too.
constexpr std::uint32_t mostIterations = 4000;

const Identity* identityOf(Opener opener) {
    return opener == Opener::rsa ? &rsaRecipient() : opener == Opener::agreement ? &agreementRecipient() : nullptr;
}

const CMS::KeyListLookup& lookupOf(Opener opener) {
    static const CMS::KeyListLookup rsa(std::list<NVX509::KeyCertificatePair>{pairOf(rsaRecipient())});
    static const CMS::KeyListLookup agreement(std::list<NVX509::KeyCertificatePair>{pairOf(agreementRecipient())});
    return opener == Opener::rsa ? rsa : agreement;
}

std::string textOf(const Norvane::Exception& failure) {
    return failure.asString();
}

using Recipient = CMS::EnvelopeReader::Recipient;

/// What the reader says of every damage behind the head.
const char* const damaged = "damaged, or not the right key";

/// Opens with the secret that a recipient has; the `number`th of a password.
bool openSecret(CMS::EnvelopeReader& message, Opener opener, std::size_t number) {
    for (const Recipient& recipient : message.recipients()) {
        if (opener == Opener::keyEncryptionKey && recipient.kind() == Recipient::keyEncryptionKey) {
            const Norvane::Buffer identifier = recipient.keyIdentifier();
            const Bytes& own = keyEncryptionKeyIdentifier();
            if (std::equal(own.begin(), own.end(), identifier.data(), identifier.data() + identifier.length())) {
                return message.open(recipient, bufferOf(keyEncryptionKey()));
            }
        } else if (opener == Opener::password && recipient.kind() == Recipient::password && number-- == 0) {
            const std::string& password = messagePassword();
            return message.openWithPassword(recipient, bufferOf(Bytes(password.begin(), password.end())));
        }
    }
    return false;
}

Answer readOnce(Norvane::MediaIn& in, Opener opener, std::size_t number) {
    Answer answer;
    try {
        CMS::EnvelopeReader::Budget budget;
        budget.passwordIterations = mostIterations;
        CMS::EnvelopeReader message(in, budget);
        const bool opened =
            identityOf(opener) != nullptr ? message.open(lookupOf(opener)) : openSecret(message, opener, number);
        if (!opened) {
            answer.text = message.unsupported().empty() ? "no key" : "not supported: " + message.unsupported();
            return answer;
        }
        Norvane::MemoryMediaOut out;
        message.write(out);
        answer.accepted = message.verdict() == CMS::EnvelopeReader::Complete && message.atEnd();
        const Norvane::Buffer content = out.content();
        answer.content.assign(content.data(), content.data() + content.length());
    } catch (const Norvane::Crypto::TooCostlyException& failure) {
        answer.costly = true;
        answer.text = textOf(failure);
    } catch (const Norvane::Exception& failure) {
        const std::string text = textOf(failure);
        answer.text = text.find("the message is damaged") == std::string::npos ? text : damaged;
    }
    return answer;
}

/// What a message is opened to twice. Where no content key opens, a random one is used, so that nobody learns of it
/// (RFC 3218): one of some 256 such messages ends in what looks like padding. Only what comes out the same again is opened.
Answer readTwice(Norvane::MediaIn& in, const Bytes& octets, Opener opener, std::size_t number) {
    Answer answer = readOnce(in, opener, number);
    if (answer.accepted) {
        Norvane::MemoryMediaIn again(Norvane::Buffer(octets.data(), static_cast<unsigned int>(octets.size()), true));
        const Answer second = readOnce(again, opener, number);
        if (!second.accepted || second.content != answer.content) {
            answer = Answer();
            answer.text = damaged;
        }
    }
    return answer;
}

Answer readerSays(const Bytes& octets, Opener opener, std::string& finding) {
    Answer answer;
    const std::size_t tries = opener == Opener::password ? 3 : 1;
    for (std::size_t number = 0; number < tries && !answer.accepted; ++number) {
        const Answer next = inBothWays(
            octets, [&](Norvane::MediaIn& in) { return readTwice(in, octets, opener, number); }, finding);
        if (number == 0 || next.accepted) {
            answer = next;
        }
    }
    return answer;
}

/// Where the parts of a message are.
struct Parts {
    explicit Parts(Node& root) {
        Node* const type = at(root, {0});
        body = at(root, {1, 0});
        if (type == nullptr || body == nullptr || body->parts.size() < 3) {
            body = nullptr;
            return;
        }
        static const Bytes authenticated = norvauthority::der::oid("1.2.840.113549.1.9.16.1.23");
        isAuthenticated =
            std::equal(type->content.begin(), type->content.end(), authenticated.begin() + 2, authenticated.end());
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
    void erase(std::size_t index) const { body->parts.erase(body->parts.begin() + static_cast<std::ptrdiff_t>(index)); }

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

/// Whether a password would be hashed too often, by any recipient: the number behind the salt of PBKDF2.
bool isCostly(const Bytes& octets) {
    auto root = parse(octets);
    bool costly = false;
    static const Bytes pbkdf2 = norvauthority::der::oid("1.2.840.113549.1.5.12");
    if (!root) {
        return false;
    }
    forEach(*root, [&](Node& node) {
        const Node* const identifier = at(node, {0});
        const Node* const number = at(node, {1, 1});
        if (identifier != nullptr && number != nullptr &&
            std::equal(identifier->content.begin(), identifier->content.end(), pbkdf2.begin() + 2, pbkdf2.end())) {
            std::size_t size = number->content.size();
            for (const unsigned char octet : number->content) {
                if (octet != 0) {
                    break;
                }
                --size;
            }
            costly = costly || size > 2;
        }
    });
    return costly;
}

/// Has OpenSSL choose the key. 1 when it could.
int prepare(CMS_ContentInfo* structure, Opener opener) {
    if (opener == Opener::keyEncryptionKey) {
        Bytes key = keyEncryptionKey();
        Bytes identifier = keyEncryptionKeyIdentifier();
        return CMS_decrypt_set1_key(structure, key.data(), key.size(), identifier.data(), identifier.size());
    }
    std::string password = messagePassword();
    return CMS_decrypt_set1_password(structure, reinterpret_cast<unsigned char*>(password.data()),
                                     static_cast<ossl_ssize_t>(password.size()));
}

std::string opensslReason() {
    std::string text = "OpenSSL";
    for (unsigned long code = ERR_get_error(); code != 0; code = ERR_get_error()) {
        const char* reason = ERR_reason_error_string(code);
        text += std::string(" / ") + (reason == nullptr ? "?" : reason);
    }
    return text;
}

Answer opensslSays(const Bytes& octets, Opener opener) {
    Answer answer;
    const unsigned char* cursor = octets.data();
    const CmsPtr structure(d2i_CMS_ContentInfo(nullptr, &cursor, static_cast<long>(octets.size())));
    if (structure == nullptr) {
        answer.text = opensslReason();
        return answer;
    }
    answer.consumed = static_cast<std::size_t>(cursor - octets.data());
    if (opener == Opener::password && isCostly(octets)) {
        answer.costly = true;
        return answer;
    }
    const BioPtr out(BIO_new(BIO_s_mem()));
    if (const Identity* const identity = identityOf(opener)) {
        const auto certificate = identity->certificate.x509();
        // Without the random key that OpenSSL goes on with otherwise.
        answer.accepted = CMS_decrypt(structure.get(), identity->key.get(), certificate.get(), nullptr, out.get(),
                                      CMS_BINARY | CMS_DEBUG_DECRYPT) == 1;
    } else {
        answer.accepted = prepare(structure.get(), opener) == 1 &&
                          CMS_decrypt(structure.get(), nullptr, nullptr, nullptr, out.get(), CMS_BINARY) == 1;
    }
    answer.text = opensslReason();
    answer.content = contentOf(out.get());
    return answer;
}

/// The content of an authenticated message with attributes, by OpenSSL's keys and cipher: the message without them, and
/// they as what is authenticated beside the content (RFC 5083, 2.2).
Answer opensslSaysWithAttributes(const Node& message, Opener opener) {
    Answer answer;
    Node copy = message;
    const Parts parts(copy);
    if (parts.body == nullptr || parts.attributes == 0) {
        return opensslSays(encode(message), opener);
    }
    Node attributes = parts.body->parts[parts.attributes];
    attributes.setTag(0x31);
    attributes.indefinite = false;
    attributes.lengthOctets = 1;
    const Bytes associated = encode(attributes);
    parts.erase(parts.attributes);
    const CmsPtr structure = decoded(encode(copy), answer.consumed);
    if (structure == nullptr) {
        return answer;
    }
    const Identity* const identity = identityOf(opener);
    const bool hasKey = identity != nullptr ? CMS_decrypt_set1_pkey(structure.get(), identity->key.get(),
                                                                    identity->certificate.x509().get()) == 1
                                            : prepare(structure.get(), opener) == 1;
    const BioPtr chain(hasKey ? CMS_dataInit(structure.get(), nullptr) : nullptr);
    EVP_CIPHER_CTX* context = nullptr;
    int count = 0;
    if (chain != nullptr && BIO_get_cipher_ctx(chain.get(), &context) == 1 &&
        EVP_DecryptUpdate(context, nullptr, &count, associated.data(), static_cast<int>(associated.size())) == 1) {
        Bytes piece(1000);
        for (int got = BIO_read(chain.get(), piece.data(), 1000); got > 0;
             got = BIO_read(chain.get(), piece.data(), 1000)) {
            answer.content.insert(answer.content.end(), piece.begin(), piece.begin() + got);
        }
        answer.accepted = BIO_get_cipher_status(chain.get()) == 1;
    }
    ERR_clear_error();
    return answer;
}

// What the reader does not decode

bool dropOriginator(Node& root) {
    const Parts parts(root);
    if (parts.body == nullptr || parts.originator == 0) {
        return false;
    }
    parts.erase(parts.originator);
    return true;
}

bool dropUnprotected(Node& root) {
    const Parts parts(root);
    if (parts.body == nullptr || parts.unprotected == 0) {
        return false;
    }
    parts.erase(parts.unprotected);
    return true;
}

bool join(Node& root) {
    return joinSegments(root, Parts(root).content);
}

/// The message for one recipient, and in an agreement with one key, for each of them.
std::vector<Node> forOneRecipient(const Node& root) {
    Node copy = root;
    const Parts parts(copy);
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

// What the reader refuses

/// What GCMParameters and the tag make of a message that the reader refuses.
std::optional<Outcome> faultOfGcm(Node root) {
    const Parts parts(root);
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
    joinSegments(tag, nullptr);
    return announced < 12 || announced > 16 || tag.content.size() != announced ? std::optional(Outcome::shortTag)
                                                                               : std::nullopt;
}

/// Brings the authenticated attributes into DER.
bool encodeAttributes(Node& root) {
    const Parts parts(root);
    if (parts.body == nullptr || parts.attributes == 0) {
        return false;
    }
    Node& attributes = parts.body->parts[parts.attributes];
    const Bytes before = encode(attributes);
    forEach(attributes, [](Node& node) {
        node.indefinite = false;
        node.lengthOctets = 1;
        const auto shorter = [](const Node& left, const Node& right) { return encode(left) < encode(right); };
        if (node.isUniversal(17) || node.isContext(1)) {
            std::sort(node.parts.begin(), node.parts.end(), shorter);
        }
    });
    return encode(attributes) != before;
}

/// Names the type that the authenticated attributes name, or data: who changed it changed nothing that OpenSSL looks at.
bool nameContentType(Node& root) {
    const Parts parts(root);
    if (parts.body == nullptr || !parts.isAuthenticated) {
        return false;
    }
    Node* const type = at(parts.body->parts[parts.encrypted], {0});
    if (type == nullptr) {
        return false;
    }
    const auto contentOfOid = [](const char* oid) {
        const Bytes encoded = norvauthority::der::oid(oid);
        return Bytes(encoded.begin() + 2, encoded.end());
    };
    const Bytes before = type->content;
    type->content = contentOfOid("1.2.840.113549.1.7.1");
    if (parts.attributes != 0) {
        for (Node& attribute : parts.body->parts[parts.attributes].parts) {
            const Node* const identifier = at(attribute, {0});
            const Node* const value = at(attribute, {1, 0});
            if (identifier != nullptr && value != nullptr &&
                identifier->content == contentOfOid("1.2.840.113549.1.9.3")) {
                type->content = value->content;
            }
        }
    }
    return type->content != before;
}

bool joinBitStrings(Node& root) {
    bool changed = false;
    forEach(root, [&changed](Node& node) {
        if (node.isUniversal(3) && node.isConstructed()) {
            node.setTag(0x24);
            joinSegments(node, nullptr);
            node.setTag(0x03);
            changed = true;
        }
    });
    return changed;
}

/// Gives a cipher the vector of zeros that OpenSSL takes where there is none.
bool addVector(Node& root) {
    const Parts parts(root);
    Node* const algorithm = parts.body == nullptr ? nullptr : at(parts.body->parts[parts.encrypted], {1});
    if (algorithm == nullptr || algorithm->parts.empty() || algorithm->parts.size() > 2 || parts.isAuthenticated) {
        return false;
    }
    const bool isLong = algorithm->parts[0].content.size() == 9; // AES, not triple DES
    algorithm->parts.resize(1);
    Node vector;
    vector.setTag(0x04);
    vector.content.assign(isLong ? 16 : 8, 0);
    algorithm->parts.push_back(vector);
    return true;
}

std::optional<Outcome> whyStricter(const Bytes& octets, Opener opener, const Answer& reader, const Answer& openssl,
                                   std::string& finding) {
    if (reader.costly) {
        return Outcome::budget;
    }
    const std::vector<Change> repairs{
        {Outcome::segmentOfAnotherTag, [](Node& root) { return retagSegments(root, Parts(root).content, false); }},
        {Outcome::segmentOfTagZero, [](Node& root) { return retagSegments(root, Parts(root).content, true); }},
        {Outcome::primitiveSet, constructSets},
        {Outcome::attributesNotDer, encodeAttributes},
        {Outcome::contentTypeUnnamed, nameContentType},
        {Outcome::originatorKeyInSegments, joinBitStrings}};
    const auto agrees = [&](const Node& message) {
        const Answer answer = readerSays(encode(message), opener, finding);
        return answer.accepted && answer.content == openssl.content;
    };
    if (const auto outcome = explain(octets, repairs, Outcome::severalStricter, agrees)) {
        return outcome;
    }
    if (const auto outcome = explain(octets, {{Outcome::missingParameters, addVector}}, Outcome::unexplained, agrees)) {
        return outcome;
    }
    const auto root = parse(octets);
    if (root && depthOf(*root) >= 32) {
        return Outcome::tooDeep;
    }
    if (reader.text.find("not supported: ") != std::string::npos) {
        return Outcome::cipher;
    }
    return root ? faultOfGcm(*root) : std::nullopt;
}

Comparison compareFor(const Bytes& octets, Opener opener) {
    std::string finding;
    const Answer reader = readerSays(octets, opener, finding);
    const Answer openssl = opensslSays(octets, opener);
    const auto said = [&] { return "reader " + described(reader) + "\nOpenSSL " + described(openssl); };
    if (!finding.empty()) {
        return {Outcome::unexplained, finding};
    }
    if (openssl.costly) {
        return {reader.accepted ? Outcome::unexplained : Outcome::budget, said()};
    }
    if (reader.accepted == openssl.accepted) {
        return reader.sameAs(openssl) ? Comparison{reader.accepted ? Outcome::bothAccept : Outcome::bothRefuse, {}}
                                      : Comparison{Outcome::unexplained, said()};
    }
    const auto why =
        reader.accepted ? whyWider(octets, opener, reader) : whyStricter(octets, opener, reader, openssl, finding);
    return {finding.empty() ? why.value_or(Outcome::unexplained) : Outcome::unexplained, said() + finding};
}

/// Which of them either side finds a recipient for.
std::array<bool, openers.size()> concerned(const Bytes& octets) {
    std::array<bool, openers.size()> found{};
    try {
        Norvane::MemoryMediaIn in(Norvane::Buffer(octets.data(), static_cast<unsigned int>(octets.size()), true));
        CMS::EnvelopeReader message(in);
        for (const Recipient& recipient : message.recipients()) {
            if (recipient.kind() != Recipient::other) {
                found[static_cast<std::size_t>(recipient.kind())] = true;
            }
        }
    } catch (const Norvane::Exception& failure) {
        static_cast<void>(failure);
    }
    std::size_t consumed = 0;
    const CmsPtr structure = decoded(octets, consumed);
    const auto* recipients = structure == nullptr ? nullptr : CMS_get0_RecipientInfos(structure.get());
    for (int i = 0; i < sk_CMS_RecipientInfo_num(recipients); ++i) {
        const int type = CMS_RecipientInfo_type(sk_CMS_RecipientInfo_value(recipients, i));
        if (type >= CMS_RECIPINFO_TRANS && type <= CMS_RECIPINFO_PASS) {
            found[static_cast<std::size_t>(type)] = true;
        }
    }
    ERR_clear_error();
    if (std::none_of(found.begin(), found.end(), [](bool one) { return one; })) {
        found[0] = true; // refused in both ways, then
    }
    return found;
}

} // namespace

Comparison compareEnvelope(const Bytes& octets) {
    Comparison worst{Outcome::bothRefuse, {}};
    const auto wanted = concerned(octets);
    for (const Opener opener : openers) {
        if (!wanted[static_cast<std::size_t>(opener)]) {
            continue;
        }
        Comparison comparison = compareFor(octets, opener);
        if (comparison.outcome == Outcome::unexplained) {
            comparison.detail = "opener " + std::to_string(static_cast<int>(opener)) + ": " + comparison.detail;
            return comparison;
        }
        if (worst.outcome == Outcome::bothRefuse ||
            (worst.outcome == Outcome::bothAccept && comparison.outcome != Outcome::bothRefuse)) {
            worst = comparison;
        }
    }
    return worst;
}

} // namespace fuzz
