// Where the private keys of recipients are looked for.
#include "framing/Elements.h"

#include <norvcmsg/Exception.h>
#include <norvcrypto/CMSEnvelopeReader.h>

#include <map>
#include <optional>

namespace Norvane::Crypto::CMS {

namespace {

/// The serial number in a name, without the octets that do not count; the octets of a key identifier. What names the same
/// certificate has the same.
std::string distinctive(const CertificateIdentifier& name) {
    framing::Octets octets(name.octets().data(), name.octets().length());
    if (name.namedBy() == NamedBy::issuerAndSerialNumber) {
        const auto both = framing::firstElement(octets);
        framing::Elements parts(both ? both->content : framing::Octets());
        parts.next();
        const auto serial = parts.next();
        octets = serial ? serial->content : framing::Octets();
        while (octets.size() > 1 && octets.front() == 0) {
            octets = octets.subspan(1);
        }
    }
    return {octets.begin(), octets.end()};
}

std::optional<CertificateIdentifier> nameOf(const NVX509::RefCertificate& certificate, NamedBy namedBy) {
    try {
        return CertificateIdentifier(certificate, namedBy);
    } catch (const Exception&) {
        return std::nullopt; // it has no key identifier
    }
}

} // namespace

KeyLookup::~KeyLookup() = default;

KeyStoreLookup::KeyStoreLookup(const NVX509::RefKeyStore& keys) : m_keys(keys) {}

KeyStoreLookup::~KeyStoreLookup() = default;

NVX509::KeyCertificatePair KeyStoreLookup::find(const CertificateIdentifier& recipient) const {
    const bool isSought = recipient.issuer() != nullptr && !recipient.serialNumber().isNull();
    return isSought ? m_keys->find(*recipient.issuer(), *recipient.serialNumber()) : NVX509::KeyCertificatePair(false);
}

struct KeyListLookup::Index {
    std::multimap<std::string, NVX509::KeyCertificatePair> bySerialNumber;
    std::multimap<std::string, NVX509::KeyCertificatePair> byKeyIdentifier;
};

KeyListLookup::KeyListLookup(const std::list<NVX509::KeyCertificatePair>& pairs) {
    auto index = std::make_unique<Index>();
    for (const NVX509::KeyCertificatePair& pair : pairs) {
        if (!pair) {
            continue;
        }
        if (const auto name = nameOf(pair->certificate, NamedBy::issuerAndSerialNumber)) {
            index->bySerialNumber.emplace(distinctive(*name), pair);
        }
        if (const auto name = nameOf(pair->certificate, NamedBy::subjectKeyIdentifier)) {
            index->byKeyIdentifier.emplace(distinctive(*name), pair);
        }
    }
    m_index = std::move(index);
}

KeyListLookup::~KeyListLookup() = default;

NVX509::KeyCertificatePair KeyListLookup::find(const CertificateIdentifier& recipient) const {
    const auto& pairs =
        recipient.namedBy() == NamedBy::issuerAndSerialNumber ? m_index->bySerialNumber : m_index->byKeyIdentifier;
    const auto [first, last] = pairs.equal_range(distinctive(recipient));
    for (auto one = first; one != last; ++one) {
        if (recipient.names(one->second->certificate)) {
            return one->second;
        }
    }
    return NVX509::KeyCertificatePair(false);
}

} // namespace Norvane::Crypto::CMS
