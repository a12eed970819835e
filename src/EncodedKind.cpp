#include "framing/Elements.h"

#include <norvcrypto/EncodedKind.h>

namespace Norvane::Crypto {

namespace {

using framing::Element;
using framing::Elements;

constexpr std::size_t rsaNumbers = 9; // version, n, e, d, p, q and three for the remainders
constexpr std::size_t dsaNumbers = 6; // version, p, q, g, public and private key

/// A content type leads nothing else, so that the headers suffice: messages are long.
bool beginsContentInfo(framing::Octets octets) noexcept {
    framing::Header header;
    if (readHeader(octets.data(), octets.size(), header) != framing::HeaderState::complete ||
        !header.is(framing::TagClass::universal, framing::sequence) || !header.constructed) {
        return false;
    }
    const framing::Octets content = octets.subspan(header.size);
    const auto type = readHeader(content.data(), content.size(), header);
    return type == framing::HeaderState::complete && header.is(framing::TagClass::universal, framing::objectIdentifier);
}

bool isSequence(const std::optional<Element>& element) noexcept {
    return element && element->isUniversal(framing::sequence) && element->header.constructed;
}

bool isTime(const std::optional<Element>& element) noexcept {
    return element && (element->isUniversal(framing::utcTime) || element->isUniversal(framing::generalizedTime));
}

/// An AlgorithmIdentifier, or anything else that an object identifier leads.
bool isIdentified(const std::optional<Element>& element) noexcept {
    return isSequence(element) && Elements(*element).nextUniversal(framing::objectIdentifier);
}

/// TBSCertificate or TBSCertList, which begin alike.
EncodedKind kindOfSigned(const Element& toBeSigned) noexcept {
    Elements parts(toBeSigned);
    static_cast<void>(parts.nextContext(0)); // the version of a certificate
    static_cast<void>(parts.nextUniversal(framing::integer));
    if (!isIdentified(parts.next()) || !isSequence(parts.next())) {
        return EncodedKind::unknown;
    }
    const auto following = parts.next();
    if (isTime(following)) {
        return EncodedKind::certificateRevocationList;
    }
    const bool isCertificate = isSequence(following) && isSequence(parts.next()) && isSequence(parts.next());
    return isCertificate ? EncodedKind::certificate : EncodedKind::unknown;
}

/// What a sequence leads: an algorithm in front of a key, or what a signature follows.
EncodedKind kindByFirstSequence(const Element& first, Elements rest) noexcept {
    if (isIdentified(first)) {
        const auto second = rest.next();
        if (second && rest.atEnd() && second->isUniversal(framing::bitString)) {
            return EncodedKind::publicKey;
        }
        return second && rest.atEnd() && second->isUniversal(framing::octetString) ? EncodedKind::encryptedPrivateKey
                                                                                   : EncodedKind::unknown;
    }
    const bool isSigned = isIdentified(rest.next()) && rest.nextUniversal(framing::bitString) && rest.atEnd();
    return isSigned ? kindOfSigned(first) : EncodedKind::unknown;
}

/// What a version leads.
EncodedKind kindByVersion(Elements rest) noexcept {
    const auto second = rest.next();
    if (isIdentified(second)) {
        // The content of PFX is explicitly tagged; the parameters of an algorithm are not.
        Elements content(*second);
        static_cast<void>(content.next());
        if (rest.nextUniversal(framing::octetString)) {
            return EncodedKind::privateKey;
        }
        return content.nextContext(0) ? EncodedKind::pkcs12 : EncodedKind::unknown;
    }
    if (second && second->isUniversal(framing::octetString)) {
        return EncodedKind::privateKey; // on an elliptic curve
    }
    std::size_t numbers = 1;
    for (auto number = second; number && number->isUniversal(framing::integer); number = rest.next()) {
        ++numbers;
    }
    // Behind the numbers of RSA its further primes may stand.
    return numbers == rsaNumbers || (numbers == dsaNumbers && rest.atEnd()) ? EncodedKind::privateKey
                                                                            : EncodedKind::unknown;
}

bool isCertificate(const std::optional<Element>& element) noexcept {
    if (!isSequence(element)) {
        return false;
    }
    Elements parts(*element);
    const auto first = parts.next();
    return isSequence(first) && kindByFirstSequence(*first, parts) == EncodedKind::certificate;
}

bool isCertificatePair(Elements parts) noexcept {
    const auto forward = parts.nextContext(0);
    const auto reverse = parts.nextContext(1);
    const auto isOne = [](const std::optional<Element>& side) {
        return !side || isCertificate(Elements(*side).next());
    };
    return (forward || reverse) && parts.atEnd() && isOne(forward) && isOne(reverse);
}

} // namespace

EncodedKind encodedKind(const Buffer& encoded) noexcept {
    const framing::Octets octets(encoded.data(), encoded.length());
    if (beginsContentInfo(octets)) {
        return EncodedKind::contentInfo;
    }
    const auto outer = framing::firstElement(octets);
    if (!isSequence(outer)) {
        return EncodedKind::unknown;
    }
    Elements parts(*outer);
    if (parts.nextUniversal(framing::integer)) {
        return kindByVersion(parts);
    }
    if (const auto first = parts.nextUniversal(framing::sequence)) {
        return isSequence(first) ? kindByFirstSequence(*first, parts) : EncodedKind::unknown;
    }
    return isCertificatePair(parts) ? EncodedKind::crossCertificatePair : EncodedKind::unknown;
}

} // namespace Norvane::Crypto
