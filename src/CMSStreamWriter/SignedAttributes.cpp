#include "CMSStreamWriter/SignedAttributes.h"

#include "failures/Raise.h"
#include "openssl/AttributeValues.h"
#include "openssl/Decode.h"
#include "openssl/SigningKeys.h"

#include <openssl/objects.h>

#include <algorithm>

namespace Norvane::Crypto::CMS {

namespace {

using framing::Bytes;
using framing::Octets;

constexpr unsigned int deepest = 64; ///< levels of the caller's elements

Octets octetsOf(const Buffer& buffer) noexcept {
    return {buffer.data(), buffer.length()};
}

Bytes identifier(int number) {
    const ASN1_OBJECT* object = OBJ_nid2obj(number);
    return framing::primitive(framing::objectIdentifier, Octets(OBJ_get0_data(object), OBJ_length(object)));
}

Bytes attribute(int type, const Bytes& value) {
    return framing::sequenceOf(identifier(type),
                               framing::constructedOf(framing::TagClass::universal, framing::set, value));
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

Bytes capabilities(const std::vector<SignedWriter::Capability>& all, const std::string& who) {
    std::vector<Bytes> encodings;
    for (const SignedWriter::Capability& one : all) {
        const std::string ofOne = who + "capability " + std::to_string(encodings.size() + 1) + ": ";
        const Bytes type = openssl::identifierElement(one.identifier);
        if (type.empty()) {
            failures::raise(failures::signedWriter, ofOne + "no object identifier");
        }
        const Octets parameters = octetsOf(one.parameters);
        const auto element = framing::firstElement(parameters);
        if (!parameters.empty() && (!element || element->whole.size() != parameters.size() || !areDer(parameters))) {
            failures::raise(failures::signedWriter, ofOne + "the parameters are no element in DER");
        }
        encodings.push_back(framing::sequenceOf(type, parameters));
    }
    const std::vector<Octets> parts(encodings.begin(), encodings.end());
    return framing::constructed(framing::TagClass::universal, framing::sequence, parts);
}

Bytes signingCertificate(const SignedWriter::Signer& signer, const std::string& who) {
    const openssl::SignatureDigest digest = openssl::signatureDigest(signer.signingCertificateDigest);
    if (digest.algorithm == nullptr || digest.number == NID_shake256) {
        failures::raise(failures::signedWriter, who + "unsupported: the digest of the signing certificate");
    }
    Bytes value = openssl::signingCertificateElement(signer.pair->certificate, digest.algorithm);
    if (value.empty()) {
        failures::raiseWithErrors(failures::signedWriter, who);
    }
    return value;
}

} // namespace

SignedAttributes::SignedAttributes(const SignedWriter::Signer& signer, const Bytes& contentType, const std::string& who)
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
    std::vector<Bytes> types{identifier(NID_pkcs9_messageDigest)};
    if (m_tellsTime) {
        types.push_back(identifier(NID_pkcs9_signingTime));
    }
    for (const Bytes& own : m_constant) {
        const Octets type = framing::Elements(*framing::firstElement(own)).next()->whole;
        types.emplace_back(type.begin(), type.end());
    }
    std::sort(types.begin(), types.end());
    std::vector<Bytes> callers;
    for (const Buffer& one : signer.attributes) {
        const std::string ofOne = who + "attribute " + std::to_string(callers.size() + 1) + ": ";
        const Octets octets = typeOf(octetsOf(one), ofOne);
        Bytes type(octets.begin(), octets.end());
        const auto place = std::lower_bound(types.begin(), types.end(), type);
        if (place != types.end() && *place == type) {
            failures::raise(failures::signedWriter, ofOne + "its type stands there already");
        }
        types.insert(place, std::move(type));
        callers.emplace_back(one.data(), one.data() + one.length());
    }
    m_constant.insert(m_constant.end(), callers.begin(), callers.end());
}

Bytes SignedAttributes::set(Octets messageDigest, std::int64_t now) const {
    std::vector<Bytes> all = m_constant;
    all.push_back(attribute(NID_pkcs9_messageDigest, framing::primitive(framing::octetString, messageDigest)));
    if (m_tellsTime) {
        all.push_back(attribute(NID_pkcs9_signingTime, openssl::timeElement(m_time.value_or(now))));
    }
    return framing::setOf(all);
}

} // namespace Norvane::Crypto::CMS
