#include "CMSStreamWriter/SignedSigner.h"

#include "failures/Raise.h"
#include "openssl/KeyComparison.h"

namespace Norvane::Crypto::CMS {

namespace {

using framing::Encoded;
using framing::Octets;
using framing::TagClass;

openssl::SigningKey keyOf(const SignedWriter::Signer& signer, const std::string& who) {
    const auto refuse = [&who](const std::string& why) { failures::raise(failures::signedWriter, who + why); };
    if (signer.pair.get() == nullptr) {
        refuse("there is no key and certificate");
    }
    X509* certificate = signer.pair->certificate;
    EVP_PKEY* key = signer.pair->key;
    if (certificate == nullptr) {
        refuse("there is no certificate");
    }
    if (key == nullptr) {
        refuse("there is no private key");
    }
    if (!openssl::keyMatchesCertificate(certificate, key)) {
        refuse("the private key does not match the certificate");
    }
    const auto padding =
        signer.rsaScheme == SignedWriter::RsaScheme::pss ? openssl::RsaPadding::pss : openssl::RsaPadding::pkcs1;
    openssl::SigningKey made(key, padding, signer.digest ? static_cast<int>(*signer.digest) : NID_undef);
    if (!made.refusal().empty()) {
        refuse(made.refusal());
    }
    return made;
}

Encoded identifierOf(const SignedWriter::Signer& signer, const std::string& who) {
    X509* certificate = signer.pair->certificate;
    if (signer.namedBy == NamedBy::subjectKeyIdentifier && X509_get0_subject_key_id(certificate) == nullptr) {
        failures::raise(failures::signedWriter, who + "the certificate has no subject key identifier");
    }
    const CertificateIdentifier name(signer.pair->certificate, signer.namedBy);
    const Octets octets(name.octets().data(), name.octets().length());
    return signer.namedBy == NamedBy::subjectKeyIdentifier ? framing::primitive(TagClass::contextSpecific, 0, octets)
                                                           : Encoded(octets.begin(), octets.end());
}

} // namespace

SignedSigner::SignedSigner(const SignedWriter::Signer& signer, const Encoded& contentType, bool isData,
                           const std::string& who)
    : m_key(keyOf(signer, who)),
      m_version(signer.namedBy == NamedBy::subjectKeyIdentifier ? 3 : 1),
      m_identifier(identifierOf(signer, who)) {
    const auto refuse = [&who](const char* why) { failures::raise(failures::signedWriter, who + why); };
    if (signer.signedAttributes) {
        m_attributes.emplace(signer, contentType, who);
    } else if (m_key.signsWhole()) {
        refuse("Edwards curves sign attributes alone");
    } else if (!isData) {
        refuse("a content type other than id-data demands signed attributes");
    } else if (!signer.attributes.empty()) {
        refuse("there are attributes, and none is to be signed");
    }
}

Encoded SignedSigner::attributes(Octets digest, std::int64_t now) const {
    if (!m_attributes) {
        return {};
    }
    Encoded set = m_attributes->set(digest, now);
    if (set.empty()) { // nothing must be signed in its place
        failures::raise(failures::signedWriterEnd, "the structure is too long");
    }
    return set;
}

Encoded SignedSigner::info(Octets digest, std::int64_t now) const {
    const Encoded signedSet = attributes(digest, now);
    const Encoded signature = m_attributes ? m_key.signText(signedSet) : m_key.signDigest(digest);
    if (signature.empty()) {
        failures::raiseWithErrors(failures::signedWriterEnd);
    }
    return assemble(signedSet, signature);
}

std::size_t SignedSigner::infoLength(std::int64_t now) const {
    const Encoded digest(m_key.digest().length);
    const Encoded signature(m_key.fixedLength());
    return assemble(attributes(digest, now), signature).size();
}

Encoded SignedSigner::assemble(const Encoded& attributes, Octets signature) const {
    Encoded tagged = attributes;
    if (!tagged.empty()) {
        tagged.front() = 0xA0; // signed as a SET, carried as [0] (RFC 5652, 5.4)
    }
    return framing::sequenceOf({framing::integerOf(m_version), m_identifier, m_key.digest().identifier, tagged,
                                m_key.algorithm(), framing::octetStringOf(signature)});
}

} // namespace Norvane::Crypto::CMS
