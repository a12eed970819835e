// The calls over a whole body, and the reasons in words.
#include "CMS/StructureParts.h"
#include "failures/Raise.h"
#include "openssl/Pkcs7.h"

#include <norvcrypto/CMSVerification.h>

namespace Norvane::Crypto::CMS {

namespace {

SignatureVerifier readBody(const RefContentInfo& structure, MediaIn& body) {
    SignatureVerifier verifier(structure);
    verifier.write(body);
    return verifier;
}

SignatureVerifier readContent(const RefContentInfo& structure) {
    SignatureVerifier verifier(structure);
    MediaIn content = embeddedContent(structure);
    if (content.isNull()) {
        failures::raise(failures::verifyEmbedded, "the structure carries no content");
    }
    verifier.write(content);
    return verifier;
}

SignatureReport embedded(SignatureReport report) {
    report.body = JudgedBody::embedded;
    return report;
}

} // namespace

CarriedContent carriedContent(const RefContentInfo& structure) {
    const PKCS7_SIGNED* content = openssl::signedContent(StructureParts::structureOf(structure));
    if (content == nullptr || content->contents == nullptr || content->contents->d.ptr == nullptr) {
        return CarriedContent::none;
    }
    return openssl::dataOctets(content->contents) == nullptr ? CarriedContent::other : CarriedContent::octets;
}

SignatureReport verifySignatures(const RefContentInfo& structure, MediaIn& body) {
    return readBody(structure, body).report();
}

SignatureReport verifySignatures(const RefContentInfo& structure, MediaIn& body,
                                 const std::list<NVX509::RefCertificate>& certificates) {
    return readBody(structure, body).report(certificates);
}

SignatureReport verifyEmbeddedSignatures(const RefContentInfo& structure) {
    return embedded(readContent(structure).report());
}

SignatureReport verifyEmbeddedSignatures(const RefContentInfo& structure,
                                         const std::list<NVX509::RefCertificate>& certificates) {
    return embedded(readContent(structure).report(certificates));
}

const char* textOf(SignatureReason reason) noexcept {
    switch (reason) {
    case SignatureReason::none:
        return "the signature is good";
    case SignatureReason::bodyDiffers:
        return "the body is not the one that was signed";
    case SignatureReason::signatureWrong:
        return "the signature does not belong to this body and certificate";
    case SignatureReason::contentDiffers:
        return "the body is not the content that the structure carries";
    case SignatureReason::certificateMissing:
        return "no certificate has the signer's issuer and serial number";
    case SignatureReason::keyUnusable:
        return "the certificate has no usable public key";
    case SignatureReason::algorithmDiffers:
        return "the signature algorithm is not one of the certificate's key";
    case SignatureReason::attributesMissing:
        return "a content that is no plain data is signed without signed attributes";
    case SignatureReason::contentTypeMissing:
        return "the signed attributes hold no content type";
    case SignatureReason::contentTypeRepeated:
        return "the signed attributes hold more or less than one content type";
    case SignatureReason::contentTypeDiffers:
        return "the content type among the signed attributes is not the content's";
    case SignatureReason::messageDigestMissing:
        return "the signed attributes hold no message digest";
    case SignatureReason::messageDigestRepeated:
        return "the signed attributes hold more or less than one message digest";
    case SignatureReason::signingTimeRepeated:
        return "the signed attributes hold more or less than one signing time";
    case SignatureReason::bodyIsAttributes:
        return "the body is a set of attributes, so that the signature may have been made for another body";
    case SignatureReason::certificateDamaged:
        return "the certificate that the signer names does not decode";
    case SignatureReason::digestDiffers:
        return "the signature algorithm is one with another digest than the signer's";
    case SignatureReason::parametersWrong:
        return "the parameters of the signature algorithm are missing or make no sense";
    case SignatureReason::signingCertificateDiffers:
        return "the signing certificate attribute does not name the certificate";
    case SignatureReason::contentTypeUnexpected:
        return "a countersignature has a content type among its signed attributes";
    case SignatureReason::attributeMisplaced:
        return "an attribute that must be signed stands among the unsigned ones, or the other way round";
    case SignatureReason::receiptRequestRepeated:
        return "the signed attributes hold more or less than one receipt request";
    case SignatureReason::digestAlgorithm:
        return "the digest algorithm is not available";
    case SignatureReason::signatureAlgorithm:
        return "the signature algorithm is not supported";
    case SignatureReason::keyAlgorithm:
        return "the certificate's key or its parameters are not supported";
    case SignatureReason::keyTooLarge:
        return "the certificate's key takes too long to compute with";
    case SignatureReason::tooManyDigests:
        return "the signers name too many digest algorithms";
    case SignatureReason::tooManyCertificates:
        return "too many certificates have the signer's issuer and serial number";
    case SignatureReason::tooMuchWork:
        return "the signers before this one took too much work";
    case SignatureReason::digestNotAnnounced:
        return "the digest algorithm is none of those that the structure announces";
    case SignatureReason::contentNotKept:
        return "the signature covers the content itself, which is too long to be kept";
    case SignatureReason::attributesNotDer:
        return "the signed attributes are not in DER, and too long to be encoded anew";
    case SignatureReason::certificateRefused:
        return "the certificate that the signer names is refused";
    }
    return "";
}

} // namespace Norvane::Crypto::CMS
