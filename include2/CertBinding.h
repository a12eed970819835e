#ifndef NORVCRYPTO_CERT_BINDING_H
#define NORVCRYPTO_CERT_BINDING_H

/// \file
/// Certificate bindings: which certificate, and which private key where there is one, belongs to the mail owners that a
/// pattern over addresses matches. Bindings are made from configuration text and searched in sets (CertBindingSet.h).
///
/// \code
/// using namespace Norvane::Crypto;
/// const RefCertBinding binding(7, Norvane::StringPattern("*@example.com"), CertBinding::X509, usage, 1, 0, keyPem,
///                              certificatesPem, passPhrase);
/// binding->namePattern().matches("alice@example.com");             // true
/// const NVX509::KeyCertificatePair pair = binding->keyPairX509(); // never null for a binding of this library
/// if (!pair->certificate.isNull()) {
///     encryptTo(pair->certificate);
/// }
/// if (static_cast<evp_pkey_st*>(pair->key) != nullptr) {           // not !pair->key.isNull(), see CertBindingX509
///     sign(pair);
/// }
/// \endcode
///
/// Threads: a binding that nobody changes (`status(int)`) may be read from several threads at once, and its handles
/// copied. Its certificates fill their caches on first use without a lock: call `Certificate::warm()` on them before
/// threads share them; `CertBindingSet::warm()` does so for a whole set.

#include <norvcmsg/StringPattern.h>
#include <norvcrypto/Export.h>
#include <norvcrypto/KeyStore.h>
#include <norvcrypto/NorvRefcounted>

namespace Norvane::Crypto {

/// What every kind of binding has. Everything but the status stays as it was given at construction. Programs may derive
/// kinds of their own, and put them into sets with `RefCertBinding(CertBinding*)`.
class NORVCRYPTO_EXPORT CertBinding : public virtual RefImpl, public NonCopyable {
public:
    /// The kind of a binding. The library makes `X509` bindings only; other values are carried as they are.
    enum KeyType : int { X509 = 1 };
    /// What the binding is for: a number of the caller's, which the library carries and never looks at.
    enum KeyUsage : int {};

    /// Identifier, type, usage, position and status 0, and the empty pattern.
    CertBinding();
    /// \param id       the key of the binding in a set
    /// \param pattern  the addresses of the owners; the empty pattern matches the null address only
    /// \param position the rank among bindings of one owner: lower ones come first
    CertBinding(int id, const StringPattern& pattern, KeyType keyType, KeyUsage keyUsage, unsigned int position,
                int status);
    ~CertBinding() override;

    /// The pair of the owners; copies share its body. A null pair counts as one without certificate.
    [[nodiscard]] virtual NVX509::KeyCertificatePair keyPairX509() const = 0;

    [[nodiscard]] int Id() const noexcept { return m_id; }
    [[nodiscard]] const StringPattern& namePattern() const noexcept { return m_namePattern; }
    [[nodiscard]] KeyType keyType() const noexcept { return m_keyType; }
    [[nodiscard]] KeyUsage keyUsage() const noexcept { return m_keyUsage; }
    [[nodiscard]] unsigned int position() const noexcept { return m_position; }
    /// A number of the caller's; nothing in the library depends on it.
    [[nodiscard]] int status() const noexcept { return m_status; }
    /// Sets the status, the only thing that ever changes. Not to be called while other threads read the binding.
    void status(int newStatus) noexcept { m_status = newStatus; }

private:
    int m_id = 0;
    StringPattern m_namePattern;
    KeyType m_keyType{};
    KeyUsage m_keyUsage{};
    unsigned int m_position = 0;
    int m_status = 0;
};

/// A binding whose certificate and key came from PEM text.
class NORVCRYPTO_EXPORT CertBindingX509 : public virtual CertBinding {
public:
    /// As `CertBinding()`, with a pair of its own that is empty.
    CertBindingX509();
    /// Reads certificates and key. Never throws for their texts: what cannot be read is logged under event 0x300005C,
    /// level 0, with four fields (the signature of this constructor, "CertBinding.cpp", 89 for the certificates or 103
    /// for the key, the exception on one line), and the binding is made without it. So look at what it holds.
    ///
    /// That the key belongs to the certificate is not checked; whoever signs with the pair checks it.
    ///
    /// \param keyPem         a private key, encrypted or not; null or empty for a binding that only encrypts. Deliberate:
    ///                       when it cannot be read the pair's `key` is a handle on a key without `EVP_PKEY`, not a
    ///                       null handle, which it is without a text. Convert to `evp_pkey_st*` to see whether there
    ///                       is one.
    /// \param certificatePem the owner's certificate, then the chain in order; null or empty for none. Text between
    ///                       blocks is skipped. Deliberate: reading ends silently, with no log record, at the first
    ///                       certificate block that does not decode; what came before is kept.
    /// \param passPhrase     opens an encrypted key; null counts as empty. With an empty one OpenSSL asks the terminal
    ///                       of the process, or standard input where there is none, as `Key::readPEM` tells: a server
    ///                       should close standard input.
    ///
    /// The texts stay the caller's, to wipe too; what is copied of key and pass phrase here is wiped.
    CertBindingX509(int id, const StringPattern& pattern, KeyType keyType, KeyUsage keyUsage, unsigned int position,
                    int status, const char* keyPem, const char* certificatePem, const char* passPhrase);
    ~CertBindingX509() override;

    [[nodiscard]] NVX509::KeyCertificatePair keyPairX509() const override;

private:
    NVX509::KeyCertificatePair m_pair{true};
};

} // namespace Norvane::Crypto

namespace Norvane {
extern template class RefCounted<Crypto::CertBinding>;
extern template class Ref<Crypto::CertBinding>;
} // namespace Norvane

namespace Norvane::Crypto {

/// A handle on a binding. Copies share the binding.
class NORVCRYPTO_EXPORT RefCertBinding : public Ref<CertBinding> {
public:
    /// A null handle.
    RefCertBinding();
    /// A new `CertBindingX509` from these arguments. Deliberate: for a key type other than `CertBinding::X509` the
    /// handle is null and no error is reported.
    RefCertBinding(int id, const StringPattern& pattern, CertBinding::KeyType keyType, CertBinding::KeyUsage keyUsage,
                   unsigned int position, int status, const char* keyPem, const char* certificatePem,
                   const char* passPhrase);
    /// Takes over a binding that was just made with `new`, of whatever kind.
    /// \throws Exception "RefCounted constructor for RefImpl failed.", code 4, no file, line 0: a null binding
    explicit RefCertBinding(CertBinding* binding);
    RefCertBinding(const RefCertBinding& other);
    RefCertBinding& operator=(const RefCertBinding& other);
    ~RefCertBinding() override;

    /// The order of positions, a null handle before every other.
    ///
    /// Deliberate: bindings of one position are equivalent whatever else they hold, so a sorted set keeps only the one
    /// that was inserted first. Give every binding a position of its own.
    bool operator<(const RefCertBinding& other) const;
};

} // namespace Norvane::Crypto

#endif
