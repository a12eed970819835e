// What a signer says of itself, as values.
#include "CMSStreamReader/SignedMessage.h"
#include "openssl/RawValues.h"

#include <norvcrypto/CMSSignedReader.h>

#include <utility>

namespace Norvane::Crypto::CMS {

using framing::Element;
using framing::Elements;
using framing::Octets;

namespace {

constexpr std::size_t mostCountersigners = 16;
constexpr std::size_t deepestCountersigner = 3;

Buffer copyOf(Octets octets) {
    return {octets.data(), static_cast<unsigned int>(octets.size()), false};
}

/// The only value of an attribute; nothing when there is none, or more than one.
std::optional<Element> valueOf(const AttributeParts& attribute) noexcept {
    return attribute.isSingle() ? framing::firstElement(attribute.value) : std::nullopt;
}

/// SMIMECapability (RFC 8551, 2.5.2).
std::optional<SignedReader::Signer::Capability> capabilityOf(const std::optional<Element>& element) {
    if (!element) {
        return std::nullopt;
    }
    Elements parts(*element);
    const auto identifier = parts.nextUniversal(framing::objectIdentifier);
    if (!identifier) {
        return std::nullopt;
    }
    const Octets parameters = parts.rest();
    if (!parts.atEnd() && (!parts.next() || !parts.atEnd())) {
        return std::nullopt;
    }
    return SignedReader::Signer::Capability{openssl::digitsOf(identifier->whole), openssl::nameOf(identifier->whole),
                                            copyOf(parameters)};
}

/// ESSCertID and ESSCertIDv2 (RFC 5035, 3).
std::optional<SignedReader::Signer::CertificateHash> hashOf(Elements certificate, int version) {
    std::string digest = version == 1 ? "sha1" : "sha256";
    if (const auto algorithm = version == 2 ? certificate.nextUniversal(framing::sequence) : std::nullopt) {
        const auto identifier = Elements(*algorithm).nextUniversal(framing::objectIdentifier);
        if (!identifier) {
            return std::nullopt;
        }
        digest = openssl::nameOf(identifier->whole);
    }
    const auto hash = certificate.nextUniversal(framing::octetString);
    if (!hash || hash->header.constructed) {
        return std::nullopt;
    }
    return SignedReader::Signer::CertificateHash{version, digest, copyOf(hash->content)};
}

} // namespace

SignedReader::Signer::Signer(std::shared_ptr<SignedMessage> message, SignerParts* parts) noexcept
    : m_message(std::move(message)),
      m_parts(parts) {}

CertificateIdentifier SignedReader::Signer::identifier() const {
    return m_parts->namedBy == NamedBy::issuerAndSerialNumber
               ? CertificateIdentifier::fromIssuerAndSerialNumber(copyOf(m_parts->name))
               : CertificateIdentifier::fromSubjectKeyIdentifier(copyOf(m_parts->name));
}

std::string SignedReader::Signer::digestAlgorithm() const {
    return openssl::nameOf(m_parts->digestAlgorithm);
}

std::string SignedReader::Signer::signatureAlgorithm() const {
    return openssl::nameOf(m_parts->signatureIdentifier);
}

Buffer SignedReader::Signer::signature() const {
    return copyOf(m_parts->signature);
}

bool SignedReader::Signer::hasSignedAttributes() const noexcept {
    return m_parts->signedAttributes.has_value();
}

std::optional<Buffer> SignedReader::Signer::messageDigest() const {
    const auto value = announcedDigest(*m_parts);
    return value ? std::optional(copyOf(*value)) : std::nullopt;
}

std::optional<std::time_t> SignedReader::Signer::signingTime() const {
    const auto value = valueOf(m_parts->attribute(AttributeType::signingTime));
    return value ? openssl::momentOf(value->whole) : std::nullopt;
}

std::vector<SignedReader::Signer::Capability> SignedReader::Signer::capabilities() const {
    std::vector<Capability> capabilities;
    const auto value = valueOf(m_parts->attribute(AttributeType::capabilities));
    if (!value || !value->isUniversal(framing::sequence)) {
        return capabilities;
    }
    Elements elements(*value);
    while (!elements.atEnd()) {
        auto capability = capabilityOf(elements.nextUniversal(framing::sequence));
        if (!capability) {
            return {};
        }
        capabilities.push_back(std::move(*capability));
    }
    return capabilities;
}

std::vector<SignedReader::Signer::CertificateHash> SignedReader::Signer::signingCertificates() const {
    std::vector<CertificateHash> hashes;
    for (const int version : {1, 2}) {
        const auto value = valueOf(
            m_parts->attribute(version == 1 ? AttributeType::signingCertificate : AttributeType::signingCertificateV2));
        const auto list = value ? Elements(*value).nextUniversal(framing::sequence) : std::nullopt;
        if (!list) {
            continue;
        }
        Elements elements(*list);
        for (auto element = elements.nextUniversal(framing::sequence); element;
             element = elements.nextUniversal(framing::sequence)) {
            if (auto hash = hashOf(Elements(*element), version)) {
                hashes.push_back(std::move(*hash));
            }
        }
    }
    return hashes;
}

std::vector<SignedReader::Signer> SignedReader::Signer::countersigners() const {
    readCountersigners(*m_parts, mostCountersigners, deepestCountersigner, m_message->kept());
    std::vector<Signer> signers;
    for (SignerParts& parts : m_parts->countersigners) {
        signers.push_back(Signer(m_message, &parts));
    }
    return signers;
}

bool SignedReader::Signer::hasMoreCountersigners() const {
    readCountersigners(*m_parts, mostCountersigners, deepestCountersigner, m_message->kept());
    return m_parts->hasMoreCountersigners;
}

} // namespace Norvane::Crypto::CMS
