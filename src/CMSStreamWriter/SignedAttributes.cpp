#include "CMSStreamWriter/SignedAttributes.h"

#include "failures/Raise.h"
#include "openssl/AlgorithmIdentifiers.h"
#include "openssl/AttributeValues.h"
#include "openssl/Decode.h"
#include "openssl/SigningKeys.h"

#include <openssl/objects.h>

#include <algorithm>
#include <set>

namespace Norvane::Crypto::CMS {

namespace {

using framing::Encoded;
using framing::Octets;

constexpr unsigned int deepest = 64; ///< levels of the caller's elements

Octets octetsOf(const Buffer& buffer) noexcept {
    return {buffer.data(), buffer.length()};
}

std::string textOf(Octets octets) {
    return {octets.begin(), octets.end()};
}

Encoded attribute(int type, const Encoded& value) {
    return framing::sequenceOf({openssl::objectIdentifier(type), framing::setOf({&value, 1})});
}

/// Whether octets are elements whose headers are as DER has them, all the way in.
bool areDer(Octets octets, unsigned int levels = deepest) {
    framing::Elements elements(octets);
    while (!elements.atEnd()) {
        const auto element = elements.next();
        if (!element) {
            return false;
        }
        const framing::Header& header = element->header;
        const bool ofParts = header.tag == framing::sequence || header.tag == framing::set;
        const bool universal = header.tagClass == framing::TagClass::universal;
        if (header.indefinite || header.size != framing::headerSize(header.tag, header.contentLength) ||
            (universal && header.constructed != ofParts)) {
            return false;
        }
        if (header.constructed && (levels == 0 || !areDer(element->content, levels - 1))) {
            return false;
        }
    }
    return true;
}

/// The type of the caller's attribute, an element lent from it.
Octets typeOf(Octets encoded, const std::string& who) {
    const auto refuse = [&who](const char* why) { failures::raise(failures::signedWriter, who + why); };
    const auto whole = framing::firstElement(encoded);
    if (!whole || whole->whole.size() != encoded.size() || !areDer(encoded)) {
        refuse("no element in DER");
    }
    framing::Elements parts(*whole);
    const auto type = parts.nextUniversal(framing::objectIdentifier);
    const auto values = parts.nextUniversal(framing::set);
    const openssl::ObjectPtr identifier(
        type ? openssl::decode<d2i_ASN1_OBJECT>(type->whole.data(), static_cast<unsigned int>(type->whole.size()))
             : nullptr);
    if (!whole->isUniversal(framing::sequence) || identifier == nullptr || !values || !parts.atEnd()) {
        refuse("no sequence of a type and a set of values");
    }
    if (values->content.empty()) {
        refuse("without a value");
    }
    framing::Elements all(*values);
    std::vector<Octets> encodings;
    while (const auto value = all.next()) {
        encodings.push_back(value->whole);
    }
    if (!std::is_sorted(encodings.begin(), encodings.end(), [](Octets left, Octets right) {
            return std::lexicographical_compare(left.begin(), left.end(), right.begin(), right.end());
        })) {
        refuse("the values are not in the order that DER demands");
    }
    if (OBJ_obj2nid(identifier.get()) == NID_pkcs9_countersignature) {
        refuse("a countersignature is no signed attribute");
    }
    return type->whole;
}

Encoded capabilities(const std::vector<SignedWriter::Capability>& all, const std::string& who) {
    std::vector<Encoded> encodings;
    for (const SignedWriter::Capability& one : all) {
        const std::string ofOne = who + "capability " + std::to_string(encodings.size() + 1) + ": ";
        const auto type = openssl::objectIdentifier(one.identifier);
        if (!type) {
            failures::raise(failures::signedWriter, ofOne + "no object identifier");
        }
        const Octets parameters = octetsOf(one.parameters);
        const auto element = framing::firstElement(parameters);
        if (!parameters.empty() && (!element || element->whole.size() != parameters.size() || !areDer(parameters))) {
            failures::raise(failures::signedWriter, ofOne + "the parameters are no element in DER");
        }
        encodings.push_back(framing::sequenceOf({*type, parameters}));
    }
    const std::vector<Octets> parts(encodings.begin(), encodings.end());
    return framing::constructed(framing::TagClass::universal, framing::sequence, parts);
}

Encoded signingCertificate(const SignedWriter::Signer& signer, const std::string& who) {
    const openssl::SignatureDigest digest = openssl::signatureDigest(signer.signingCertificateDigest);
    if (digest.algorithm == nullptr || digest.number == NID_shake256) {
        failures::raise(failures::signedWriter, who + "unsupported: the digest of the signing certificate");
    }
    Encoded value = openssl::signingCertificateElement(signer.pair->certificate, digest.algorithm);
    if (value.empty()) {
        failures::raiseWithErrors(failures::signedWriter, who);
    }
    return value;
}

} // namespace

SignedAttributes::SignedAttributes(const SignedWriter::Signer& signer, const Encoded& contentType,
                                   const std::string& who)
    : m_tellsTime(signer.signingTime),
      m_time(signer.signedAt) {
    if (m_tellsTime && m_time && openssl::timeElement(*m_time).empty()) {
        failures::raise(failures::signedWriter, who + "there is no such time");
    }
    m_constant.push_back(attribute(NID_pkcs9_contentType, contentType));
    if (!signer.capabilities.empty()) {
        m_constant.push_back(attribute(NID_SMIMECapabilities, capabilities(signer.capabilities, who)));
    }
    if (signer.signingCertificate) {
        m_constant.push_back(attribute(NID_id_smime_aa_signingCertificateV2, signingCertificate(signer, who)));
    }
    std::set<std::string> types{textOf(openssl::objectIdentifier(NID_pkcs9_messageDigest))};
    if (m_tellsTime) {
        types.insert(textOf(openssl::objectIdentifier(NID_pkcs9_signingTime)));
    }
    for (const Encoded& own : m_constant) {
        types.insert(textOf(framing::Elements(*framing::firstElement(own)).next()->whole));
    }
    std::vector<Encoded> callers;
    for (const Buffer& one : signer.attributes) {
        const std::string ofOne = who + "attribute " + std::to_string(callers.size() + 1) + ": ";
        if (!types.insert(textOf(typeOf(octetsOf(one), ofOne))).second) {
            failures::raise(failures::signedWriter, ofOne + "its type stands there already");
        }
        callers.emplace_back(one.data(), one.data() + one.length());
    }
    m_constant.insert(m_constant.end(), callers.begin(), callers.end());
}

Encoded SignedAttributes::set(Octets messageDigest, std::int64_t now) const {
    std::vector<Encoded> all = m_constant;
    all.push_back(attribute(NID_pkcs9_messageDigest, framing::octetStringOf(messageDigest)));
    if (m_tellsTime) {
        const Encoded time = openssl::timeElement(m_time.value_or(now));
        if (time.empty()) { // no memory: an attribute without value would be signed
            failures::raiseWithErrors(failures::signedWriterEnd);
        }
        all.push_back(attribute(NID_pkcs9_signingTime, time));
    }
    framing::sortForDer(all);
    return framing::setOf(all);
}

} // namespace Norvane::Crypto::CMS
