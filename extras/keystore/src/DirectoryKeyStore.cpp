#include <norvcrypto-keystore/DirectoryKeyStore.h>

namespace Norvane {
template class RefCounted<Crypto::NVX509::DirectoryKeyStore>;
template class Ref<Crypto::NVX509::DirectoryKeyStore>;
} // namespace Norvane

namespace Norvane::Crypto::NVX509 {

struct DirectoryKeyStore::Snapshot : Contents {};

DirectoryKeyStore::DirectoryKeyStore(const std::string& directory) : m_directory(directory) {
    reload();
}

DirectoryKeyStore::~DirectoryKeyStore() = default;

void DirectoryKeyStore::reload() {
    const Synchronized loading(m_loading);
    auto loaded = std::make_shared<const Snapshot>();
    const Synchronized lock(m_mutex);
    m_snapshot.swap(loaded);
}

std::shared_ptr<const DirectoryKeyStore::Snapshot> DirectoryKeyStore::snapshot() const {
    const Synchronized lock(m_mutex);
    return m_snapshot;
}

std::shared_ptr<const DirectoryKeyStore::Contents> DirectoryKeyStore::contents() const {
    return snapshot();
}

DirectoryKeyStore::Explanation DirectoryKeyStore::explain(const EmailAddress& /*address*/, Purpose /*purpose*/) const {
    return {snapshot(), {}, std::nullopt};
}

KeyCertificatePair DirectoryKeyStore::find(const DistinguishedName& /*issuer*/, const ASN1::Integer& /*serial*/) {
    return KeyCertificatePair(true);
}

RefCertificate DirectoryKeyStore::findEncryptionCertificate(const EmailAddress& /*address*/) {
    return {};
}

KeyCertificatePair DirectoryKeyStore::findSigningKey(const EmailAddress& address) {
    return findPair(address, Purpose::signing);
}

KeyCertificatePair DirectoryKeyStore::findDecryptionKey(const EmailAddress& address) {
    return findPair(address, Purpose::decryption);
}

KeyCertificatePair DirectoryKeyStore::findPair(const EmailAddress& /*address*/, Purpose /*purpose*/) const {
    return KeyCertificatePair(true);
}

RefDirectoryKeyStore::RefDirectoryKeyStore() = default;
RefDirectoryKeyStore::RefDirectoryKeyStore(const std::string& directory)
    : Ref(makeReference<DirectoryKeyStore>(directory)) {}
RefDirectoryKeyStore::RefDirectoryKeyStore(const RefDirectoryKeyStore& other) = default;
RefDirectoryKeyStore& RefDirectoryKeyStore::operator=(const RefDirectoryKeyStore& other) = default;
RefDirectoryKeyStore::~RefDirectoryKeyStore() = default;

RefKeyStorePlugin RefDirectoryKeyStore::plugin() const {
    /// Counts a reference more, where the public constructor takes one over.
    class Shared : public RefKeyStorePlugin {
    public:
        explicit Shared(KeyStorePlugin* body) { reset(new RefCounted<KeyStorePlugin>(body, true)); }
    };
    auto* body = bodyOrNull();
    return body == nullptr ? RefKeyStorePlugin() : Shared(body);
}

} // namespace Norvane::Crypto::NVX509
