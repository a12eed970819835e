#include <norvcrypto-keystore/DirectoryKeyStore.h>

#include "Folder.h"

#include <norvcmsg/Exception.h>

namespace Norvane {
template class RefCounted<Crypto::NVX509::DirectoryKeyStore>;
template class Ref<Crypto::NVX509::DirectoryKeyStore>;
} // namespace Norvane

namespace Norvane::Crypto::NVX509 {

namespace {

std::shared_ptr<const keystore::Snapshot> load(const std::string& directory) {
    auto snapshot = std::make_shared<keystore::Snapshot>();
    const auto store = keystore::openStore(directory);
    for (const auto& name : keystore::namesIn(store)) {
        keystore::readFolder(*snapshot, store, name);
    }
    snapshot->index();
    return snapshot;
}

} // namespace

DirectoryKeyStore::DirectoryKeyStore(const std::string& directory) : m_directory(directory) {
    reload();
}

DirectoryKeyStore::~DirectoryKeyStore() = default;

void DirectoryKeyStore::reload() {
    const Synchronized loading(m_loading);
    try {
        auto loaded = load(m_directory); // outlives the lock, and takes the earlier content away after it
        const Synchronized lock(m_mutex);
        m_snapshot.swap(loaded);
    } catch (const std::runtime_error& failure) { // a refusal, or what every file needs is exhausted
        throw Exception("DirectoryKeyStore::reload", 4, "DirectoryKeyStore", __LINE__)
            .stringParameter(m_directory + ": " + failure.what());
    }
}

std::shared_ptr<const keystore::Snapshot> DirectoryKeyStore::snapshot() const {
    const Synchronized lock(m_mutex);
    return m_snapshot;
}

std::shared_ptr<const DirectoryKeyStore::Contents> DirectoryKeyStore::contents() const {
    return snapshot();
}

DirectoryKeyStore::Explanation DirectoryKeyStore::explain(const EmailAddress& address, Purpose purpose) const {
    return snapshot()->explain(address, purpose);
}

KeyCertificatePair DirectoryKeyStore::find(const DistinguishedName& issuer, const ASN1::Integer& serial) {
    const auto content = snapshot();
    const auto* found = content->find(issuer, serial);
    return found == nullptr ? KeyCertificatePair(true) : found->pair;
}

RefCertificate DirectoryKeyStore::findEncryptionCertificate(const EmailAddress& address) {
    return findPair(address, Purpose::encryption)->certificate;
}

KeyCertificatePair DirectoryKeyStore::findSigningKey(const EmailAddress& address) {
    return findPair(address, Purpose::signing);
}

KeyCertificatePair DirectoryKeyStore::findDecryptionKey(const EmailAddress& address) {
    return findPair(address, Purpose::decryption);
}

KeyCertificatePair DirectoryKeyStore::findPair(const EmailAddress& address, Purpose purpose) const {
    const auto content = snapshot();
    const auto* found = content->find(address, purpose);
    return found == nullptr ? KeyCertificatePair(true) : found->pair;
}

RefDirectoryKeyStore::RefDirectoryKeyStore() = default;
RefDirectoryKeyStore::RefDirectoryKeyStore(const std::string& directory)
    : Ref(makeReference<DirectoryKeyStore>(directory)) {}
RefDirectoryKeyStore::RefDirectoryKeyStore(const RefDirectoryKeyStore& other) = default;
RefDirectoryKeyStore& RefDirectoryKeyStore::operator=(const RefDirectoryKeyStore& other) = default;
RefDirectoryKeyStore::~RefDirectoryKeyStore() = default;

RefKeyStorePlugin RefDirectoryKeyStore::plugin() const {
    // Counts a reference more, where the public constructor takes one over.
    class Shared : public RefKeyStorePlugin {
    public:
        explicit Shared(KeyStorePlugin* body) { reset(new RefCounted<KeyStorePlugin>(body, true)); }
    };
    auto* body = bodyOrNull();
    return body == nullptr ? RefKeyStorePlugin() : Shared(body);
}

} // namespace Norvane::Crypto::NVX509
