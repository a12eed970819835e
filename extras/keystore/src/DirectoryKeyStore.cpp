#include <norvcrypto-keystore/DirectoryKeyStore.h>

#include "Snapshot.h"

#include <norvcmsg/Exception.h>

namespace Norvane {
template class RefCounted<Crypto::NVX509::DirectoryKeyStore>;
template class Ref<Crypto::NVX509::DirectoryKeyStore>;
} // namespace Norvane

namespace Norvane::Crypto::NVX509 {

namespace {

using keystore::Snapshot;

[[noreturn]] void raise(const char* where, const std::string& directory, const char* reason, unsigned int line) {
    throw Exception(where, 4, "DirectoryKeyStore", line).stringParameter(directory + ": " + reason);
}

/// What a look-up led to, for whoever uses it.
std::optional<DirectoryKeyStore::Found> found(const std::optional<Snapshot::Hit>& hit) {
    if (!hit) {
        return std::nullopt;
    }
    return DirectoryKeyStore::Found{
        hit->entry->name(),
        hit->holding ? hit->holding->pair : KeyCertificatePair(RefKey(), hit->leaf->certificate, hit->leaf->following),
        hit->isValid};
}

KeyCertificatePair pairOf(const std::optional<Snapshot::Hit>& hit) {
    return hit ? hit->holding->pair : KeyCertificatePair(true);
}

} // namespace

DirectoryKeyStore::DirectoryKeyStore(const std::string& directory, Reading reading)
    : m_directory(directory),
      m_reading(reading) {
    reload();
}

DirectoryKeyStore::~DirectoryKeyStore() = default;

void DirectoryKeyStore::reload() {
    const Synchronized loading(m_loading);
    try {
        static_cast<void>(load());
    } catch (const std::runtime_error& failure) { // a refusal, or what every file needs is exhausted
        raise("DirectoryKeyStore::reload", m_directory, failure.what(), __LINE__);
    }
}

/// With `m_loading` held.
std::shared_ptr<const Snapshot> DirectoryKeyStore::load() const {
    const auto before = snapshot();
    std::shared_ptr<const Snapshot> loaded = std::make_shared<const Snapshot>(m_directory, before.get(), m_reading);
    const Synchronized lock(m_mutex); // let go before `before`, with which the earlier content goes
    return m_snapshot = loaded;
}

std::shared_ptr<const Snapshot> DirectoryKeyStore::snapshot() const {
    const Synchronized lock(m_mutex);
    return m_snapshot;
}

/// Asks the content, and a newer one when the directory turns out to have changed since it was listed.
template <class Question> auto DirectoryKeyStore::ask(Question question) const {
    constexpr int mostLoads = 16;
    try {
        auto content = snapshot();
        for (int loads = 0; loads < mostLoads; ++loads) {
            try {
                return question(*content);
            } catch (const keystore::Changed&) {
                const Synchronized loading(m_loading);
                const auto now = snapshot();
                content = now == content ? load() : now;
            }
        }
        throw keystore::Refusal("changes again and again while it is read");
    } catch (const std::runtime_error& failure) { // `Exception` is none
        raise("DirectoryKeyStore::find", m_directory, failure.what(), __LINE__);
    }
}

std::shared_ptr<const DirectoryKeyStore::Contents> DirectoryKeyStore::contents() const {
    return ask([](const Snapshot& content) { return content.contents(); });
}

std::list<RefCertificate> DirectoryKeyStore::certificates() const {
    return ask([](const Snapshot& content) { return content.certificates(); });
}

DirectoryKeyStore::Explanation DirectoryKeyStore::explain(const EmailAddress& address, Purpose purpose) const {
    return ask([&](const Snapshot& content) { return content.explain(address, purpose); });
}

KeyCertificatePair DirectoryKeyStore::find(const DistinguishedName& issuer, const ASN1::Integer& serial) {
    return ask([&](const Snapshot& content) { return pairOf(content.find(issuer, serial)); });
}

RefCertificate DirectoryKeyStore::findEncryptionCertificate(const EmailAddress& address) {
    return ask([&](const Snapshot& content) {
        const auto hit = content.find(address, Purpose::encryption);
        return hit ? hit->leaf->certificate : RefCertificate();
    });
}

KeyCertificatePair DirectoryKeyStore::findSigningKey(const EmailAddress& address) {
    return ask([&](const Snapshot& content) { return pairOf(content.find(address, Purpose::signing)); });
}

KeyCertificatePair DirectoryKeyStore::findDecryptionKey(const EmailAddress& address) {
    return ask([&](const Snapshot& content) { return pairOf(content.find(address, Purpose::decryption)); });
}

std::optional<DirectoryKeyStore::Found> DirectoryKeyStore::search(const EmailAddress& address, Purpose purpose) const {
    return ask([&](const Snapshot& content) { return found(content.find(address, purpose)); });
}

std::optional<DirectoryKeyStore::Found> DirectoryKeyStore::search(const DistinguishedName& issuer,
                                                                  const ASN1::Integer& serial) const {
    return ask([&](const Snapshot& content) { return found(content.find(issuer, serial)); });
}

std::optional<DirectoryKeyStore::Found> DirectoryKeyStore::searchKeyIdentifier(const Buffer& keyIdentifier) const {
    return ask([&](const Snapshot& content) { return found(content.findKeyIdentifier(keyIdentifier)); });
}

RefDirectoryKeyStore::RefDirectoryKeyStore() = default;
RefDirectoryKeyStore::RefDirectoryKeyStore(const std::string& directory, DirectoryKeyStore::Reading reading)
    : Ref(makeReference<DirectoryKeyStore>(directory, reading)) {}
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
