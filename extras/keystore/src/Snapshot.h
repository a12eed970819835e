#pragma once

/// \file
/// What one load found, and the look-ups in it. It never changes, so that any number of threads may ask it.

#include <norvcrypto-keystore/DirectoryKeyStore.h>

#include <cstdint>
#include <ctime>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace Norvane::Crypto::NVX509::keystore {

using Fitness = DirectoryKeyStore::Fitness;
using Identity = DirectoryKeyStore::Identity;
using Purpose = DirectoryKeyStore::Purpose;

struct Snapshot : DirectoryKeyStore::Contents, std::enable_shared_from_this<Snapshot> {
    /// What look-ups want to know of an identity.
    struct Facts {
        KeyCertificatePair pair; ///< its key may be empty
        std::int64_t validFrom;
        std::int64_t validUntil;
    };

    /// Adds an identity; folders come in the order of their names.
    void add(Identity identity, const Facts& facts);
    /// Makes the indexes, once all identities are there.
    void index();

    [[nodiscard]] Fitness fitnessOf(std::size_t identity, Purpose purpose, std::time_t now) const;
    /// The identity that an address leads to.
    [[nodiscard]] const Facts* find(const EmailAddress& address, Purpose purpose) const;
    [[nodiscard]] const Facts* find(const DistinguishedName& issuer, const ASN1::Integer& serial) const;
    /// All that matches, and the winner.
    [[nodiscard]] DirectoryKeyStore::Explanation explain(const EmailAddress& address, Purpose purpose) const;

private:
    using Ranks = std::vector<std::size_t>;

    [[nodiscard]] const StringPattern& patternAt(const DirectoryKeyStore::Place& place) const;
    /// Hands the ranks (indices into `precedence`) of the patterns that match to `visit`, first the one that wins,
    /// until it answers true.
    template <class Visit> void eachMatch(const std::string& address, Visit visit) const;

    std::vector<Facts> m_facts; ///< beside `identities`
    /// The patterns that can match at all: by the whole address, by its domain, and the rest under an empty text.
    std::unordered_map<std::string, Ranks> m_byText;
    std::vector<std::size_t> m_bySerial; ///< identities with a key, by serial number, issuer and folder
};

} // namespace Norvane::Crypto::NVX509::keystore
