#include "CMSVerification/Candidates.h"

#include "openssl/ErrorQueue.h"
#include "openssl/Pkcs7.h"

#include <norvcrypto/CMSVerification.h>

#include <algorithm>
#include <array>
#include <new>

namespace Norvane::Crypto::CMS {

namespace {

/// 0 where names cannot be hashed at all, which are compared then. \throws std::bad_alloc: it would count as another name
unsigned long hashOf(const X509_NAME* name) {
    static const bool canHash = EVP_Digest("", 0, std::array<unsigned char, EVP_MAX_MD_SIZE>().data(), nullptr,
                                           EVP_sha1(), nullptr) == 1; // which the hash of a name is made with
    int ok = 0;
    const unsigned long hash = X509_NAME_hash_ex(name, nullptr, nullptr, &ok);
    if (ok != 1 && canHash) {
        throw std::bad_alloc();
    }
    return hash;
}

} // namespace

CandidateIndex::CandidateIndex(const std::vector<PKCS7_SIGNER_INFO*>& signers) {
    const openssl::ErrorMark mark;
    for (const PKCS7_SIGNER_INFO* signer : signers) {
        const PKCS7_ISSUER_AND_SERIAL* name = signer->issuer_and_serial;
        if (name == nullptr || name->issuer == nullptr || name->serial == nullptr) {
            continue;
        }
        const Name key(keyOf(name->serial), hashOf(name->issuer));
        Entry* entry = find(key, name->issuer);
        if (entry == nullptr) {
            entry = &m_entries.emplace(key, Entry{name, {}, {}})->second;
        }
        m_serials.insert(key.first);
        m_bySigner.emplace(signer, entry);
    }
}

void CandidateIndex::offer(X509* certificate) {
    const openssl::ErrorMark mark;
    if (certificate == nullptr) {
        return;
    }
    std::string serial = keyOf(X509_get0_serialNumber(certificate));
    if (!m_serials.contains(serial)) {
        return;
    }
    const X509_NAME* issuer = X509_get_issuer_name(certificate);
    Entry* entry = find(Name(std::move(serial), hashOf(issuer)), issuer);
    if (entry == nullptr || entry->found.hasMore) {
        return;
    }
    Fingerprint fingerprint{};
    unsigned int length = 0;
    if (X509_digest(certificate, EVP_sha256(), fingerprint.data(), &length) != 1) {
        throw std::bad_alloc(); // nothing else keeps it from being digested
    }
    if (std::ranges::find(entry->fingerprints, fingerprint) != entry->fingerprints.end()) {
        return;
    }
    if (entry->found.certificates.size() == maximumTries) {
        entry->found.hasMore = true;
        return;
    }
    entry->fingerprints.push_back(fingerprint);
    entry->found.certificates.push_back(certificate);
}

const Candidates& CandidateIndex::of(const PKCS7_SIGNER_INFO* signer) const {
    const auto entry = m_bySigner.find(signer);
    return entry == m_bySigner.end() ? m_none : entry->second->found;
}

bool CandidateIndex::mayName(framing::Octets serial) const {
    constexpr unsigned char sign = 0x80;
    const auto element = framing::firstElement(serial);
    if (!element || element->content.empty() || element->content.front() >= sign) {
        return true; // negative: OpenSSL has to make the number of it
    }
    const framing::Octets number = element->content;
    return m_serials.contains(
        keyOf(V_ASN1_INTEGER, number.size() > 1 && number.front() == 0 ? number.subspan(1) : number));
}

std::string CandidateIndex::keyOf(int type, framing::Octets number) {
    return std::to_string(type) + ':' + std::string(reinterpret_cast<const char*>(number.data()), number.size());
}

std::string CandidateIndex::keyOf(const ASN1_INTEGER* serial) {
    return keyOf(ASN1_STRING_type(serial),
                 {ASN1_STRING_get0_data(serial), static_cast<std::size_t>(std::max(ASN1_STRING_length(serial), 0))});
}

CandidateIndex::Entry* CandidateIndex::find(const Name& name, const X509_NAME* issuer) {
    const auto [first, last] = m_entries.equal_range(name);
    const auto found = std::find_if(
        first, last, [&](const auto& entry) { return X509_NAME_cmp(entry.second.name->issuer, issuer) == 0; });
    return found == last ? nullptr : &found->second;
}

} // namespace Norvane::Crypto::CMS
