#ifndef NORVCRYPTO_PKCS12_H
#define NORVCRYPTO_PKCS12_H

/// \file
/// Import of a private key and its certificate from a PKCS#12 file (RFC 7292): what browsers, mail programs and
/// certification authorities hand out as ".p12" or ".pfx".
///
/// \code
/// using namespace Norvane::Crypto;
/// initialize();                                                 // also loads the ciphers of old files (RC2, 3DES)
///
/// FileBIO file(Norvane::File::Path("alice.p12"), "rb");
/// Norvane::Crypto::PKCS12::Store store(file);                   // in full: OpenSSL's headers have a type PKCS12
/// store.read(password);
/// if (store.privateKey().isNull() || store.certificate().isNull()) {
///     return;                                                   // the file holds only one of them, or none
/// }
/// const NVX509::RefCertificate certificate =
///     NVX509::CertificateFactory()(store.certificate(), true);  // see Store::certificate(): this one frees it
/// NVX509::KeyCertificatePair pair(store.privateKey(), certificate);
/// \endcode
///
/// Keys of every kind that OpenSSL knows are imported (RSA, EC, DSA, Ed25519, ...). Further certificates in the file,
/// a chain to its authority for instance, are ignored.
///
/// Every failure is an `Exception` of code 4 and source module "PKCS12"; a `TooCostlyException` (Key.h) where opening the
/// file was refused for what it would cost. One object is used by one thread at a time.

#include <norvcrypto/Certificate.h>
#include <norvcrypto/Export.h>
#include <norvcrypto/Key.h>
#include <norvcrypto/detail/Owned.h>

#include <string>

struct bio_st;

namespace Norvane::Crypto::PKCS12 {

/// One PKCS#12 structure, and what was read out of it.
class NORVCRYPTO_EXPORT Store {
public:
    /// Holds no structure: `read` throws, and the handles stay empty.
    Store();
    /// Decodes a structure, in DER or BER, and leaves what follows it unread in the BIO. The password is not needed
    /// yet. \param in an OpenSSL `BIO*`, which stays the caller's and is not used afterwards
    ///
    /// When the BIO is that of a `BIOMediaIn` whose stream throws, the adapter keeps the stream's exception for its
    /// `rethrowStreamException()`, and this constructor throws its own.
    ///
    /// \throws Exception "Crypto::PKCS12::Store", line 23, OpenSSL's errors: the bytes are no PKCS#12 structure, the
    /// BIO fails or is null; "refused: ..." for a signed one whose certificates cost too much to decode
    explicit Store(bio_st* in);
    virtual ~Store();
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;

    /// Checks the password and takes out the private key and the certificate that belongs to it. After a failure both
    /// handles are what they were (after std::bad_alloc the certificate may be an empty handle). May be called again, with
    /// another password too; each success gives new ones.
    ///
    /// \param password its UTF-8 bytes (bytes that are no UTF-8 are taken as Latin-1). One with an embedded NUL is
    ///                 checked as a whole but opens nothing: the parsing fails, or the check already. Empty: the empty
    ///                 password. A file that was made without any, which is something else, is refused as if the
    ///                 password were wrong: see `readWithoutPassword`.
    ///
    /// \throws Exception "Crypto::PKCS12::read - Incorrect password", line 56: the password is wrong (without a
    /// detail), or the structure carries no MAC by which to tell or a malformed one (OpenSSL's errors)
    ///
    /// \throws Exception "Crypto::PKCS12::read - parsing error.", line 67, OpenSSL's errors: the contents cannot be
    /// decrypted or decoded
    ///
    /// \throws Exception "Crypto::PKCS12::read", the line of the throw: there is no structure
    ///
    /// \throws TooCostlyException likewise, and the reason: the file asks for more than 50,000,000 hash computations in all
    /// (its maker chooses how often the password is hashed, and a hostile file can drive that to hours), or holds a private
    /// key (see `PrivateKey`) or certificates that cost too much to decode. Refused before it is worked on, and a MAC that
    /// asks for so many before the password is checked: nothing is known of the password then.
    ///
    /// How that is counted: an iteration of the MAC is one hash computation; one of PKCS#12's old schemes one for each
    /// block of the hash that the key and the IV fill, three for 3DES; one of PBKDF2 two for each block of the key; scrypt
    /// takes four times the product of its numbers, and four times that of the last two for each 64 octets of its salt. Hashes other than SHA-1, SHA-2, MD4 and MD5 count eightfold. Key,
    /// certificates and MAC with 1,000,000 iterations each come to 5,000,000 or 7,000,000, and 10,000,000 each under
    /// AES-256 and SHA-256 are just let through. A number of iterations below 1 or beyond 2^31 - 1 is refused too. Of
    /// several keys only the first is decrypted, and counts.
    void read(const std::string& password);

    /// As `read`, of a file that was made without any password: what several programs make where none is typed, while others
    /// take the empty one then. Whoever does not know which tries both.
    ///
    /// \throws those of `read`
    void readWithoutPassword();

    /// The private key; an empty handle before `read`, and when the file holds none. The handle owns it.
    [[nodiscard]] const RefKey& privateKey() const;

    /// The certificate that belongs to the private key; an empty handle before `read`, when the file holds none, and
    /// when it holds no private key (a certificate alone belongs to none).
    ///
    /// Deliberate: nobody owns its `X509`. It outlives the store and every handle, and is never freed unless the caller
    /// sees to it, once for each successful `read` and unless the handle is empty, with a certificate that owns it:
    /// `NVX509::CertificateFactory()(store.certificate(), true)`. Keep that one, and do not use the store's handle, or
    /// copies of it, after the owning one is gone.
    [[nodiscard]] const NVX509::RefCertificate& certificate() const;

private:
    detail::OwnedPkcs12 m_p12;
    RefKey m_key;
    NVX509::RefCertificate m_certificate;
};

} // namespace Norvane::Crypto::PKCS12

#endif
