#include "CMSStreamReader/EnvelopeRecipients.h"

#include "framing/LentMediaIn.h"
#include "framing/Reader.h"
#include "openssl/AlgorithmName.h"
#include "openssl/ErrorQueue.h"
#include "openssl/KeyComparison.h"
#include "openssl/KeyTransport.h"

#include <norvcmsg/Exception.h>

#include <algorithm>
#include <array>

namespace Norvane::Crypto::CMS {

using framing::Element;
using framing::Elements;
using framing::Octets;
using framing::TagClass;
using Kind = EnvelopeReader::Recipient::Kind;
using Recipient = EnvelopeReader::Recipient;

namespace {

/// The tags of RecipientInfo (RFC 5652, 6.2).
enum Choice : std::uint32_t { agreementTag = 1, keyTag = 2, passwordTag = 3, otherTag = 4 };

/// The most octets of what the keys of an agreement have in common, since it is decoded for each of them.
constexpr std::size_t s_longestAgreement = 16384;

Octets whole(const std::optional<Element>& element) noexcept {
    return element ? element->whole : Octets();
}

/// The next element when it is a SEQUENCE, which is constructed whatever OpenSSL's decoder lets pass elsewhere.
std::optional<Element> nextSequence(Elements& elements) {
    const auto sequence = elements.nextUniversal(framing::sequence);
    return sequence && sequence->header.constructed ? sequence : std::nullopt;
}

/// Passes the version that a recipient begins with.
bool passVersion(Elements& elements) {
    const auto version = elements.nextUniversal(framing::integer);
    return version && framing::isSmallInteger(*version);
}

/// What a KEKIdentifier and a RecipientKeyIdentifier consist of (RFC 5652, 6.2.2 and 6.2.3): the identifier, a date and
/// another attribute. No octets when it is something else.
Octets readKeyIdentifier(const Element& identifier) {
    Elements elements(identifier);
    const Octets name = whole(elements.nextUniversal(framing::octetString));
    const auto date = elements.nextUniversal(framing::generalizedTime);
    if (!elements.atEnd()) {
        const auto attribute = nextSequence(elements);
        Elements parts(attribute ? attribute->content : Octets());
        const auto type = parts.nextUniversal(framing::objectIdentifier);
        if (!type || !framing::isObjectIdentifier(*type) || (!parts.atEnd() && !parts.next()) || !parts.atEnd()) {
            return {};
        }
    }
    return identifier.header.constructed && elements.atEnd() && (!date || !date->header.constructed) ? name : Octets();
}

/// The algorithm and the encrypted key that end most kinds; false when there is something else.
bool readEnd(Elements& elements, RecipientParts& parts) {
    parts.algorithm = whole(elements.nextUniversal(framing::sequence));
    parts.encryptedKey = whole(elements.nextUniversal(framing::octetString));
    return !parts.algorithm.empty() && !parts.encryptedKey.empty() && elements.atEnd();
}

bool readKeyTransport(const Element& recipient, RecipientParts& parts) {
    Elements elements(recipient);
    const bool hasVersion = passVersion(elements);
    parts.name = whole(nextSequence(elements));
    if (parts.name.empty()) {
        parts.namedBy = NamedBy::subjectKeyIdentifier;
        parts.name = whole(elements.nextContext(0));
    }
    parts.kind = Recipient::keyTransport;
    return recipient.header.constructed && hasVersion && !parts.name.empty() && readEnd(elements, parts);
}

bool readKeyEncryptionKey(const Element& recipient, RecipientParts& parts) {
    Elements elements(recipient);
    const bool hasVersion = passVersion(elements);
    if (const auto identifier = nextSequence(elements)) {
        parts.name = readKeyIdentifier(*identifier);
    }
    parts.kind = Recipient::keyEncryptionKey;
    return recipient.header.constructed && hasVersion && !parts.name.empty() && readEnd(elements, parts);
}

bool readPassword(const Element& recipient, RecipientParts& parts) {
    Elements elements(recipient);
    const bool hasVersion = passVersion(elements);
    const auto derivation = elements.nextContext(0);
    parts.derivation = whole(derivation);
    parts.kind = Recipient::password;
    return recipient.header.constructed && hasVersion && (!derivation || derivation->header.constructed) &&
           readEnd(elements, parts);
}

/// Whether there is one octet string, and nothing else, within an explicit tag.
bool isOctetString(const Element& tagged) {
    Elements elements(tagged);
    return tagged.header.constructed && elements.nextUniversal(framing::octetString) && elements.atEnd();
}

/// What is common to all keys of an agreement; the elements of those.
std::optional<Elements> readAgreement(const Element& recipient, RecipientParts& parts) {
    Elements elements(recipient);
    const bool hasVersion = passVersion(elements);
    const auto originator = elements.nextContext(0);
    const auto material = elements.nextContext(1);
    parts.kind = Recipient::keyAgreement;
    parts.originator = originator ? originator->content : Octets();
    parts.userKeyingMaterial = material ? material->content : Octets();
    parts.algorithm = whole(elements.nextUniversal(framing::sequence));
    const auto keys = nextSequence(elements);
    if (!recipient.header.constructed || !hasVersion || !originator || !originator->header.constructed ||
        (material && !isOctetString(*material)) || !keys || !elements.atEnd() ||
        parts.algorithm.size() + parts.originator.size() + parts.userKeyingMaterial.size() > s_longestAgreement) {
        return std::nullopt;
    }
    return Elements(*keys);
}

/// Whose key it is (RFC 5652, 6.2.2): a name, or a key identifier with what else identifies a key.
bool readAgreementKey(const Element& key, RecipientParts& parts) {
    Elements elements(key);
    parts.name = whole(nextSequence(elements));
    if (parts.name.empty()) {
        parts.namedBy = NamedBy::subjectKeyIdentifier;
        if (const auto identifier = elements.nextContext(0)) {
            parts.name = readKeyIdentifier(*identifier);
        }
    }
    parts.encryptedKey = whole(elements.nextUniversal(framing::octetString));
    return key.isUniversal(framing::sequence) && key.header.constructed && !parts.name.empty() &&
           !parts.encryptedKey.empty() && elements.atEnd();
}

RecipientParts other(const Element& recipient) {
    RecipientParts parts;
    if (recipient.isContext(otherTag)) {
        parts.algorithm = whole(Elements(recipient).nextUniversal(framing::objectIdentifier));
    }
    return parts;
}

/// The element under the universal tag of a sequence, which an implicit tag stands for.
std::vector<unsigned char> asSequence(Octets element) {
    const auto tagged = framing::firstElement(element);
    const std::array<Octets, 1> content{tagged ? tagged->content : Octets()};
    return framing::constructed(TagClass::universal, framing::sequence, content);
}

openssl::AlgorithmPtr decoded(Octets algorithm) {
    return algorithm.empty() ? nullptr : openssl::decodeAlgorithm(algorithm);
}

} // namespace

std::optional<RecipientParts> RecipientWalk::nextKey() {
    const auto key = m_keys.next();
    if (!key) {
        return std::nullopt;
    }
    RecipientParts parts = m_agreement;
    return readAgreementKey(*key, parts) ? parts : RecipientParts();
}

std::optional<RecipientParts> RecipientWalk::next() {
    while (m_keys.atEnd()) {
        const auto recipient = m_recipients.next();
        if (!recipient) {
            return std::nullopt;
        }
        if (recipient->isContext(agreementTag)) {
            if (const auto keys = readAgreement(*recipient, m_agreement)) {
                m_keys = *keys;
                continue;
            }
            return RecipientParts();
        }
        RecipientParts parts;
        const bool good = recipient->isUniversal(framing::sequence) ? readKeyTransport(*recipient, parts)
                          : recipient->isContext(keyTag)            ? readKeyEncryptionKey(*recipient, parts)
                          : recipient->isContext(passwordTag)       ? readPassword(*recipient, parts)
                                                                    : false;
        return good ? parts : other(*recipient);
    }
    return nextKey();
}

std::uint64_t countRecipients(Octets recipients, std::uint64_t limit) {
    Elements all(recipients);
    std::uint64_t count = 0;
    for (auto recipient = all.next(); recipient && count <= limit; recipient = all.next()) {
        RecipientParts parts;
        auto keys = recipient->isContext(agreementTag) ? readAgreement(*recipient, parts) : std::nullopt;
        if (!keys || keys->atEnd()) {
            ++count;
            continue;
        }
        while (count <= limit && keys->next()) {
            ++count;
        }
        if (count <= limit && !keys->atEnd()) {
            throw framing::Broken(framing::Fault::malformed);
        }
    }
    if (count <= limit && !all.atEnd()) {
        throw framing::Broken(framing::Fault::malformed);
    }
    return count;
}

std::optional<CertificateIdentifier> identifierOf(const RecipientParts& parts) {
    if (parts.kind != Recipient::keyTransport && parts.kind != Recipient::keyAgreement) {
        return std::nullopt;
    }
    if (parts.namedBy == NamedBy::subjectKeyIdentifier) {
        const auto octets = octetsIn(parts.name);
        return CertificateIdentifier::fromSubjectKeyIdentifier(
            Buffer(octets.data(), static_cast<unsigned int>(octets.size()), true));
    }
    try {
        return CertificateIdentifier::fromIssuerAndSerialNumber(
            Buffer(parts.name.data(), static_cast<unsigned int>(parts.name.size()), true));
    } catch (const Exception&) {
        return std::nullopt; // no name that a certificate could have
    }
}

bool mayFind(const KeyLookup& keys, const RecipientParts& parts) {
    const auto name = framing::firstElement(parts.name);
    if (!name || (parts.namedBy == NamedBy::subjectKeyIdentifier && name->header.constructed)) {
        return name.has_value();
    }
    const Octets octets = parts.namedBy == NamedBy::subjectKeyIdentifier ? name->content : name->whole;
    return keys.mayFind(parts.namedBy, Buffer(octets.data(), static_cast<unsigned int>(octets.size()), true));
}

std::vector<unsigned char> octetsIn(Octets element) {
    const auto string = framing::firstElement(element);
    if (!string) {
        return {};
    }
    try {
        std::vector<unsigned char> storage;
        const Octets octets = framing::octetsOf(*string, storage);
        return string->header.constructed ? storage : std::vector<unsigned char>(octets.begin(), octets.end());
    } catch (const framing::Broken&) {
        return {};
    }
}

RecipientAlgorithms::RecipientAlgorithms(const RecipientParts& parts) : m_parts(parts) {
    if (parts.kind == Recipient::other) {
        return;
    }
    m_algorithm = decoded(parts.algorithm);
    m_encryptedKey = octetsIn(parts.encryptedKey);
    m_sound = m_algorithm != nullptr;
    if (!parts.derivation.empty()) {
        m_derivation = decoded(asSequence(parts.derivation));
        m_sound = m_sound && m_derivation != nullptr;
    }
    if (parts.kind == Recipient::keyAgreement) {
        readOriginator();
    }
}

/// The key in an OriginatorIdentifierOrKey (RFC 5652, 6.2.2), and the material that goes with it.
void RecipientAlgorithms::readOriginator() {
    Elements choice(m_parts.originator);
    if (const auto key = choice.nextContext(1)) {
        Elements elements(*key);
        m_originatorAlgorithm = decoded(whole(elements.nextUniversal(framing::sequence)));
        const auto bits = elements.nextUniversal(framing::bitString);
        m_sound = m_sound && choice.atEnd() && key->header.constructed && elements.atEnd() &&
                  m_originatorAlgorithm != nullptr && bits && !bits->header.constructed && !bits->content.empty() &&
                  bits->content.front() == 0;
        if (m_sound) {
            m_originatorKey = bits->content.subspan(1);
        }
    }
    if (!m_parts.userKeyingMaterial.empty()) {
        const auto octets = octetsIn(m_parts.userKeyingMaterial);
        m_userKeyingMaterial.reset(ASN1_OCTET_STRING_new());
        m_sound =
            m_sound && m_userKeyingMaterial != nullptr &&
            ASN1_OCTET_STRING_set(m_userKeyingMaterial.get(), octets.data(), static_cast<int>(octets.size())) == 1;
    }
}

openssl::KeyAgreement RecipientAlgorithms::agreement() const noexcept {
    return {m_algorithm.get(), m_originatorAlgorithm.get(), m_originatorKey, m_userKeyingMaterial.get()};
}

std::string RecipientAlgorithms::name() const {
    if (m_parts.kind == Recipient::other) {
        return m_parts.algorithm.empty() ? std::string() : openssl::encodedIdentifierName(m_parts.algorithm);
    }
    return m_algorithm == nullptr ? std::string() : openssl::algorithmName(m_algorithm->algorithm);
}

std::string RecipientAlgorithms::unsupported() const {
    if (m_parts.kind == Recipient::other) {
        const std::string identifier = name();
        return identifier.empty() ? "a recipient that cannot be decoded" : "recipients of the type " + identifier;
    }
    if (!m_sound) {
        return {};
    }
    const openssl::ErrorMark mark;
    switch (m_parts.kind) {
    case Recipient::keyTransport:
        return openssl::unsupportedKeyTransport(*m_algorithm);
    case Recipient::keyAgreement:
        return openssl::unsupportedKeyAgreement(agreement());
    case Recipient::keyEncryptionKey:
        return openssl::unsupportedWrap(m_algorithm.get());
    default:
        return openssl::unsupportedPassword(password());
    }
}

bool RecipientAlgorithms::isUncertain() const noexcept {
    return m_parts.kind == Recipient::keyTransport && m_sound && openssl::isPkcs1(*m_algorithm);
}

bool fits(Kind kind, const EVP_PKEY* key) noexcept {
    return (kind == Recipient::keyTransport && openssl::isOfType(key, "RSA")) ||
           (kind == Recipient::keyAgreement && openssl::agrees(key));
}

openssl::WipedBytes RecipientAlgorithms::open(EVP_PKEY* key) const {
    if (!m_sound) {
        return {};
    }
    return m_parts.kind == Recipient::keyTransport ? openssl::openTransportedKey(*m_algorithm, key, m_encryptedKey)
                                                   : openssl::openAgreedKey(agreement(), key, m_encryptedKey);
}

openssl::WipedBytes RecipientAlgorithms::openWithKey(Octets key) const {
    return m_sound ? openssl::unwrapKey(*m_algorithm, key, m_encryptedKey) : openssl::WipedBytes();
}

openssl::WipedBytes RecipientAlgorithms::openWithPassword(Octets password) const {
    return m_sound ? openssl::openPasswordKey(this->password(), password, m_encryptedKey) : openssl::WipedBytes();
}

} // namespace Norvane::Crypto::CMS
