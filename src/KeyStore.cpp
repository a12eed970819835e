#include "failures/Events.h"

#include <norvcmsg/Sleep.h>
#include <norvcrypto/KeyStore.h>

#include <boost/make_shared.hpp>

#include <cstdio>
#include <cstdlib>

namespace Norvane {
template class RefCounted<Crypto::NVX509::KeyStorePlugin>;
template class Ref<Crypto::NVX509::KeyStorePlugin>;
template class RefCounted<Crypto::NVX509::KeyStore>;
template class Ref<Crypto::NVX509::KeyStore>;
} // namespace Norvane

namespace Norvane::Crypto::NVX509 {

using failures::Event;

Mutex RefKeyStore::m_mutex;
std::atomic<bool> RefKeyStore::s_ready{false};

_KeyCertificatePair::_KeyCertificatePair() = default;
_KeyCertificatePair::_KeyCertificatePair(const RefKey& pairKey, const RefCertificate& pairCertificate)
    : key(pairKey),
      certificate(pairCertificate) {}
_KeyCertificatePair::_KeyCertificatePair(const RefKey& pairKey, const RefCertificate& pairCertificate,
                                         const std::list<RefCertificate>& pairChain)
    : key(pairKey),
      certificate(pairCertificate),
      chain(pairChain) {}
_KeyCertificatePair::~_KeyCertificatePair() = default;

KeyCertificatePair::KeyCertificatePair(bool create)
    : boost::shared_ptr<_KeyCertificatePair>(create ? boost::make_shared<_KeyCertificatePair>() : nullptr) {}
KeyCertificatePair::KeyCertificatePair(const RefKey& key, const RefCertificate& certificate)
    : boost::shared_ptr<_KeyCertificatePair>(boost::make_shared<_KeyCertificatePair>(key, certificate)) {}
KeyCertificatePair::KeyCertificatePair(const RefKey& key, const RefCertificate& certificate,
                                       const std::list<RefCertificate>& chain)
    : boost::shared_ptr<_KeyCertificatePair>(boost::make_shared<_KeyCertificatePair>(key, certificate, chain)) {}

KeyStorePlugin::KeyStorePlugin() = default;
KeyStorePlugin::~KeyStorePlugin() = default;

RefKeyStorePlugin::RefKeyStorePlugin() = default;
RefKeyStorePlugin::RefKeyStorePlugin(KeyStorePlugin* plugin) : Ref(adoptBody(plugin)) {}
RefKeyStorePlugin::RefKeyStorePlugin(const RefKeyStorePlugin& other) = default;
RefKeyStorePlugin& RefKeyStorePlugin::operator=(const RefKeyStorePlugin& other) = default;
RefKeyStorePlugin::~RefKeyStorePlugin() = default;

KeyStore::KeyStore() = default;
KeyStore::~KeyStore() = default;

void KeyStore::add(const RefKeyStorePlugin& plugin) {
    m_plugins.push_back(plugin);
}

namespace {

/// A null pair means that the program's own plug-in is broken. Going on could answer for the wrong owner, so the
/// process ends, in builds without assertions too.
[[noreturn]] void endForNullPair(const char* operation) {
    std::fprintf(stderr,
                 "norvcrypto: a key store plug-in returned a null pair from %s(). A plug-in without an answer has to "
                 "return a pair with an empty certificate, KeyCertificatePair(true).\n",
                 operation);
    std::abort();
}

template <class Ask>
KeyCertificatePair firstPair(const std::list<RefKeyStorePlugin>& plugins, const char* operation, Ask ask) {
    for (const auto& plugin : plugins) {
        if (plugin.isNull()) {
            continue;
        }
        KeyCertificatePair pair = ask(*plugin);
        if (!pair) {
            endForNullPair(operation);
        }
        if (!pair->certificate.isNull()) {
            return pair;
        }
    }
    return KeyCertificatePair(false);
}

} // namespace

KeyCertificatePair KeyStore::find(const DistinguishedName& issuer, const ASN1::Integer& serial) const {
    return firstPair(m_plugins, "find", [&](auto& plugin) { return plugin.find(issuer, serial); });
}

KeyCertificatePair KeyStore::findSigningKey(const EmailAddress& address) const {
    return firstPair(m_plugins, "findSigningKey", [&](auto& plugin) { return plugin.findSigningKey(address); });
}

KeyCertificatePair KeyStore::findDecryptionKey(const EmailAddress& address) const {
    return firstPair(m_plugins, "findDecryptionKey", [&](auto& plugin) { return plugin.findDecryptionKey(address); });
}

RefCertificate KeyStore::findEncryptionCertificate(const EmailAddress& address) const {
    for (const auto& plugin : m_plugins) {
        if (plugin.isNull()) {
            continue;
        }
        if (auto certificate = plugin->findEncryptionCertificate(address); !certificate.isNull()) {
            return certificate;
        }
    }
    return {};
}

RefKeyStore::RefKeyStore(bool create) : Ref(create ? makeReference<KeyStore>() : nullptr) {
    if (create) {
        s_ready = true;
    }
}

RefKeyStore::RefKeyStore(const RefKeyStore& other) = default;
RefKeyStore& RefKeyStore::operator=(const RefKeyStore& other) = default;
RefKeyStore::~RefKeyStore() = default;

RefKeyStore& RefKeyStore::processWide() {
    static RefKeyStore store(false);
    return store;
}

/// Puts a new store, or none, in place and returns it. The earlier one goes after the lock was given back, since its
/// plug-ins may ask for the store when they end. The new one is made under the lock: a reader that sees `s_ready` and
/// asks at once then waits for it instead of finding nothing.
RefKeyStore RefKeyStore::replace(bool create) {
    RefKeyStore earlier(false);
    const Synchronized lock(m_mutex);
    RefKeyStore made(create);
    RefKeyStore& store = processWide();
    earlier = store;
    store = made;
    return made;
}

RefKeyStore RefKeyStore::read() {
    constexpr int pauses = 20;
    constexpr unsigned int pauseMilliseconds = 3;
    for (int i = 0; !s_ready && i < pauses; ++i) {
        Norvane::pause(0, pauseMilliseconds);
    }
    if (!s_ready) {
        failures::logEvent(Event::keyStoreNotReady, " ");
        return RefKeyStore(false);
    }
    const Synchronized lock(m_mutex);
    return processWide();
}

RefKeyStore RefKeyStore::instance(bool create, bool reset) {
    processWide();
    try {
        return create || reset ? replace(create) : read();
    } catch (const Exception& exception) {
        failures::logEvent(Event::keyStoreFailure, exception.asString());
        return RefKeyStore(false);
    }
}

} // namespace Norvane::Crypto::NVX509
