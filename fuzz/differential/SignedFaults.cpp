#include "SignedFaults.h"

#include "SignedParts.h"

#include <norvcrypto/CMSVerification.h>

#include <openssl/objects.h>

#include <algorithm>
#include <array>

namespace fuzz {

namespace {

using Norvane::Crypto::CMS::SignatureReason;

Bytes contentTypeOf(const SignedParts& message) {
    const auto& info = message.contentInfo();
    return info.empty() ? Bytes() : info[0].content;
}

/// An attribute that must have one value stands there with none or several.
bool isRepeated(const Attribute& attribute) {
    return attribute.count > 1 || (attribute.count == 1 && attribute.values.size() != 1);
}

bool isMissing(const Attribute& attribute, int type) {
    return std::none_of(attribute.values.begin(), attribute.values.end(),
                        [type](const Node& value) { return value.isUniversal(type) && !value.isConstructed(); });
}

int nidOf(const Node* identifier) {
    if (identifier == nullptr) {
        return NID_undef;
    }
    const Bytes octets = encode(*identifier);
    const unsigned char* at = octets.data();
    ASN1_OBJECT* object = d2i_ASN1_OBJECT(nullptr, &at, static_cast<long>(octets.size()));
    const int nid = OBJ_obj2nid(object);
    ASN1_OBJECT_free(object);
    return nid;
}

/// The digest of a signature algorithm that names one, and its kind of key.
struct Scheme {
    int digest = NID_undef;
    int key = NID_undef;
};

Scheme schemeOf(Node& signer) {
    Scheme scheme;
    const int nid = nidOf(signatureAlgorithmOf(signer));
    if (OBJ_find_sigid_algs(nid, &scheme.digest, &scheme.key) != 1) {
        scheme.key = nid;
    }
    return scheme;
}

bool isAnnounced(const SignedParts& message, Node& signer) {
    const Node* const used = digestOf(signer);
    auto& all = message.algorithms();
    return used == nullptr || std::any_of(all.begin(), all.end(), [used](Node& algorithm) {
               return isIdentifier(at(algorithm, {0}), used->content);
           });
}

/// Whether one of the unsigned attributes is one that must be signed.
bool mustBeSigned(Node& signer) {
    const Node* const attributes = unsignedAttributesOf(signer);
    return attributes != nullptr &&
           std::ranges::any_of(
               std::array{"1.2.840.113549.1.9.3", "1.2.840.113549.1.9.4", "1.2.840.113549.1.9.5",
                          "1.2.840.113549.1.9.16.2.1", "1.2.840.113549.1.9.16.2.12", "1.2.840.113549.1.9.16.2.47"},
               [&](const char* type) { return attributeOf(*attributes, identifierContent(type)).count != 0; });
}

/// What RFC 5652, 5.3 and 11, RFC 2634 and RFC 5035 forbid.
bool isForbidden(const SignedParts& message, Node& signer, SignatureReason reason) {
    static const Bytes contentType = identifierContent("1.2.840.113549.1.9.3");
    static const Bytes data = identifierContent("1.2.840.113549.1.7.1");
    const Node* const attributes = attributesOf(signer);
    if (attributes == nullptr) {
        return (reason == SignatureReason::attributesMissing && contentTypeOf(message) != data) ||
               reason == SignatureReason::bodyIsAttributes;
    }
    const Attribute type = attributeOf(*attributes, contentType);
    const Attribute digest = attributeOf(*attributes, identifierContent("1.2.840.113549.1.9.4"));
    const Attribute time = attributeOf(*attributes, identifierContent("1.2.840.113549.1.9.5"));
    switch (reason) {
    case SignatureReason::contentTypeMissing:
        return type.count == 0;
    case SignatureReason::contentTypeRepeated:
        return isRepeated(type);
    case SignatureReason::contentTypeDiffers:
        return type.values.size() == 1 && !isIdentifier(type.values.data(), contentTypeOf(message));
    case SignatureReason::messageDigestMissing:
        return isMissing(digest, 4);
    case SignatureReason::messageDigestRepeated:
        return isRepeated(digest);
    case SignatureReason::signingTimeRepeated:
        return isRepeated(time);
    case SignatureReason::attributeMisplaced:
        return attributeOf(*attributes, identifierContent("1.2.840.113549.1.9.6")).count != 0 || mustBeSigned(signer);
    case SignatureReason::receiptRequestRepeated:
        return isRepeated(attributeOf(*attributes, identifierContent("1.2.840.113549.1.9.16.2.1")));
    case SignatureReason::signingCertificateDiffers:
        return attributeOf(*attributes, identifierContent("1.2.840.113549.1.9.16.2.12")).count +
                   attributeOf(*attributes, identifierContent("1.2.840.113549.1.9.16.2.47")).count !=
               0;
    default:
        return false;
    }
}

/// What contradicts itself in a signer's algorithms.
bool isContradiction(const SignedParts& message, Node& signer, SignatureReason reason) {
    const Scheme scheme = schemeOf(signer);
    switch (reason) {
    case SignatureReason::digestNotAnnounced:
        return !isAnnounced(message, signer);
    case SignatureReason::digestDiffers:
        return scheme.digest != NID_undef && scheme.digest != nidOf(digestOf(signer));
    case SignatureReason::parametersWrong:
        return scheme.key == NID_rsassaPss;
    case SignatureReason::algorithmDiffers:
        return scheme.key != NID_undef;
    default:
        return false;
    }
}

Outcome outcomeOf(SignatureReason reason) {
    switch (reason) {
    case SignatureReason::attributesMissing:
    case SignatureReason::contentTypeMissing:
    case SignatureReason::contentTypeRepeated:
    case SignatureReason::contentTypeDiffers:
    case SignatureReason::messageDigestMissing:
    case SignatureReason::messageDigestRepeated:
    case SignatureReason::signingTimeRepeated:
    case SignatureReason::attributeMisplaced:
    case SignatureReason::receiptRequestRepeated:
    case SignatureReason::bodyIsAttributes:
    case SignatureReason::signingCertificateDiffers:
        return Outcome::attributesForbidden;
    case SignatureReason::algorithmDiffers:
    case SignatureReason::digestDiffers:
    case SignatureReason::parametersWrong:
    case SignatureReason::digestNotAnnounced:
        return Outcome::algorithmsDiffer;
    case SignatureReason::digestAlgorithm:
    case SignatureReason::signatureAlgorithm:
    case SignatureReason::keyAlgorithm:
        return Outcome::notSupported;
    case SignatureReason::certificateRefused:
        return Outcome::certificateRefused;
    case SignatureReason::keyTooLarge:
    case SignatureReason::tooManyDigests:
    case SignatureReason::tooManyCertificates:
    case SignatureReason::tooMuchWork:
    case SignatureReason::attributesNotDer:
    case SignatureReason::contentNotKept:
        return Outcome::budget;
    default:
        return Outcome::unexplained;
    }
}

} // namespace

std::optional<Outcome> faultIn(Node& root, int reason) {
    const auto why = static_cast<SignatureReason>(reason);
    const Outcome outcome = outcomeOf(why);
    const SignedParts message(root);
    if (message.body == nullptr) {
        return std::nullopt;
    }
    auto& signers = message.signers();
    const auto any = [&signers](const auto& holds) { return std::any_of(signers.begin(), signers.end(), holds); };
    switch (outcome) {
    case Outcome::unexplained:
        return std::nullopt;
    case Outcome::attributesForbidden:
        return any([&](Node& signer) { return isForbidden(message, signer, why); }) ? std::optional(outcome)
                                                                                    : std::nullopt;
    case Outcome::algorithmsDiffer:
        return any([&](Node& signer) { return isContradiction(message, signer, why); }) ? std::optional(outcome)
                                                                                        : std::nullopt;
    default:
        return outcome;
    }
}

} // namespace fuzz
