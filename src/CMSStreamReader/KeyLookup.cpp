// Where the private keys of recipients are looked for.
#include "framing/Elements.h"

#include <norvcmsg/Exception.h>
#include <norvcrypto/CMSEnvelopeReader.h>

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace Norvane::Crypto::CMS {

namespace {

/// The serial number in a name, without the octets that do not count; the octets of a key identifier. What names the same
/// certificate has the same.
std::string_view distinctive(NamedBy namedBy, const Buffer& name) noexcept {
    framing::Octets octets(name.data(), name.length());
    if (namedBy == NamedBy::issuerAndSerialNumber) {
        const auto both = framing::firstElement(octets);
        framing::Elements parts(both ? both->content : framing::Octets());
        parts.next();
        const auto serial = parts.next();
        octets = serial ? serial->content : framing::Octets();
        while (!octets.empty() && octets.front() == 0) {
            octets = octets.subspan(1);
        }
    }
    return {reinterpret_cast<const char*>(octets.data()), octets.size()};
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

bool KeyLookup::mayFind(NamedBy /*namedBy*/, const Buffer& /*octets*/) const noexcept {
    return true;
}

KeyStoreLookup::KeyStoreLookup(const NVX509::RefKeyStore& keys) : m_keys(keys) {}

KeyStoreLookup::~KeyStoreLookup() = default;

NVX509::KeyCertificatePair KeyStoreLookup::find(const CertificateIdentifier& recipient) const {
    const bool isSought = recipient.issuer() != nullptr && !recipient.serialNumber().isNull();
    return isSought ? m_keys->find(*recipient.issuer(), *recipient.serialNumber()) : NVX509::KeyCertificatePair(false);
}

struct KeyListLookup::Index {
    using Pairs = std::multimap<std::string, NVX509::KeyCertificatePair, std::less<>>;

    [[nodiscard]] const Pairs& by(NamedBy namedBy) const noexcept {
        return namedBy == NamedBy::issuerAndSerialNumber ? bySerialNumber : byKeyIdentifier;
    }
    Pairs bySerialNumber;
    Pairs byKeyIdentifier;
};

KeyListLookup::KeyListLookup(const std::list<NVX509::KeyCertificatePair>& pairs) {
    auto index = std::make_unique<Index>();
    for (const NVX509::KeyCertificatePair& pair : pairs) {
        if (!pair) {
            continue;
        }
        if (const auto name = nameOf(pair->certificate, NamedBy::issuerAndSerialNumber)) {
            index->bySerialNumber.emplace(distinctive(name->namedBy(), name->octets()), pair);
        }
        if (const auto name = nameOf(pair->certificate, NamedBy::subjectKeyIdentifier)) {
            index->byKeyIdentifier.emplace(distinctive(name->namedBy(), name->octets()), pair);
        }
    }
    m_index = std::move(index);
}

KeyListLookup::~KeyListLookup() = default;

NVX509::KeyCertificatePair KeyListLookup::find(const CertificateIdentifier& recipient) const {
    const auto [first, last] =
        m_index->by(recipient.namedBy()).equal_range(distinctive(recipient.namedBy(), recipient.octets()));
    for (auto one = first; one != last; ++one) {
        if (recipient.names(one->second->certificate)) {
            return one->second;
        }
    }
    return NVX509::KeyCertificatePair(false);
}

bool KeyListLookup::mayFind(NamedBy namedBy, const Buffer& octets) const noexcept {
    const Index::Pairs& pairs = m_index->by(namedBy);
    return pairs.find(distinctive(namedBy, octets)) != pairs.end();
}

} // namespace Norvane::Crypto::CMS
