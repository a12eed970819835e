#include "CMSStreamWriter/SignedSigner.h"

#include "failures/Raise.h"

namespace Norvane::Crypto::CMS {

namespace {

using framing::Bytes;
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

Bytes identifierOf(const SignedWriter::Signer& signer, const std::string& who) {
    X509* certificate = signer.pair->certificate;
    if (signer.namedBy == NamedBy::subjectKeyIdentifier && X509_get0_subject_key_id(certificate) == nullptr) {
        failures::raise(failures::signedWriter, who + "the certificate has no subject key identifier");
    }
    const CertificateIdentifier name(signer.pair->certificate, signer.namedBy);
    const Octets octets(name.octets().data(), name.octets().length());
    return signer.namedBy == NamedBy::subjectKeyIdentifier ? framing::primitive(0, octets, TagClass::contextSpecific)
                                                           : Bytes(octets.begin(), octets.end());
}

} // namespace

SignedSigner::SignedSigner(const SignedWriter::Signer& signer, const Bytes& contentType, bool isData,
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

Bytes SignedSigner::attributes(Octets digest, std::int64_t now) const {
    return m_attributes ? m_attributes->set(digest, now) : Bytes();
}

Bytes SignedSigner::info(Octets digest, std::int64_t now) const {
    const Bytes signedSet = attributes(digest, now);
    const Bytes signature = m_attributes ? m_key.signText(signedSet) : m_key.signDigest(digest);
    if (signature.empty()) {
        failures::raiseWithErrors(failures::signedWriterEnd);
    }
    return assemble(signedSet, signature);
}

std::optional<std::size_t> SignedSigner::infoLength(std::int64_t now) const {
    if (m_key.fixedLength() == 0) {
        return std::nullopt;
    }
    const Bytes digest(m_key.digest().length);
    const Bytes signature(m_key.fixedLength());
    return assemble(attributes(digest, now), signature).size();
}

Bytes SignedSigner::assemble(const Bytes& attributes, Octets signature) const {
    Bytes tagged = attributes;
    if (!tagged.empty()) {
        tagged.front() = 0xA0; // signed as a SET, carried as [0] (RFC 5652, 5.4)
    }
    const unsigned char version = static_cast<unsigned char>(m_version);
    return framing::sequenceOf(framing::primitive(framing::integer, Octets(&version, 1)), m_identifier,
                               m_key.digest().identifier, tagged, m_key.algorithm(),
                               framing::primitive(framing::octetString, signature));
}

} // namespace Norvane::Crypto::CMS
