// The handle on an enveloped message, and the values that it gives.
#include "CMSStreamReader/EnvelopeBody.h"
#include "failures/Raise.h"
#include "openssl/AlgorithmName.h"

#include <norvcrypto/CMSEnvelopeReader.h>

#include <utility>

namespace Norvane::Crypto::CMS {

using Recipient = EnvelopeReader::Recipient;

EnvelopeReader::Recipient::Recipient(std::shared_ptr<const ReceivedRecipient> parts) noexcept
    : m_parts(std::move(parts)) {}

Recipient::Kind EnvelopeReader::Recipient::kind() const noexcept {
    return m_parts->parts.kind;
}

std::optional<CertificateIdentifier> EnvelopeReader::Recipient::identifier() const {
    return identifierOf(m_parts->parts);
}

Buffer EnvelopeReader::Recipient::keyIdentifier() const {
    if (kind() != keyEncryptionKey) {
        return {};
    }
    const auto octets = octetsIn(m_parts->parts.name);
    return {octets.data(), static_cast<unsigned int>(octets.size()), false};
}

std::string EnvelopeReader::Recipient::algorithm() const {
    return RecipientAlgorithms(m_parts->parts).name();
}

std::string EnvelopeReader::Recipient::unsupported() const {
    return RecipientAlgorithms(m_parts->parts).unsupported();
}

EnvelopeReader::EnvelopeReader(const MediaIn& in) : EnvelopeReader(in, Budget()) {}

EnvelopeReader::EnvelopeReader(const MediaIn& in, const Budget& budget)
    : MediaIn(makeReference<EnvelopeReaderImpl, MediaInImpl>(in, budget)) {}

EnvelopeReader::~EnvelopeReader() = default;

/// The body, which assigning through the base class can replace.
EnvelopeReaderImpl& EnvelopeReader::body() const {
    auto* body = dynamic_cast<EnvelopeReaderImpl*>(operator->());
    if (body == nullptr) {
        failures::raise(failures::envelopeReaderBody);
    }
    return *body;
}

const std::vector<Recipient>& EnvelopeReader::recipients() const {
    return body().recipients();
}

bool EnvelopeReader::isAuthenticated() const {
    return body().frame().isAuthenticated();
}

std::string EnvelopeReader::contentType() const {
    return openssl::encodedIdentifierDigits(body().frame().contentType());
}

std::string EnvelopeReader::cipher() const {
    return body().cipher();
}

bool EnvelopeReader::hasContent() const {
    return body().frame().hasContent();
}

void EnvelopeReader::spillTo(const std::string& fileTemplate) {
    body().spillTo(fileTemplate);
}

bool EnvelopeReader::open(const KeyLookup& keys) {
    return body().open(keys);
}

bool EnvelopeReader::open(const Recipient& recipient, const NVX509::KeyCertificatePair& pair) {
    return body().open(recipient, pair);
}

bool EnvelopeReader::open(const Recipient& recipient, const Buffer& key) {
    return body().open(recipient, key);
}

bool EnvelopeReader::openWithPassword(const Recipient& recipient, const Buffer& password) {
    return body().openWithPassword(recipient, password);
}

const Recipient* EnvelopeReader::opened() const {
    return body().opened();
}

const std::string& EnvelopeReader::unsupported() const {
    return body().unsupported();
}

EnvelopeReader::Verdict EnvelopeReader::verdict() const {
    return body().verdict();
}

MediaOut& EnvelopeReader::write(MediaOut& out) {
    return body().write(out);
}

} // namespace Norvane::Crypto::CMS
