#ifndef NORVCRYPTO_KEY_STORE_H
#define NORVCRYPTO_KEY_STORE_H

/// \file
/// Private keys with their certificates, and the process-wide store that finds them by asking plug-ins. The store holds
/// no keys itself: the program that owns keys supplies them through a plug-in.
///
/// \code
/// using namespace Norvane::Crypto;
/// class Keys : public NVX509::KeyStorePlugin { ... };                      // the four look-ups
///
/// auto store = NVX509::RefKeyStore::instance(true, false);                 // once, by the program that owns the keys
/// store->add(NVX509::RefKeyStorePlugin(new Keys));
///
/// auto pair = NVX509::RefKeyStore::instance(false, false)->findSigningKey(sender); // anywhere else
/// if (!pair) {
///     return;                                                              // no plug-in has an answer
/// }
/// use(pair->key, pair->certificate, pair->chain);
/// \endcode
///
/// Threads: `RefKeyStore::instance` may be called from any thread. All `add` calls must happen before other threads use
/// the store; look-ups may then run in several threads at once, and so do the plug-ins' operations.

#include <norvcmsg/EmailAddress.h>
#include <norvcmsg/Mutex.h>
#include <norvcrypto/Certificate.h>
#include <norvcrypto/Export.h>
#include <norvcrypto/Key.h>
#include <norvcrypto/NorvRefcounted>

#include <boost/noncopyable.hpp>
#include <boost/shared_ptr.hpp>

#include <atomic>
#include <list>

namespace Norvane::Crypto::NVX509 {

/// A private key, the certificate that belongs to it and the further certificates that go with it. That they belong
/// together is not checked here; whoever signs with the pair checks it.
class NORVCRYPTO_EXPORT _KeyCertificatePair : private boost::noncopyable {
public:
    /// All empty.
    _KeyCertificatePair();
    _KeyCertificatePair(const RefKey& pairKey, const RefCertificate& pairCertificate);
    _KeyCertificatePair(const RefKey& pairKey, const RefCertificate& pairCertificate,
                        const std::list<RefCertificate>& pairChain);
    virtual ~_KeyCertificatePair();

    RefKey key;
    RefCertificate certificate;
    std::list<RefCertificate> chain;
};

/// A shared pair, or none. Copies share the body; reach its fields with `->`. Test for null before: dereferencing a
/// null pair is a programming error (the shared pointer's assertion).
class NORVCRYPTO_EXPORT KeyCertificatePair : public boost::shared_ptr<_KeyCertificatePair> {
public:
    /// \param create true: a new pair of empty handles; false: no pair at all
    explicit KeyCertificatePair(bool create);
    /// A new pair.
    KeyCertificatePair(const RefKey& key, const RefCertificate& certificate);
    KeyCertificatePair(const RefKey& key, const RefCertificate& certificate, const std::list<RefCertificate>& chain);
};

/// A source of keys and certificates, supplied by the calling program. A plug-in without an answer returns an empty
/// handle, or a pair whose certificate is empty (`KeyCertificatePair(true)`); a null pair ends the process. Its
/// operations may run in several threads at once. What it throws reaches the caller of the look-up.
class NORVCRYPTO_EXPORT KeyStorePlugin : public RefImpl, public NonCopyable {
public:
    KeyStorePlugin();
    ~KeyStorePlugin() override;

    /// The pair whose certificate has this issuer and serial number.
    virtual KeyCertificatePair find(const DistinguishedName& issuer, const ASN1::Integer& serial) = 0;
    /// The certificate to encrypt to for an address.
    virtual RefCertificate findEncryptionCertificate(const EmailAddress& address) = 0;
    /// The pair to sign with for a sender.
    virtual KeyCertificatePair findSigningKey(const EmailAddress& address) = 0;
    /// The pair to decrypt with for a recipient.
    virtual KeyCertificatePair findDecryptionKey(const EmailAddress& address) = 0;
};

} // namespace Norvane::Crypto::NVX509

namespace Norvane {
extern template class RefCounted<Crypto::NVX509::KeyStorePlugin>;
extern template class Ref<Crypto::NVX509::KeyStorePlugin>;
} // namespace Norvane

namespace Norvane::Crypto::NVX509 {

/// A handle on a plug-in.
class NORVCRYPTO_EXPORT RefKeyStorePlugin : public Ref<KeyStorePlugin> {
public:
    RefKeyStorePlugin();
    /// Takes ownership of a plug-in that was just made with `new`.
    /// \throws Exception "RefCounted constructor for RefImpl failed.", code 4, no file, line 0: a null plug-in
    explicit RefKeyStorePlugin(KeyStorePlugin* plugin);
    RefKeyStorePlugin(const RefKeyStorePlugin& other);
    RefKeyStorePlugin& operator=(const RefKeyStorePlugin& other);
    ~RefKeyStorePlugin() override;
};

/// The body of a store: plug-ins in the order in which they were added. Each look-up asks them in that order with the
/// operation of the same name and returns the first answer. A plug-in that returns a null pair breaks its contract: the
/// process ends (`std::abort`), with the reason on standard error.
class NORVCRYPTO_EXPORT KeyStore : public RefImpl, private NonCopyable {
public:
    KeyStore();
    ~KeyStore() override;

    /// Appends a plug-in; an empty handle is never asked. Plug-ins are never removed. Not to be called while other
    /// threads use the store.
    void add(const RefKeyStorePlugin& plugin);

    /// The first pair with a certificate (the plug-in's own, shared), or a null pair: test for it.
    [[nodiscard]] KeyCertificatePair find(const DistinguishedName& issuer, const ASN1::Integer& serial) const;
    [[nodiscard]] KeyCertificatePair findSigningKey(const EmailAddress& address) const;
    [[nodiscard]] KeyCertificatePair findDecryptionKey(const EmailAddress& address) const;
    /// The first certificate, or an empty handle.
    [[nodiscard]] RefCertificate findEncryptionCertificate(const EmailAddress& address) const;

private:
    std::list<RefKeyStorePlugin> m_plugins;
};

} // namespace Norvane::Crypto::NVX509

namespace Norvane {
extern template class RefCounted<Crypto::NVX509::KeyStore>;
extern template class Ref<Crypto::NVX509::KeyStore>;
} // namespace Norvane

namespace Norvane::Crypto::NVX509 {

/// A handle on a store, and the way to the one store of the process.
class NORVCRYPTO_EXPORT RefKeyStore : public Ref<KeyStore> {
public:
    /// \param create true: a new store without plug-ins, and readers of the process-wide store stop waiting; false: an
    ///               empty handle
    explicit RefKeyStore(bool create);
    RefKeyStore(const RefKeyStore& other);
    RefKeyStore& operator=(const RefKeyStore& other);
    ~RefKeyStore() override;

    /// The process-wide store.
    ///
    /// `instance(true, false)` makes a new one, in place of an earlier one, and returns it. `instance(false, true)`
    /// takes it away and returns an empty handle. `instance(false, false)` returns it: empty after it was taken away;
    /// before it was ever made, the call waits up to 20 times 3 milliseconds for another thread to make it, and then
    /// logs a blank under event 0x3000060, level 0, and returns an empty handle. With `create`, `reset` is not looked
    /// at.
    ///
    /// An `Exception` on the way is logged under event 0x3000061, level 0, and an empty handle returned. So test the
    /// handle: `->` on an empty one throws "operator->", code 1.
    static RefKeyStore instance(bool create, bool reset);

private:
    static RefKeyStore& processWide();
    static RefKeyStore replace(bool create);
    static RefKeyStore read();

    /// Guards the process-wide handle.
    static Mutex m_mutex;
    /// Set for good by the first store that is made.
    static std::atomic<bool> s_ready;
};

} // namespace Norvane::Crypto::NVX509

#endif
