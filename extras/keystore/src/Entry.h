#pragma once

/// \file
/// One folder of the store: what a listing tells of it, and what is read when somebody asks for it.

#include "Files.h"

#include <norvcmsg/Mutex.h>
#include <norvcrypto-keystore/DirectoryKeyStore.h>

#include <array>
#include <cstdint>
#include <ctime>
#include <list>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <vector>

namespace Norvane::Crypto::NVX509::keystore {

using Fitness = DirectoryKeyStore::Fitness;
using Identity = DirectoryKeyStore::Identity;
using Owner = DirectoryKeyStore::Owner;
using Problem = DirectoryKeyStore::Problem;
using Purpose = DirectoryKeyStore::Purpose;

/// A folder is no longer what the listing found, so that its patterns and its certificate may be of two times: the store has to
/// be listed anew.
class Changed : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// For whom a folder is read.
enum class Asker : int {
    lookUp, ///< somebody who uses what is found: the key is kept, and what cannot be used is logged
    survey  ///< somebody who wants to know what there is: the key is checked and let go
};

/// What names a certificate, with the same text however it is encoded.
struct CertificateNames {
    std::string issuerAndSerial; ///< equal for equal ones; of different issuers as good as never
    std::string keyIdentifier;   ///< empty: it has none
};

/// The hashes of issuers by their encodings: most certificates have one of few.
using IssuerHashes = std::unordered_map<std::string, unsigned long>;

/// Shared by all contents between which the folder did not change. What was read of it stays. Safe in any number of threads;
/// those that ask for the same folder while it is read wait for it.
class Entry {
public:
    /// The certificate. It never changes.
    struct Leaf {
        RefCertificate certificate{};          ///< null: the folder is not used
        std::list<RefCertificate> following{}; ///< the certificates behind it in its file
        std::array<Fitness, 3> fitness{};      ///< by purpose, for who has the key, while the certificate is valid
        std::int64_t validFrom = 0;
        std::int64_t validUntil = 0;
        std::vector<Problem> problems{};
        std::optional<Problem> onlyByName{}; ///< why no address leads to it
        std::optional<FileState> state{};
        std::time_t readAt = 0;
    };
    /// What goes with the certificate. It never changes.
    struct Holding {
        KeyCertificatePair pair{false}; ///< its key is empty when there is none, and when it was let go
        bool hasKey = false;
        std::vector<Problem> problems{};
        std::array<std::optional<FileState>, 3> states{};
        std::time_t readAt = 0;
    };

    /// Lists a folder, of which only `owners.txt` is read; one that is refused too. \throws Exhausted
    static std::shared_ptr<Entry> list(const FileDescriptor& store, const std::string& name);
    /// Lists it again: itself when nothing of what was read has changed. \throws Exhausted
    static std::shared_ptr<Entry> listAgain(const std::shared_ptr<Entry>& before, const FileDescriptor& store);

    [[nodiscard]] const std::string& name() const noexcept { return m_name; }
    [[nodiscard]] const std::vector<Owner>& owners() const noexcept { return m_owners; }
    /// Why the folder as a whole, or its `owners.txt`, is not used.
    [[nodiscard]] const std::optional<Problem>& refusal() const noexcept { return m_refusal; }
    [[nodiscard]] const std::optional<Problem>& ownersRefusal() const noexcept { return m_ownersRefusal; }

    /// Not of a folder that is refused. \throws Changed, Exhausted
    std::shared_ptr<const Leaf> leaf(const FileDescriptor& store, Asker asker);
    /// Null for a folder without a certificate that can be used. \throws Changed, Exhausted
    std::shared_ptr<const Holding> holding(const FileDescriptor& store, Asker asker);
    /// The certificates that go with the one of `leaf`, in their order; none without it. Reads no key, and keeps nothing.
    /// \throws Changed, Exhausted
    std::list<RefCertificate> chain(const FileDescriptor& store);
    /// What its certificate is named by; null when there is none or no private key goes with it. Decodes nothing else.
    /// \throws Changed, Exhausted
    std::shared_ptr<const CertificateNames> names(const FileDescriptor& store, IssuerHashes& hashes);

private:
    struct KnownNames {
        std::shared_ptr<const CertificateNames> names;
        std::optional<FileState> certificate; ///< nothing: no certificate was looked at
        std::time_t readAt;
    };

    explicit Entry(std::string name) : m_name(std::move(name)) {}

    [[nodiscard]] bool isListedAs(const FileDescriptor& store, const FileState& folder) const;
    [[nodiscard]] bool isReadAs(const FileDescriptor& store);
    [[nodiscard]] FileDescriptor openAsListed(const FileDescriptor& store) const;
    const Leaf& leafLocked(const FileDescriptor& store, Asker asker);
    [[nodiscard]] KnownNames readNames(const FileDescriptor& store, IssuerHashes& hashes);
    [[nodiscard]] std::string path(const char* file) const { return m_name + "/" + file; }

    // What the listing told. It never changes.
    std::string m_name;
    std::vector<Owner> m_owners{};
    std::optional<Problem> m_refusal{};
    std::optional<Problem> m_ownersRefusal{};
    FileState m_folderState{};
    std::optional<FileState> m_ownersState{};
    std::time_t m_listedAt = 0;

    Mutex m_mutex{}; ///< guards the rest
    std::shared_ptr<const Leaf> m_leaf{};
    std::shared_ptr<const Holding> m_holding{};
    std::optional<KnownNames> m_names{};
    bool m_leafIsLogged = false;
    bool m_holdingIsLogged = false;
};

} // namespace Norvane::Crypto::NVX509::keystore
