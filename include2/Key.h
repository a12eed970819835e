#ifndef NORVCRYPTO_KEY_H
#define NORVCRYPTO_KEY_H

/// \file
/// Public and private keys: one OpenSSL `EVP_PKEY` each, read from and written to buffers as DER, base64 of DER, or
/// PEM. Callers hold keys through `RefKey`:
///
/// \code
/// Norvane::Crypto::RefKey key(Norvane::Crypto::Key::PRIVATE_KEY); // empty, to be filled by one read
/// key->readPEM(pem, passphrase);
/// Norvane::Buffer der;
/// key->write(der, false);                                         // PKCS#1 or SEC 1 form; protected
/// EVP_PKEY* forOpenSSL = key;                                     // lives as long as the key
/// \endcode
///
/// Formats: a public key is a SubjectPublicKeyInfo (RFC 5280, PEM label "PUBLIC KEY"); a private key is read in any
/// form OpenSSL knows (PKCS#1, SEC 1, PKCS#8 of RFC 5958, encrypted or not) and written as PEM in PKCS#8. Base64 is
/// that of RFC 4648 section 4.
///
/// Every failure is an `Exception` of code 4 and source module "Key" whose string parameter is OpenSSL's errors;
/// where-text and line stand with each operation. After a failed read the key is unchanged, after a failed write `out`
/// is. Only `readPEM` with an empty passphrase can ask for one: OpenSSL then prompts on the terminal of the process, or
/// reads standard input where there is none. A server should close standard input, or never read keys that way.
///
/// A filled key may be read by several threads at once; reading into a key, and writing one, is not synchronised.

#include <norvcmsg/Buffer.h>
#include <norvcmsg/Exception.h>
#include <norvcrypto/Export.h>
#include <norvcrypto/NorvRefcounted>

#include <string>

struct evp_pkey_st;

namespace Norvane::Crypto {

/// Thrown in place of a plain `Exception`, with the same where-text, code and line, when a private key or a PKCS#12 file
/// is refused for what it would cost to open or decode it. The string parameter says what that is. It is not damaged
/// then, and nothing is known of whether the passphrase is right:
///
/// \code
/// try {
///     key->readPEM(pem, passphrase);
/// } catch (const Norvane::Crypto::TooCostlyException& refused) {
///     // made by somebody who wants to keep us busy, or with a number of iterations that nobody needs
/// } catch (const Norvane::Exception& failure) {
///     // no key, a damaged one, a wrong passphrase
/// }
/// \endcode
class NORVCRYPTO_EXPORT TooCostlyException : public Exception {
public:
    using Exception::Exception;
    TooCostlyException(const TooCostlyException& other) noexcept;
    TooCostlyException& operator=(const TooCostlyException& other) noexcept;
    ~TooCostlyException() override;
};

/// What public and private keys share. A key that holds no `EVP_PKEY` is empty.
class NORVCRYPTO_EXPORT Key : public virtual RefImpl {
public:
    /// The kind of an empty key that `RefKey` makes. Other values make none.
    enum Type : int { PUBLIC_KEY = 2, PRIVATE_KEY = 3 };

    /// \param keyData an `EVP_PKEY*` or null; the concrete class takes it over
    explicit Key(void* keyData);
    ~Key() override;
    Key(const Key&) = delete;
    Key& operator=(const Key&) = delete;

    /// `readPEM(in, "")`.
    virtual void readPEM(const Buffer& in) = 0;
    /// Reads the first key of this kind in a PEM text. \param passphrase opens an encrypted block: its bytes as they
    /// are, of which OpenSSL uses the first 1024; with an embedded NUL, at which OpenSSL would silently cut it, it is
    /// refused.
    virtual void readPEM(const Buffer& in, const std::string& passphrase) = 0;
    /// Reads DER, or base64 of DER. Bytes after the first structure are ignored.
    ///
    /// Deliberate, for all reads: a key that this object holds already is overwritten without being freed. Read into
    /// empty keys only.
    virtual void read(const Buffer& in, bool base64) = 0;
    /// Replaces `out` by a PEM text and protects it.
    virtual void writePEM(Buffer& out, const std::string& passphrase) = 0;
    /// Replaces `out` by DER, or by base64 of DER on one line, and protects it.
    virtual void write(Buffer& out, bool base64) = 0;

    /// The `EVP_PKEY*`, or null. It belongs to the key.
    [[nodiscard]] void* keyData() const noexcept;

protected:
    void keyData(void* keyData) noexcept;

private:
    void* m_keyData;
};

/// A public key.
class NORVCRYPTO_EXPORT PublicKey : public Key {
public:
    /// \param keyData an `EVP_PKEY*`, which this key owns from now on, or null for an empty key
    explicit PublicKey(void* keyData);
    ~PublicKey() override;

    /// \throws Exception "Crypto::PublicKey::read", line 217, "Could not decode the public key:  " and OpenSSL's
    /// errors; "Crypto::MemoryBIO" for more than 2147483647 bytes. A text with a key that is refused (see Acceptance.h) in
    /// any of its blocks is refused, with "refused: " and the reason as the last of the errors
    void readPEM(const Buffer& in) override;
    /// \throws Exception as above
    void readPEM(const Buffer& in, const std::string& passphrase) override;
    /// \throws Exception "Crypto::PublicKey::read", line 241; "Crypto::MemoryBIO" for more than 2147483647 bytes. A key
    /// that is refused (see Acceptance.h) as in `readPEM`
    void read(const Buffer& in, bool base64) override;
    /// Deliberate: throws on success, so that it never returns a PEM text. An empty key, which OpenSSL cannot write, is
    /// the case in which it returns, with `out` empty. Use `write` and PEM-encode its DER instead. The passphrase is
    /// ignored.
    /// \throws Exception "Crypto::PublicKey::writePEM", line 266, caused by "Crypto::PublicKey::writePEM", line 256
    void writePEM(Buffer& out, const std::string& passphrase) override;
    /// \throws Exception "Crypto::PublicKey::write", line 296, caused by "Crypto::PublicKey::read" (deliberately named
    /// so), line 282: the key is empty or cannot be encoded
    void write(Buffer& out, bool base64) override;
};

/// A private key. Its PEM and DER forms, and every buffer through which they pass, are wiped when they go.
///
/// Every read refuses, as a `TooCostlyException` and before anything is decoded: keys of more than 16,384 bytes; a number
/// of more than 16,384 bits in an RSA key or 10,000 in any other (OpenSSL raises numbers of that length to powers as soon
/// as it meets a DSA or DH key); and encrypted keys for which the passphrase would have to be hashed more than 50,000,000
/// times. Usual programs hash it 2,000 to 4,000,000 times.
class NORVCRYPTO_EXPORT PrivateKey : public Key {
public:
    /// \param keyData an `EVP_PKEY*`, which this key owns from now on, or null for an empty key
    explicit PrivateKey(void* keyData);
    ~PrivateKey() override;

    /// May prompt for a passphrase when the block is encrypted; see the top of this file.
    /// \throws Exception "Crypto::PrivateKey::read", line 82, "Could not decode the private key:  " and OpenSSL's
    /// errors; "Crypto::MemoryBIO" for more than 2147483647 bytes
    void readPEM(const Buffer& in) override;
    /// As above; prompts only when `passphrase` is empty. \throws Exception as above
    void readPEM(const Buffer& in, const std::string& passphrase) override;
    /// \throws Exception "Crypto::PrivateKey::read", line 112: the bytes are no private key; line 105, without a
    /// detail: OpenSSL could not make its source, or `in` is longer than 2147483647 bytes
    void read(const Buffer& in, bool base64) override;
    /// Reads what `readPEM` and `read` read, and encrypted PKCS#8 in DER (RFC 5958) too, without ever asking anybody for
    /// a passphrase: for servers. Other than for `readPEM`, an empty passphrase is one.
    /// \param in PEM when "-----BEGIN " stands in it, DER otherwise
    /// \param passphrase at most 1024 bytes as they are; null: none, so that encrypted keys fail
    /// \throws Exception as `readPEM` does for PEM, with line 82 for more than 2147483647 bytes, too, since the text is
    ///         read where it is; as `read` does for DER
    void readUnattended(const Buffer& in, const Buffer* passphrase);
    /// Writes PKCS#8, always encrypted with DES-EDE3-CBC: under `passphrase` (RFC 8018, PBES2), or under the empty
    /// password when it is empty. That empty password protects nothing: anyone can open it, and `readPEM` with an empty
    /// passphrase prompts for it. Of a passphrase OpenSSL uses the first 1024 bytes; one with an embedded NUL, at which
    /// OpenSSL would silently cut it, is refused.
    /// \throws Exception "Crypto::PrivateKey::writePEM", line 149, caused by "Crypto::PrivateKey::writePEM", line 139
    void writePEM(Buffer& out, const std::string& passphrase) override;
    /// Writes the key in clear: PKCS#1 for RSA, SEC 1 for EC.
    /// \throws Exception "Crypto::PrivateKey::write", line 179, caused by "Crypto::PrivateKey::read" (deliberately
    /// named so), line 164: the key is empty or cannot be encoded
    void write(Buffer& out, bool base64) override;
};

} // namespace Norvane::Crypto

namespace Norvane {
extern template class RefCounted<Crypto::Key>;
extern template class Ref<Crypto::Key>;
} // namespace Norvane

namespace Norvane::Crypto {

/// A handle on a key. There is no comparison: whether a private key belongs to a certificate is for OpenSSL's
/// X509_check_private_key to say.
class NORVCRYPTO_EXPORT RefKey : public Ref<Key> {
public:
    RefKey();
    /// Takes over a key that was made with `new`; null gives a null handle.
    explicit RefKey(Key* key);
    /// A new empty key of that kind; a null handle for values that are no kind.
    explicit RefKey(Key::Type type);
    RefKey(const RefKey& other);
    RefKey& operator=(const RefKey& other);
    ~RefKey() override;

    /// The `EVP_PKEY*` of the held key, which belongs to it; null for an empty key or a null handle.
    operator evp_pkey_st*() const noexcept;

    /// Would compare two pointers, and say that equal keys differ.
    bool operator==(const RefKey& other) const = delete;
};

} // namespace Norvane::Crypto

#endif
