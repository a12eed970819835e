#include "Differential.h"

#include <cstdio>
#include <cstdlib>

namespace fuzz {

const char* textOf(Outcome outcome) noexcept {
    switch (outcome) {
    case Outcome::bothAccept:
        return "both accept, the same content and length";
    case Outcome::bothRefuse:
        return "both refuse";
    case Outcome::segmentOfAnotherTag:
        return "a segment that is no octet string (X.690, 8.7.3.2)";
    case Outcome::segmentOfTagZero:
        return "a segment of tag 00, which ends contents (X.690, 8.1.5)";
    case Outcome::primitiveSet:
        return "a set or sequence that says to be primitive (X.690, 8.12.1)";
    case Outcome::budget:
        return "more than the budget";
    case Outcome::tooDeep:
        return "elements within elements to more than 32 levels";
    case Outcome::shortTag:
        return "GCM: a tag of less than 12 octets, or not of aes-ICVlen (RFC 5084, 3.2)";
    case Outcome::gcmParameters:
        return "GCM: parameters that are none (RFC 5084, 3.2)";
    case Outcome::cipher:
        return "a cipher that is not supported, named";
    case Outcome::missingParameters:
        return "a cipher without an initialisation vector, or behind one that is none (RFC 3565, 4.1)";
    case Outcome::transportUnknown:
        return "a recipient's algorithm that is unknown, which OpenSSL takes for RSA PKCS#1 1.5";
    case Outcome::attributesNotDer:
        return "authenticated or signed attributes that are not in DER (RFC 5083, 2.1; RFC 5652, 5.4)";
    case Outcome::contentTypeUnnamed:
        return "authenticated content other than data without the attribute that says so (RFC 5083, 2.1)";
    case Outcome::severalStricter:
        return "several of the above together";
    case Outcome::attributesForbidden:
        return "signed attributes that RFC 5652 forbids";
    case Outcome::algorithmsDiffer:
        return "algorithms of a signer that contradict each other";
    case Outcome::notSupported:
        return "an algorithm of a signature that is not supported, named";
    case Outcome::certificateRefused:
        return "a certificate that is refused, with a reason";
    case Outcome::certificateNotDer:
        return "a certificate with strings in segments, which DER does not have (RFC 5280, 4.1)";
    case Outcome::otherRecipients:
        return "recipients that were not chosen are not decoded";
    case Outcome::originatorKeyInSegments:
        return "an originator's key as a bit string in segments";
    case Outcome::signatureAsDigest:
        return "a signature algorithm in the place of the digest algorithm in it";
    case Outcome::certificateExtensions:
        return "a certificate with extensions that OpenSSL finds invalid, which are not judged here";
    case Outcome::originatorInformation:
        return "originator information is not decoded";
    case Outcome::unprotectedAttributes:
        return "unprotected attributes are not decoded";
    case Outcome::authenticatedAttributes:
        return "authenticated attributes (RFC 5083), which older releases of OpenSSL 3.0 do not decode";
    case Outcome::nestedSegments:
        return "segments within segments to more levels than OpenSSL's five";
    case Outcome::otherCertificates:
        return "certificates that no signer names are not decoded";
    case Outcome::revocationLists:
        return "revocation lists are not decoded";
    case Outcome::unsignedAttributes:
        return "unsigned attributes are not decoded";
    case Outcome::otherDigestAlgorithms:
        return "digest algorithms that no signer uses are not looked up";
    case Outcome::digestsUnannounced:
        return "a detached message that does not announce its signers' digests (RFC 5652, 5.1)";
    case Outcome::algorithmParameters:
        return "parameters of algorithms that have none are not decoded";
    case Outcome::edwardsCurve:
        return "Ed25519 and Ed448, which OpenSSL 3.0's CMS cannot verify";
    case Outcome::attributesInOrder:
        return "signed attributes out of order: what is signed is their DER (RFC 5652, 5.4)";
    case Outcome::severalWider:
        return "several of the above together ";
    case Outcome::unexplained:
        return "UNEXPLAINED";
    }
    return "";
}

bool isStricter(Outcome outcome) noexcept {
    return outcome > Outcome::bothRefuse && outcome < Outcome::otherRecipients;
}

bool isWider(Outcome outcome) noexcept {
    return outcome >= Outcome::otherRecipients && outcome < Outcome::unexplained;
}

void require(const Comparison& comparison, const Bytes& octets) {
    if (comparison.outcome == Outcome::unexplained) {
        std::fprintf(stderr, "%s\n%s\n", comparison.detail.c_str(), norvauthority::toHex(octets).c_str());
        std::abort();
    }
}

} // namespace fuzz
