// Recipients as their callers make them.
#include "CMSStreamWriter/EnvelopeRecipientState.h"
#include "failures/Raise.h"
#include "openssl/CertificateNames.h"
#include "openssl/ErrorQueue.h"

#include <utility>

namespace Norvane::Crypto::CMS {

namespace {

using openssl::RecipientKeyKind;

[[noreturn]] void refuse(const std::string& reason) {
    failures::raise(failures::envelopeRecipient, reason);
}

/// OpenSSL does not tell of each number that it has no memory for: what would be refused for it is asked for once more.
template <class Ask, class IsRefused> auto askedTwice(Ask ask, IsRefused isRefused) {
    const openssl::ErrorMark mark;
    auto answer = ask();
    if (isRefused(answer)) {
        mark.throwWithoutMemory();
        answer = ask();
    }
    return answer;
}

CertificateKey keyOf(const NVX509::RefCertificate& certificate, NamedBy namedBy) {
    const X509* x509 = certificate;
    if (x509 == nullptr) {
        refuse("there is no certificate");
    }
    EVP_PKEY* key = nullptr;
    {
        const openssl::ErrorMark mark;
        key = X509_get0_pubkey(x509);
    }
    const auto kind = askedTwice([&] { return openssl::recipientKeyKind(key); },
                                 [](RecipientKeyKind answer) { return answer == RecipientKeyKind::other; });
    if (kind == RecipientKeyKind::other) {
        refuse("the key is " + openssl::recipientKeyName(key) + ", which cannot encrypt here");
    }
    const auto work = askedTwice([&] { return openssl::encryptionWork(key, kind); },
                                 [](std::uint64_t answer) { return answer > maximumRecipientWork; });
    if (work > maximumRecipientWork) {
        refuse("the RSA key has a modulus or a public exponent that no sound key has");
    }
    const bool byKeyIdentifier = namedBy == NamedBy::subjectKeyIdentifier;
    framing::Encoded name =
        byKeyIdentifier ? openssl::subjectKeyIdentifier(x509) : openssl::issuerAndSerialNumber(x509);
    if (name.empty() && byKeyIdentifier) {
        refuse("the certificate has no subject key identifier");
    }
    if (name.empty()) {
        failures::raiseWithErrors(failures::envelopeRecipient);
    }
    return {certificate, namedBy, std::move(name), key, kind, work};
}

CertificateKey rsaKeyOf(const NVX509::RefCertificate& certificate, NamedBy namedBy) {
    CertificateKey key = keyOf(certificate, namedBy);
    if (key.kind != RecipientKeyKind::rsa) {
        refuse("the key is " + openssl::recipientKeyName(key.key) + ", not RSA");
    }
    return key;
}

KeyTransport transportWith(CertificateKey to, const std::optional<OaepParameters>& parameters) {
    openssl::Oaep oaep{};
    if (parameters) {
        oaep = {recipientDigest(parameters->digest),
                recipientDigest(parameters->maskDigest.value_or(parameters->digest)), octetsOf(parameters->label)};
    }
    const openssl::Oaep* padding = parameters ? &oaep : nullptr;
    KeyTransport transport{std::move(to), parameters};
    transport.room = openssl::rsaRoom(transport.to.key, padding);
    if (!transport.encryption.prepare(transport.to.key, padding)) {
        failures::raiseWithErrors(failures::envelopeRecipient);
    }
    return transport;
}

Hasher::Type checkedDigest(Hasher::Type digest) {
    if (recipientDigest(digest) == nullptr) {
        refuse("the digest " + std::to_string(static_cast<int>(digest)) + " is neither SHA-1 nor SHA-2");
    }
    return digest;
}

Hasher::Type usualDigest(RecipientKeyKind kind) noexcept {
    switch (kind) {
    case RecipientKeyKind::p384:
        return Hasher::SHA384;
    case RecipientKeyKind::p521:
        return Hasher::SHA512;
    default:
        return Hasher::SHA256;
    }
}

KeyAgreement agreementWith(CertificateKey to, const KeyAgreementParameters& parameters) {
    if (to.kind == RecipientKeyKind::rsa) {
        refuse("the key is RSA, with which there is no key agreement");
    }
    const Hasher::Type digest = checkedDigest(parameters.digest.value_or(usualDigest(to.kind)));
    const bool isX25519 = to.kind == RecipientKeyKind::x25519;
    if (isX25519 && (digest == Hasher::SHA1 || digest == Hasher::SHA224)) {
        refuse("X25519 has no key derivation with this digest");
    }
    if (isX25519 && parameters.cofactor) {
        refuse("X25519 has no cofactor variant");
    }
    return {std::move(to), digest, parameters.cofactor};
}

void checkLength(const char* what, const Buffer& given, std::size_t least) {
    if (given.length() < least || given.length() > maximumParameterOctets) {
        refuse(std::string(what) + " has " + std::to_string(given.length()) + " bytes, must have " +
               std::to_string(least) + " to " + std::to_string(maximumParameterOctets));
    }
}

Buffer protectedCopy(const Buffer& secret) {
    Buffer copy;
    copy.protect();
    copy = secret;
    return copy;
}

template <class How> std::shared_ptr<const EnvelopeRecipient::State> stateOf(How how) {
    return std::make_shared<const EnvelopeRecipient::State>(EnvelopeRecipient::State{std::move(how)});
}

std::shared_ptr<const EnvelopeRecipient::State> stateFor(CertificateKey to) {
    return to.kind == RecipientKeyKind::rsa ? stateOf(transportWith(std::move(to), std::nullopt))
                                            : stateOf(agreementWith(std::move(to), {}));
}

} // namespace

const CertificateKey* EnvelopeRecipient::State::certificate() const noexcept {
    if (const auto* transport = std::get_if<KeyTransport>(&how)) {
        return &transport->to;
    }
    const auto* agreement = std::get_if<KeyAgreement>(&how);
    return agreement == nullptr ? nullptr : &agreement->to;
}

std::string EnvelopeRecipient::State::name() const {
    if (const CertificateKey* key = certificate()) {
        return CertificateIdentifier(key->certificate, key->namedBy).asString();
    }
    return std::holds_alternative<SharedKey>(how) ? "key-encryption key" : "password";
}

const EVP_MD* recipientDigest(Hasher::Type digest) noexcept {
    switch (digest) {
    case Hasher::SHA1:
        return EVP_sha1();
    case Hasher::SHA224:
        return EVP_sha224();
    case Hasher::SHA256:
        return EVP_sha256();
    case Hasher::SHA384:
        return EVP_sha384();
    case Hasher::SHA512:
        return EVP_sha512();
    default:
        return nullptr;
    }
}

EnvelopeRecipient::EnvelopeRecipient(std::shared_ptr<const State> state) : m_state(std::move(state)) {}

EnvelopeRecipient::EnvelopeRecipient(const NVX509::RefCertificate& certificate, NamedBy namedBy)
    : m_state(stateFor(keyOf(certificate, namedBy))) {}

EnvelopeRecipient EnvelopeRecipient::rsaPkcs1(const NVX509::RefCertificate& certificate, NamedBy namedBy) {
    return EnvelopeRecipient(stateOf(transportWith(rsaKeyOf(certificate, namedBy), std::nullopt)));
}

EnvelopeRecipient EnvelopeRecipient::rsaOaep(const NVX509::RefCertificate& certificate,
                                             const OaepParameters& parameters, NamedBy namedBy) {
    static_cast<void>(checkedDigest(parameters.digest));
    static_cast<void>(checkedDigest(parameters.maskDigest.value_or(parameters.digest)));
    checkLength("the label", parameters.label, 0);
    return EnvelopeRecipient(stateOf(transportWith(rsaKeyOf(certificate, namedBy), parameters)));
}

EnvelopeRecipient EnvelopeRecipient::keyAgreement(const NVX509::RefCertificate& certificate,
                                                  const KeyAgreementParameters& parameters, NamedBy namedBy) {
    return EnvelopeRecipient(stateOf(agreementWith(keyOf(certificate, namedBy), parameters)));
}

EnvelopeRecipient EnvelopeRecipient::keyEncryptionKey(const Buffer& key, const Buffer& identifier) {
    if (key.length() != 16 && key.length() != 24 && key.length() != 32) {
        refuse("the key-encryption key has " + std::to_string(key.length()) + " bytes, must have 16, 24 or 32");
    }
    checkLength("the identifier of the key-encryption key", identifier, 1);
    return EnvelopeRecipient(stateOf(SharedKey{protectedCopy(key), identifier}));
}

EnvelopeRecipient EnvelopeRecipient::password(const Buffer& password, const PasswordParameters& parameters) {
    checkLength("the password", password, 1);
    static_cast<void>(checkedDigest(parameters.digest));
    if (parameters.iterations < minimumPasswordIterations || parameters.iterations > maximumPasswordIterations) {
        refuse(std::to_string(parameters.iterations) + " iterations, must be " +
               std::to_string(minimumPasswordIterations) + " to " + std::to_string(maximumPasswordIterations));
    }
    return EnvelopeRecipient(stateOf(SharedPassword{protectedCopy(password), parameters}));
}

EnvelopeRecipient::EnvelopeRecipient(const EnvelopeRecipient& other) = default;

EnvelopeRecipient& EnvelopeRecipient::operator=(const EnvelopeRecipient& other) = default;

EnvelopeRecipient::~EnvelopeRecipient() = default;

} // namespace Norvane::Crypto::CMS
