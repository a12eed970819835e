#ifndef NORVCRYPTO_BIO_H
#define NORVCRYPTO_BIO_H

/// \file
/// OpenSSL BIOs whose lifetime is that of an object: in memory and on a file.
///
/// \code
/// Norvane::Crypto::MemoryBIO text;            // written to by OpenSSL ...
/// ASN1_INTEGER* serial = X509_get_serialNumber(certificate);
/// i2a_ASN1_INTEGER(text, serial);
/// Norvane::Buffer digits = text;              // ... and read back
///
/// Norvane::Crypto::MemoryBIO source(pem);     // read by OpenSSL
/// X509* parsed = PEM_read_bio_X509(source, nullptr, refuse, nullptr);
/// \endcode
///
/// Neither class is a BIO; each converts to the `bio_st*` (OpenSSL's `BIO*`) that it owns and that lives as long as it
/// does. Neither can be copied. One object is used by one thread at a time.

#include <norvcmsg/Buffer.h>
#include <norvcmsg/File.h>
#include <norvcrypto/Export.h>
#include <norvcrypto/NorvRefcounted>
#include <norvcrypto/detail/Owned.h>

#include <string>

struct bio_st;

namespace Norvane::Crypto {

/// A BIO in memory: growable and empty, or read-only over a copy of given bytes.
class NORVCRYPTO_EXPORT MemoryBIO : public RefImpl {
public:
    /// An empty BIO to write to.
    /// \throws Exception "Crypto::MemoryBIO", code 4, without a detail: OpenSSL could not make the BIO
    MemoryBIO();
    /// A read-only BIO over a copy of `data`, which is read from the first byte on. The copy is wiped with this object
    /// when `data` is protected.
    /// \throws Exception "Crypto::MemoryBIO", code 4, "MemoryBIO:  " and OpenSSL's errors: OpenSSL could not make the
    /// BIO, or `data` is longer than 2147483647 bytes
    explicit MemoryBIO(const Buffer& data);
    ~MemoryBIO() override;
    MemoryBIO(const MemoryBIO&) = delete;
    MemoryBIO& operator=(const MemoryBIO&) = delete;

    /// The BIO, owned by this object.
    operator bio_st*() noexcept;

    /// The bytes written to the BIO, or those given at construction. Deliberate: the first answer that is not empty is
    /// kept for good. What is written afterwards is never seen here, and the BIO is not drained.
    operator Buffer();
    /// The bytes that are kept already, without a look at the BIO: empty before the first non-const reading.
    operator Buffer() const;

    /// Tells that the bytes are key material: those kept here are wiped with this object, and so is every buffer that
    /// is read from it.
    void protect();

private:
    Buffer m_cache;
    detail::OwnedBio m_bio; // goes first: it may read the cache's bytes
};

/// A BIO on a file, opened at once and closed with this object.
class NORVCRYPTO_EXPORT FileBIO : public RefImpl {
public:
    /// \param path the file. An empty path is not an error: this object then has no BIO, and OpenSSL's call on it fails
    /// \param mode as fopen takes it: "r", "wb", ...
    /// \throws Exception "Crypto::FileBIO", code 4, "MemoryBIO:  " (deliberately the memory BIO's prefix) and OpenSSL's
    /// errors, which tell the reason but not the path: the file cannot be opened that way
    FileBIO(const File::Path& path, const std::string& mode);
    ~FileBIO() override;
    FileBIO(const FileBIO&) = delete;
    FileBIO& operator=(const FileBIO&) = delete;

    /// The BIO, owned by this object; null when the path was empty.
    operator bio_st*() noexcept;

private:
    detail::OwnedBio m_bio;
};

} // namespace Norvane::Crypto

#endif
