#pragma once

/// \file
/// What one load found, and the look-ups in it. What it lists never changes, so that any number of threads may ask it; what a
/// folder holds is read when a look-up comes to it.

#include "Entry.h"

#include <cstdint>
#include <ctime>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace Norvane::Crypto::NVX509::keystore {

class Snapshot {
public:
    /// Lists a directory. What did not change since `before`, if there is one, is taken over from it. \throws Refusal, Exhausted
    Snapshot(const std::string& directory, const Snapshot* before, DirectoryKeyStore::Reading reading);

    /// An identity that a look-up led to.
    struct Hit {
        const Entry* entry;
        std::shared_ptr<const Entry::Leaf> leaf;
        std::shared_ptr<const Entry::Holding> holding{}; ///< null when no key was asked for
        bool isValid = false;
    };

    // All of these: \throws Changed, Exhausted

    /// The identity that an address leads to.
    [[nodiscard]] std::optional<Hit> find(const EmailAddress& address, Purpose purpose) const;
    /// The identity with a key whose certificate has a name.
    [[nodiscard]] std::optional<Hit> find(const DistinguishedName& issuer, const ASN1::Integer& serial) const;
    [[nodiscard]] std::optional<Hit> findKeyIdentifier(const Buffer& keyIdentifier) const;
    /// All that matches, and the winner.
    [[nodiscard]] DirectoryKeyStore::Explanation explain(const EmailAddress& address, Purpose purpose) const;
    /// All that there is, read.
    [[nodiscard]] std::shared_ptr<const DirectoryKeyStore::Contents> contents() const;
    /// The certificates of all entries that are used, and behind all of them those that go with them.
    [[nodiscard]] std::list<RefCertificate> certificates() const;

private:
    /// Indices of entries in their order, by what names their certificates.
    using Index = std::unordered_map<std::string, std::vector<std::size_t>>;
    /// A pattern: an entry's, by their indices.
    struct Place {
        std::size_t entry;
        std::size_t owner;
    };
    struct NameIndex {
        Index byIssuerAndSerial;
        Index byKeyIdentifier;
    };
    /// Identities while they are put together, and where those of the entries are.
    class Survey;

    void readAhead(std::shared_ptr<Entry>& entry);
    void indexPatterns();
    [[nodiscard]] const StringPattern& patternAt(const Place& place) const;
    /// Hands the ranks (indices into `m_precedence`) of the patterns that match to `visit`, first the one that wins,
    /// until it answers true.
    template <class Visit> void eachMatch(const std::string& address, Visit visit) const;
    [[nodiscard]] std::shared_ptr<const NameIndex> nameIndex() const;
    template <class HasName>
    [[nodiscard]] std::optional<Hit> firstWithKey(const Index& index, const std::string& name, HasName hasName) const;

    FileDescriptor m_store;
    std::vector<std::shared_ptr<Entry>> m_entries; ///< by the bytes of their names
    std::vector<Place> m_precedence;               ///< all patterns, those first that win over the later ones
    /// Hashes of the texts that patterns are filed under, with their ranks: those that can match an address have the hash of
    /// all of it, of its domain, or of the empty text. In one piece of memory, since there are hundreds of thousands.
    std::vector<std::pair<std::size_t, std::size_t>> m_byText;

    mutable Mutex m_indexing; ///< guards the next one, which is made when somebody asks for a name
    mutable std::shared_ptr<const NameIndex> m_nameIndex;
    mutable Mutex m_surveying; ///< guards the next one, which is made when somebody asks for it
    mutable std::shared_ptr<const DirectoryKeyStore::Contents> m_contents;
};

} // namespace Norvane::Crypto::NVX509::keystore
