#include "CMSStreamReader/SignedCertificates.h"

#include "CMSVerification/Trials.h"
#include "openssl/Acceptance.h"
#include "openssl/RawValues.h"

#include <algorithm>

namespace Norvane::Crypto::CMS {

using framing::Element;
using framing::Elements;
using framing::Octets;

namespace {

Buffer borrowed(Octets octets) {
    return {octets.data(), static_cast<unsigned int>(octets.size()), true};
}

/// What is in front of the extensions of a certificate (RFC 5280, 4.1).
struct Names {
    Octets serialNumber;
    Octets issuer;
    Elements rest; ///< from the validity on
};

std::optional<Names> namesOf(Octets certificate) noexcept {
    const auto whole = framing::firstElement(certificate);
    const auto toBeSigned = whole ? Elements(*whole).nextUniversal(framing::sequence) : std::nullopt;
    if (!toBeSigned) {
        return std::nullopt;
    }
    Elements parts(*toBeSigned);
    static_cast<void>(parts.nextContext(0));
    const auto serialNumber = parts.nextUniversal(framing::integer);
    static_cast<void>(parts.nextUniversal(framing::sequence)); // signature algorithm
    const auto issuer = parts.nextUniversal(framing::sequence);
    if (!serialNumber || !issuer) {
        return std::nullopt;
    }
    return Names{shortestInteger(serialNumber->content), issuer->whole, parts};
}

/// The octets of the subject key identifier (RFC 5280, 4.2.1.2); none when there is none, or one that is no DER.
Octets keyIdentifierOf(Octets certificate) noexcept {
    static constexpr std::array<unsigned char, 3> identifier{0x55, 0x1D, 0x0E};
    const auto names = namesOf(certificate);
    if (!names) {
        return {};
    }
    Elements parts = names->rest;
    std::optional<Element> extensions;
    for (auto part = parts.next(); part; part = parts.next()) {
        extensions = part->isContext(3) ? part : std::nullopt;
    }
    const auto list = extensions ? Elements(*extensions).nextUniversal(framing::sequence) : std::nullopt;
    if (!list) {
        return {};
    }
    Elements each(*list);
    for (auto extension = each.next(); extension; extension = each.next()) {
        Elements inside(*extension);
        const auto type = inside.nextUniversal(framing::objectIdentifier);
        if (!type || !std::ranges::equal(type->content, identifier)) {
            continue;
        }
        static_cast<void>(inside.nextUniversal(1)); // critical
        const auto value = inside.nextUniversal(framing::octetString);
        const auto octets = value ? Elements(*value).nextUniversal(framing::octetString) : std::nullopt;
        return octets && !octets->header.constructed ? octets->content : Octets();
    }
    return {};
}

SignatureResult faultOf(Octets certificate) {
    const openssl::Refusal refusal = openssl::refusalOf(certificate.data(), certificate.size());
    if (refusal == openssl::Refusal::none) {
        return refused(SignatureReason::certificateDamaged);
    }
    SignatureResult fault = unsupported(SignatureReason::certificateRefused);
    fault.algorithm = openssl::textOf(refusal);
    return fault;
}

} // namespace

void SignedCertificates::list() {
    if (m_listed) {
        return;
    }
    std::vector<Entry> entries;
    Elements all(m_octets);
    for (auto element = all.next(); element; element = all.next()) {
        if (!element->isUniversal(framing::sequence)) {
            continue; // an attribute certificate, or one of another format
        }
        if (entries.size() == openssl::mostPublicKeys) {
            m_listed = m_tooMany = true;
            return;
        }
        Entry entry;
        entry.whole = element->whole;
        if (const auto names = namesOf(element->whole)) {
            entry.issuer = names->issuer;
            entry.serialNumber = names->serialNumber;
        }
        entries.push_back(std::move(entry));
    }
    m_entries = std::move(entries); // all of them, or none when there is no memory
    m_listed = true;
}

bool SignedCertificates::areTooMany() {
    list();
    return m_tooMany;
}

void SignedCertificates::findKeyIdentifiers() {
    if (!m_identifiersFound) {
        m_identifiersFound = true;
        for (Entry& entry : m_entries) {
            entry.keyIdentifier = keyIdentifierOf(entry.whole);
        }
    }
}

/// Whether the names are equal as RFC 5280, 7.1 compares them. `issuer` is the signer's, once it was decoded: null when it is none,
/// which is found out as slowly as what it is.
bool SignedCertificates::isIssuer(Entry& entry, const SignerParts& signer, std::optional<openssl::NamePtr>& issuer) {
    if (std::ranges::equal(entry.issuer, signer.issuer)) {
        return true;
    }
    if (!entry.issuerDecoded) {
        entry.issuerName = openssl::distinguishedNameOf(entry.issuer);
        entry.issuerDecoded = true;
    }
    if (!issuer) {
        issuer = openssl::distinguishedNameOf(signer.issuer);
    }
    return *issuer != nullptr && entry.issuerName != nullptr &&
           X509_NAME_cmp(issuer->get(), entry.issuerName.get()) == 0;
}

const NVX509::RefCertificate& SignedCertificates::decode(Entry& entry) {
    if (!entry.decoded) {
        entry.certificate = NVX509::CertificateFactory().readDER(borrowed(entry.whole));
        entry.decoded = true;
    }
    return entry.certificate;
}

NamedCertificates SignedCertificates::namedBy(const SignerParts& signer) {
    list();
    NamedCertificates found;
    found.hasMore = m_tooMany;
    const bool byName = signer.namedBy == NamedBy::issuerAndSerialNumber;
    if (!byName) {
        findKeyIdentifiers();
    }
    std::vector<Octets> seen;
    std::optional<openssl::NamePtr> issuer;
    for (Entry& entry : m_entries) {
        if (entry.isCopy) {
            continue;
        }
        const bool isNamed =
            byName ? std::ranges::equal(entry.serialNumber, signer.serialNumber) && isIssuer(entry, signer, issuer)
                   : !entry.keyIdentifier.empty() && std::ranges::equal(entry.keyIdentifier, signer.name);
        if (!isNamed) {
            continue;
        }
        // Marked, so that no more is compared for the next signer.
        entry.isCopy = std::ranges::any_of(seen, [&](Octets one) { return std::ranges::equal(one, entry.whole); });
        if (entry.isCopy) {
            continue;
        }
        if (seen.size() == maximumTries) {
            found.hasMore = true;
            break;
        }
        seen.push_back(entry.whole);
        const NVX509::RefCertificate& certificate = decode(entry);
        if (static_cast<X509*>(certificate) == nullptr) {
            found.fault = faultOf(entry.whole);
        } else {
            found.certificates.push_back(certificate);
        }
    }
    return found;
}

std::list<NVX509::RefCertificate> SignedCertificates::all() {
    std::list<NVX509::RefCertificate> certificates;
    for (Entry& entry : m_entries) {
        const NVX509::RefCertificate& certificate = decode(entry);
        if (static_cast<X509*>(certificate) != nullptr) {
            certificates.push_back(certificate);
        }
    }
    return certificates;
}

} // namespace Norvane::Crypto::CMS
