#include "CMSStreamReader/SignedJudge.h"

#include "openssl/ErrorQueue.h"
#include "openssl/RawValues.h"
#include "openssl/SignedAttributes.h"

#include <openssl/objects.h>

#include <algorithm>
#include <new>

namespace Norvane::Crypto::CMS {

using framing::Elements;
using framing::Octets;
using Encodings = std::vector<std::vector<unsigned char>>;

namespace {

constexpr std::array<unsigned char, 9> idData{0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x07, 0x01};

bool isXof(const EVP_MD* algorithm) noexcept {
    return (EVP_MD_get_flags(algorithm) & EVP_MD_FLAG_XOF) != 0;
}

SignatureResult unsupportedBy(SignatureReason reason, Octets identifier) {
    return unsupported(reason, openssl::objectOf(identifier).get());
}

/// The content of the only value of an attribute when it is of that type.
std::optional<Octets> valueOf(const AttributeParts& attribute, std::uint32_t type) noexcept {
    const auto value = attribute.isSingle() ? framing::firstElement(attribute.value) : std::nullopt;
    return value && value->isUniversal(type) && !value->header.constructed ? std::optional(value->content)
                                                                           : std::nullopt;
}

FoundAttribute found(const AttributeParts& attribute, bool isRight) noexcept {
    return {attribute.count != 0, attribute.isSingle(), isRight};
}

/// What RFC 5652 (5.3, 11.1 to 11.4), RFC 2634 and RFC 5035 forbid among the attributes of a signer who signed some, apart
/// from the digest's value.
std::optional<SignatureReason> faultOfSignedAttributes(const SignerParts& signer, Octets contentType) noexcept {
    const AttributeParts& type = signer.attribute(AttributeType::contentType);
    const AttributeParts& digest = signer.attribute(AttributeType::messageDigest);
    const AttributeParts& time = signer.attribute(AttributeType::signingTime);
    FoundAttribute foundType{true, true, true};
    if (!contentType.empty()) {
        const auto value = valueOf(type, framing::objectIdentifier);
        foundType = found(type, value && std::ranges::equal(*value, contentType));
    } else if (type.count != 0) { // a countersignature has none
        return SignatureReason::contentTypeUnexpected;
    }
    if (const auto fault =
            faultOfAttributes(foundType, found(digest, valueOf(digest, framing::octetString).has_value()),
                              {time.count != 0, time.isSingle()})) {
        return fault;
    }
    if (signer.unsignedOnesMustBeSigned || signer.attribute(AttributeType::countersignature).count != 0) {
        return SignatureReason::attributeMisplaced;
    }
    const AttributeParts& receipt = signer.attribute(AttributeType::receiptRequest);
    return receipt.count != 0 && !receipt.isSingle() ? std::optional(SignatureReason::receiptRequestRepeated)
                                                     : std::nullopt;
}

std::optional<SignatureReason> faultWithoutAttributes(const SignedOctets& content) noexcept {
    if (content.isAttributeSet) {
        return SignatureReason::bodyIsAttributes;
    }
    if (!content.contentType.empty() && !std::ranges::equal(content.contentType, idData)) {
        return SignatureReason::attributesMissing;
    }
    return std::nullopt;
}

/// What the signature algorithm says, and whether that is so.
std::optional<SignatureResult> faultOfScheme(const SignerParts& signer, SignatureInQuestion& question) {
    question.scheme = openssl::signatureScheme(signer.signatureAlgorithm);
    if (!question.scheme.isSound) {
        return refused(SignatureReason::parametersWrong);
    }
    if (question.scheme.kind == openssl::SignatureScheme::Kind::unknown ||
        (question.scheme.namesDigest && question.scheme.digest == nullptr)) {
        return unsupportedBy(SignatureReason::signatureAlgorithm, signer.signatureIdentifier);
    }
    if (question.digest != nullptr && question.scheme.namesDigest &&
        EVP_MD_get_type(question.scheme.digest) != EVP_MD_get_type(question.digest)) {
        return refused(SignatureReason::digestDiffers);
    }
    return std::nullopt;
}

/// The digest of the content by the signer's algorithm.
std::optional<SignatureResult> findDigest(const SignerParts& signer, const SignedOctets& content,
                                          const SignatureInQuestion& question, const BodyDigest*& digest) {
    if (question.digest == nullptr || (isXof(question.digest) && !question.scheme.coversMessage())) {
        return unsupportedBy(SignatureReason::digestAlgorithm, signer.digestAlgorithm);
    }
    digest = digestBy(question.digest, content.digests);
    if (digest != nullptr) {
        return std::nullopt;
    }
    const bool isAnnounced = std::ranges::any_of(
        content.announced, [&](const EVP_MD* one) { return EVP_MD_get_type(one) == EVP_MD_get_type(question.digest); });
    if (isAnnounced && content.digests.size() < maximumDigests) { // it did not start: OpenSSL knows but its name
        return unsupportedBy(SignatureReason::digestAlgorithm, signer.digestAlgorithm);
    }
    return unsupportedBy(isAnnounced ? SignatureReason::tooManyDigests : SignatureReason::digestNotAnnounced,
                         signer.digestAlgorithm);
}

/// What the signature covers, by the octets that are signed: they or their digest. \throws std::bad_alloc
void cover(SignatureInQuestion& question, const Encodings& encodings) {
    if (question.scheme.coversMessage()) {
        question.covered = encodings;
        return;
    }
    for (const std::vector<unsigned char>& encoding : encodings) {
        std::vector<unsigned char> value(EVP_MAX_MD_SIZE);
        unsigned int length = 0;
        if (EVP_Digest(encoding.data(), encoding.size(), value.data(), &length, question.digest, nullptr) != 1) {
            throw std::bad_alloc(); // the body was digested with the same algorithm: no memory is what is left
        }
        value.resize(length);
        question.covered.push_back(std::move(value));
    }
}

std::optional<SignatureResult> faultWithAttributes(const SignerParts& signer, const BodyDigest& digest,
                                                   SignatureInQuestion& question) {
    const auto announced = announcedDigest(signer);
    if (!announced || !std::ranges::equal(*announced, Octets(digest.value.data(), digest.length))) {
        return refused(SignatureReason::bodyDiffers);
    }
    const Encodings encodings = openssl::signedAttributeEncodings(*signer.signedAttributes);
    if (encodings.empty()) {
        return unsupported(SignatureReason::attributesNotDer);
    }
    cover(question, encodings);
    return std::nullopt;
}

/// One certificate of a signing certificate attribute (RFC 2634, 5.4; RFC 5035, 3): the digest algorithm, null for one that
/// OpenSSL does not have, and the digest. Nothing when it is damaged.
struct CertificateDigest {
    const EVP_MD* algorithm = nullptr;
    Octets identifier; ///< of the algorithm
    Octets value;
};

std::optional<CertificateDigest> firstCertificateOf(const AttributeParts& attribute, bool isSecondVersion) noexcept {
    const auto whole = attribute.isSingle() ? framing::firstElement(attribute.value) : std::nullopt;
    const auto list = whole ? Elements(*whole).nextUniversal(framing::sequence) : std::nullopt;
    const auto first = list ? Elements(*list).nextUniversal(framing::sequence) : std::nullopt;
    if (!first) {
        return std::nullopt;
    }
    CertificateDigest digest{isSecondVersion ? EVP_sha256() : EVP_sha1(), {}, {}};
    Elements parts(*first);
    if (isSecondVersion) {
        if (const auto algorithm = parts.nextUniversal(framing::sequence)) {
            const auto identifier = Elements(*algorithm).nextUniversal(framing::objectIdentifier);
            if (!identifier) {
                return std::nullopt;
            }
            digest.identifier = identifier->whole;
            digest.algorithm = openssl::usableDigest(openssl::nidOf(identifier->whole));
        }
    }
    const auto value = parts.nextUniversal(framing::octetString);
    if (!value || value->header.constructed) {
        return std::nullopt;
    }
    digest.value = value->content;
    return digest;
}

std::optional<SignatureResult> faultOfSigningCertificate(const SignerParts& signer, const X509* certificate) {
    for (const AttributeType type : {AttributeType::signingCertificate, AttributeType::signingCertificateV2}) {
        const AttributeParts& attribute = signer.attribute(type);
        if (attribute.count == 0) {
            continue;
        }
        const auto announced = firstCertificateOf(attribute, type == AttributeType::signingCertificateV2);
        if (!announced) {
            return refused(SignatureReason::signingCertificateDiffers);
        }
        if (announced->algorithm == nullptr || !BodyDigests().start(announced->algorithm)) {
            return unsupportedBy(SignatureReason::digestAlgorithm, announced->identifier);
        }
        std::array<unsigned char, EVP_MAX_MD_SIZE> value{};
        unsigned int length = 0;
        if (X509_digest(certificate, announced->algorithm, value.data(), &length) != 1) {
            throw std::bad_alloc(); // of a digest that starts, over a certificate that OpenSSL decoded
        }
        if (!std::ranges::equal(announced->value, Octets(value.data(), length))) {
            return refused(SignatureReason::signingCertificateDiffers);
        }
    }
    return std::nullopt;
}

} // namespace

std::optional<Octets> announcedDigest(const SignerParts& signer) noexcept {
    return valueOf(signer.attribute(AttributeType::messageDigest), framing::octetString);
}

const EVP_MD* contentDigest(Octets identifier) noexcept {
    const int nid = openssl::nidOf(identifier);
    return nid == NID_shake256 ? EVP_shake256() : openssl::usableDigest(nid);
}

SignedOctets signatureOf(const SignerParts& signer, const EVP_MD* algorithm) {
    SignedOctets content;
    content.octets = signer.signature;
    if (algorithm != nullptr) {
        BodyDigests digests;
        digests.start(algorithm);
        digests.update(signer.signature.data(), signer.signature.size());
        content.digests = digests.finished();
        content.announced = {algorithm};
    }
    AttributeSetDetector detector;
    detector.update(signer.signature.data(), signer.signature.size());
    content.isAttributeSet = detector.isAttributeSet();
    return content;
}

std::optional<SignatureResult> faultBesideSignature(const SignerParts& signer, const SignedOctets& content,
                                                    SignatureInQuestion& question) {
    const openssl::ErrorMark mark;
    const bool hasAttributes = signer.signedAttributes.has_value();
    if (const auto fault =
            hasAttributes ? faultOfSignedAttributes(signer, content.contentType) : faultWithoutAttributes(content)) {
        return refused(*fault);
    }
    question.signature = signer.signature;
    question.digest = contentDigest(signer.digestAlgorithm);
    auto schemeFault = faultOfScheme(signer, question);
    if (!hasAttributes && question.scheme.coversMessage()) {
        if (!content.octets) {
            return unsupportedBy(SignatureReason::contentNotKept, signer.signatureIdentifier);
        }
        question.covered = {{content.octets->begin(), content.octets->end()}};
        return std::nullopt;
    }
    const BodyDigest* digest = nullptr;
    if (auto fault = findDigest(signer, content, question, digest)) {
        return fault;
    }
    if (hasAttributes) {
        if (auto fault = faultWithAttributes(signer, *digest, question)) {
            return fault;
        }
    } else {
        question.covered = {{digest->value.begin(), digest->value.begin() + static_cast<long>(digest->length)}};
    }
    return schemeFault;
}

SignatureResult judgeWith(const SignerParts& signer, const SignatureInQuestion& question, Trials& trials,
                          X509* certificate) {
    const openssl::ErrorMark mark;
    SignatureResult result = trials(question, certificate);
    if (result.verdict == SignatureVerdict::good) {
        if (auto fault = faultOfSigningCertificate(signer, certificate)) {
            return *fault;
        }
    }
    return result;
}

SignatureResult judgeWithNamed(const SignerParts& signer, const SignatureInQuestion& question, Trials& trials,
                               const NamedCertificates& named) {
    std::vector<X509*> certificates;
    for (const NVX509::RefCertificate& certificate : named.certificates) {
        certificates.push_back(certificate);
    }
    SignatureResult result = bestOf(certificates, named.hasMore, [&](X509* certificate) {
        return judgeWith(signer, question, trials, certificate);
    });
    const bool faultSaysMore =
        named.fault && (certificates.empty() || (result.verdict == SignatureVerdict::refused &&
                                                 named.fault->verdict != SignatureVerdict::refused));
    return faultSaysMore ? *named.fault : result;
}

} // namespace Norvane::Crypto::CMS
