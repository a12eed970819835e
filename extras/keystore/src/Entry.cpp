#include "Entry.h"

#include "Names.h"
#include "Owners.h"
#include "Reader.h"

#include <norvcmsg/Logger.h>

#include <utility>

namespace Norvane::Crypto::NVX509::keystore {

namespace {

/// Tells operators what is not used, at the moment when somebody could have used it.
void log(const std::vector<Problem>& problems) {
    constexpr unsigned int event = 0x3000062;
    for (const auto& problem : problems) {
        Logger::instance(false).message(event, 0, "%s\x01%s\x01%s", problem.folder.c_str(), problem.file.c_str(),
                                        problem.reason.c_str());
    }
}

/// Whether a file is as it was when it was read, and would show it were it not.
bool isStill(const FileDescriptor& store, const std::string& path, const FileState& read, std::time_t readAt) {
    return read.isSettled(readAt) && stateAt(store, path) == read;
}

} // namespace

std::shared_ptr<Entry> Entry::list(const FileDescriptor& store, const std::string& name) {
    std::shared_ptr<Entry> entry(new Entry(name));
    entry->m_listedAt = std::time(nullptr);
    try {
        entry->m_folderState = folderState(store, name);
    } catch (const Refusal& refusal) {
        entry->m_refusal = {name, "", refusal.what()};
        return entry;
    }
    try {
        // A link in the folder's place would be followed, and seen when the folder is opened: it is not what was listed.
        if (const auto text = readFile(store, entry->path("owners.txt"), Content::open, entry->m_ownersState)) {
            entry->m_owners = ownersOf(*text);
        }
    } catch (const Refusal& refusal) {
        entry->m_ownersRefusal = {name, "owners.txt", refusal.what()};
    }
    return entry;
}

std::shared_ptr<Entry> Entry::listAgain(const std::shared_ptr<Entry>& before, const FileDescriptor& store) {
    const std::string& name = before->m_name;
    try {
        if (before->m_refusal || before->m_ownersRefusal || !before->isListedAs(store, folderState(store, name))) {
            return list(store, name);
        }
    } catch (const Refusal&) {
        return list(store, name);
    }
    if (before->isReadAs(store)) {
        return before;
    }
    std::shared_ptr<Entry> entry(new Entry(name));
    entry->m_owners = before->m_owners;
    entry->m_folderState = before->m_folderState;
    entry->m_ownersState = before->m_ownersState;
    entry->m_listedAt = before->m_listedAt;
    return entry;
}

bool Entry::isListedAs(const FileDescriptor& store, const FileState& folder) const {
    return folder == m_folderState && folder.isSettled(m_listedAt) &&
           (!m_ownersState || isStill(store, path("owners.txt"), *m_ownersState, m_listedAt));
}

/// Files that were absent are: the folder would have changed. What could not be used is read again, whatever the reason was.
bool Entry::isReadAs(const FileDescriptor& store) {
    const Synchronized lock(m_mutex);
    if (m_leaf && (!m_leaf->problems.empty() || !isStill(store, path("cert.pem"), *m_leaf->state, m_leaf->readAt))) {
        return false;
    }
    // Beside a certificate, too: it may have been read later, from what the file had become.
    if (m_names && m_names->certificate && !isStill(store, path("cert.pem"), *m_names->certificate, m_names->readAt)) {
        return false;
    }
    if (!m_holding) {
        return true;
    }
    bool still = m_holding->problems.empty();
    constexpr std::array files{"chain.pem", "passphrase", "key.pem"};
    for (std::size_t i = 0; still && i < files.size(); ++i) {
        const auto& state = m_holding->states.at(i);
        still = !state || isStill(store, path(files.at(i)), *state, m_holding->readAt);
    }
    return still;
}

FileDescriptor Entry::openAsListed(const FileDescriptor& store) const {
    FileDescriptor folder;
    try {
        folder = openFolder(store, m_name);
    } catch (const Refusal& refusal) {
        if (stateAt(store, m_name) == m_folderState) { // it was so all the time, and is listed because nobody opened it
            throw;
        }
        throw Changed(refusal.what());
    }
    if (stateOf(folder) != m_folderState || (!m_ownersRefusal && stateAt(folder, "owners.txt") != m_ownersState)) {
        throw Changed("changed while it was read");
    }
    return folder;
}

const Entry::Leaf& Entry::leafLocked(const FileDescriptor& store, Asker asker) {
    if (!m_leaf) {
        Leaf leaf;
        try {
            leaf = readLeaf(openAsListed(store), m_name);
        } catch (const Refusal& refusal) {
            leaf.problems.push_back({m_name, "", refusal.what()});
        }
        m_leaf = std::make_shared<const Leaf>(std::move(leaf));
    }
    if (asker == Asker::lookUp && !std::exchange(m_leafIsLogged, true)) {
        log(m_leaf->problems);
    }
    return *m_leaf;
}

std::shared_ptr<const Entry::Leaf> Entry::leaf(const FileDescriptor& store, Asker asker) {
    const Synchronized lock(m_mutex);
    static_cast<void>(leafLocked(store, asker));
    return m_leaf;
}

std::list<RefCertificate> Entry::chain(const FileDescriptor& store) {
    const Synchronized lock(m_mutex);
    const Leaf& leaf = leafLocked(store, Asker::survey);
    if (leaf.certificate.isNull()) {
        return {};
    }
    if (m_holding) {
        return m_holding->pair->chain;
    }
    try {
        std::vector<Problem> untold; // whoever asks for the key, or for all that there is, hears of it
        std::optional<FileState> state;
        return readChain(openAsListed(store), m_name, leaf, untold, state);
    } catch (const Refusal&) {
        return leaf.following;
    }
}

std::shared_ptr<const Entry::Holding> Entry::holding(const FileDescriptor& store, Asker asker) {
    const Synchronized lock(m_mutex);
    const Leaf& leaf = leafLocked(store, asker);
    if (leaf.certificate.isNull()) {
        return nullptr;
    }
    const bool letGo = m_holding && m_holding->hasKey && m_holding->pair->key.isNull();
    if (!m_holding || (letGo && asker == Asker::lookUp)) {
        Holding holding;
        try {
            const FileDescriptor folder = openAsListed(store);
            if (stateAt(folder, "cert.pem") != leaf.state) { // a new key would look like a wrong one
                throw Changed("cert.pem changed after it was read");
            }
            holding = readHolding(folder, m_name, leaf, asker);
        } catch (const Refusal& refusal) {
            holding.pair = KeyCertificatePair(RefKey(), leaf.certificate, leaf.following);
            holding.problems.push_back({m_name, "", refusal.what()});
        }
        m_holding = std::make_shared<const Holding>(std::move(holding));
    }
    if (asker == Asker::lookUp && !std::exchange(m_holdingIsLogged, true)) {
        log(m_holding->problems);
    }
    return m_holding;
}

std::shared_ptr<const CertificateNames> Entry::names(const FileDescriptor& store, IssuerHashes& hashes) {
    const Synchronized lock(m_mutex);
    if (!m_names) {
        m_names = readNames(store, hashes);
    }
    return m_names->names;
}

Entry::KnownNames Entry::readNames(const FileDescriptor& store, IssuerHashes& hashes) {
    KnownNames known{nullptr, std::nullopt, std::time(nullptr)};
    const auto keep = [&known](CertificateNames names) {
        known.names = std::make_shared<const CertificateNames>(std::move(names));
    };
    if (m_leaf && (m_leaf->certificate.isNull() || m_holding)) { // nothing of the folder is looked at any more
        if (m_holding && m_holding->hasKey) {
            keep(namesOf(m_leaf->certificate));
        }
        return known;
    }
    if (mayExist(store, path("key.pem"))) {
        std::optional<CertificateNames> found;
        try {
            if (const auto pem = readFile(store, path("cert.pem"), Content::open, known.certificate)) {
                found = namesIn(*pem, hashes);
            }
        } catch (const Refusal&) {
            found.reset(); // reading it whole tells why
        }
        if (!found && !leafLocked(store, Asker::lookUp).certificate.isNull()) {
            found = namesOf(m_leaf->certificate);
        }
        if (found) {
            keep(std::move(*found));
        }
    }
    if (stateAt(store, m_name) != m_folderState) {
        throw Changed("changed while it was read");
    }
    return known;
}

} // namespace Norvane::Crypto::NVX509::keystore
