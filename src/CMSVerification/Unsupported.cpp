// What keeps a well-formed structure from being decoded: a walk over its elements.
#include "framing/Elements.h"

#include <norvcrypto/CMSVerification.h>

#include <openssl/objects.h>

#include <algorithm>
#include <array>
#include <string_view>

namespace Norvane::Crypto::CMS {

using framing::Element;
using framing::Elements;
using framing::Octets;

namespace {

/// What is told about the first unsupported element. The walk goes on behind it: only what is well formed to its end
/// is called unsupported.
using Finding = std::string_view;

void note(Finding& finding, Finding more) noexcept {
    if (finding.empty()) {
        finding = more;
    }
}

/// Whether an identifier is one of the types of PKCS#7 but data: 1.2.840.113549.1.7.2 to 6.
bool isStructuredType(const Element& identifier) noexcept {
    static constexpr std::array<unsigned char, 8> arc{0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x07};
    const Octets name = identifier.content;
    return name.size() == arc.size() + 1 && std::equal(arc.begin(), arc.end(), name.begin()) && name.back() >= 2 &&
           name.back() <= 6;
}

/// EncapsulatedContentInfo (RFC 5652, 5.2).
bool walkContent(Elements content, Finding& finding) noexcept {
    const auto type = content.nextUniversal(framing::objectIdentifier);
    if (!type) {
        return false;
    }
    if (const auto carried = content.nextContext(0)) {
        const auto inside = Elements(*carried).next();
        if (inside && inside->isUniversal(framing::octetString) && isStructuredType(*type)) {
            note(finding, "a content that is a structure in an OCTET STRING");
        }
    }
    return content.atEnd();
}

/// CertificateSet (RFC 5652, 10.2.3).
bool walkCertificates(Elements certificates, Finding& finding) noexcept {
    while (!certificates.atEnd()) {
        const auto certificate = certificates.next();
        if (!certificate) {
            return false;
        }
        if (certificate->isContext(0)) {
            note(finding, "an extended certificate");
        } else if (certificate->isContext(1) || certificate->isContext(2)) {
            note(finding, "an attribute certificate");
        } else if (certificate->isContext(3)) {
            note(finding, "a certificate of another format");
        } else if (!certificate->isUniversal(framing::sequence)) {
            return false;
        }
    }
    return true;
}

/// RevocationInfoChoices (RFC 5652, 10.2.1).
bool walkRevocations(Elements revocations, Finding& finding) noexcept {
    while (!revocations.atEnd()) {
        const auto revocation = revocations.next();
        if (!revocation) {
            return false;
        }
        if (revocation->isContext(1)) {
            note(finding, "revocation information that is no list");
        } else if (!revocation->isUniversal(framing::sequence)) {
            return false;
        }
    }
    return true;
}

/// SignerInfo (RFC 5652, 5.3).
bool walkSigner(Elements signer, Finding& finding) noexcept {
    if (!signer.nextUniversal(framing::integer)) {
        return false;
    }
    if (signer.nextContext(0)) {
        note(finding, "a signer that is named by a key identifier");
    } else if (!signer.nextUniversal(framing::sequence)) {
        return false;
    }
    if (!signer.nextUniversal(framing::sequence)) {
        return false;
    }
    static_cast<void>(signer.nextContext(0)); // signed attributes
    if (!signer.nextUniversal(framing::sequence) || !signer.nextUniversal(framing::octetString)) {
        return false;
    }
    static_cast<void>(signer.nextContext(1)); // unsigned attributes
    return signer.atEnd();
}

bool walkSigners(Elements signers, Finding& finding) noexcept {
    while (!signers.atEnd()) {
        const auto signer = signers.nextUniversal(framing::sequence);
        if (!signer || !walkSigner(Elements(*signer), finding)) {
            return false;
        }
    }
    return true;
}

/// True when the signed data (RFC 5652, 5.1) is well formed as far as it is walked.
bool walkSignedData(Elements data, Finding& finding) noexcept {
    if (!data.nextUniversal(framing::integer) || !data.nextUniversal(framing::set)) {
        return false;
    }
    const auto content = data.nextUniversal(framing::sequence);
    if (!content || !walkContent(Elements(*content), finding)) {
        return false;
    }
    const auto certificates = data.nextContext(0);
    if (certificates && !walkCertificates(Elements(*certificates), finding)) {
        return false;
    }
    const auto revocations = data.nextContext(1);
    if (revocations && !walkRevocations(Elements(*revocations), finding)) {
        return false;
    }
    const auto signers = data.nextUniversal(framing::set);
    return signers && data.atEnd() && walkSigners(Elements(*signers), finding);
}

bool walk(Octets bytes, Finding& finding) noexcept {
    const auto structure = Elements(bytes).nextUniversal(framing::sequence);
    Elements parts(structure ? structure->content : Octets());
    const auto type = parts.nextUniversal(framing::objectIdentifier);
    const auto explicitContent = parts.nextContext(0);
    Elements inside(explicitContent ? explicitContent->content : Octets());
    const auto data = inside.nextUniversal(framing::sequence);
    const ASN1_OBJECT* signedData = OBJ_nid2obj(NID_pkcs7_signed);
    return type && std::ranges::equal(type->content, Octets(OBJ_get0_data(signedData), OBJ_length(signedData))) &&
           parts.atEnd() && data && inside.atEnd() && walkSignedData(Elements(*data), finding);
}

} // namespace

std::string unsupportedPart(const unsigned char* structure, std::size_t length) {
    if (structure == nullptr) {
        return {};
    }
    Finding finding;
    return walk(Octets(structure, length), finding) ? std::string(finding) : std::string();
}

std::string unsupportedPart(const Buffer& structure) {
    return unsupportedPart(structure.data(), structure.length());
}

} // namespace Norvane::Crypto::CMS
