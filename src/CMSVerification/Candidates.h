#pragma once

/// \file
/// Which certificates the signers of a structure name.

#include "framing/Elements.h"
#include "openssl/Pointers.h"

#include <array>
#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace Norvane::Crypto::CMS {

/// The certificates of one signer, in the order offered, each once.
struct Candidates {
    std::vector<X509*> certificates; ///< at most `maximumTries`
    bool hasMore = false;
};

/// Finds the certificates of all signers in one pass: no certificate is compared with each of the signers.
class CandidateIndex {
public:
    explicit CandidateIndex(const std::vector<PKCS7_SIGNER_INFO*>& signers);

    /// Whether a certificate of that serial number (an INTEGER element) may be one that a signer names.
    [[nodiscard]] bool mayName(framing::Octets serial) const;
    /// Keeps the certificate, which is borrowed, when a signer names it.
    void offer(X509* certificate);
    [[nodiscard]] const Candidates& of(const PKCS7_SIGNER_INFO* signer) const;

private:
    using Fingerprint = std::array<unsigned char, 32>;
    using Name = std::pair<std::string, unsigned long>; // serial number and a hash of the issuer
    struct Entry {
        const PKCS7_ISSUER_AND_SERIAL* name;
        Candidates found;
        std::vector<Fingerprint> fingerprints;
    };

    static std::string keyOf(int type, framing::Octets number);
    static std::string keyOf(const ASN1_INTEGER* serial);
    [[nodiscard]] Entry* find(const Name& name, const X509_NAME* issuer);

    std::set<std::string> m_serials;
    std::multimap<Name, Entry> m_entries;
    std::map<const PKCS7_SIGNER_INFO*, const Entry*> m_bySigner;
    Candidates m_none;
};

} // namespace Norvane::Crypto::CMS
