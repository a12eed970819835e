#ifndef NORVCRYPTO_HASHER_H
#define NORVCRYPTO_HASHER_H

/// \file
/// Digests over buffers, values and streams, and signatures made and checked over the same bytes.
///
/// \code
/// Norvane::Crypto::RefHasher hasher(Norvane::Crypto::Hasher::SHA256);
/// hasher << std::string("abc");
/// hasher->finalize();
/// std::string hex = hasher->digestAsHexString(); // "ba7816bf8f01cfea..."
///
/// Norvane::Crypto::SignerRef signer(Norvane::Crypto::Hasher::SHA256);
/// signer->signingKey(privateKey);
/// signer->update(body);
/// Norvane::Buffer signature = signer->sign();
///
/// Norvane::Crypto::RefVerifier verifier(Norvane::Crypto::Hasher::SHA256);
/// verifier->verificationKey(publicKey);
/// verifier->update(body);
/// bool good = verifier->isValid(signature);      // before finalize(), never after it
/// \endcode
///
/// Bytes are digested as given: there is no line-ending or character-set work. A good signature tells that the holder
/// of the key signed these bytes, not that the key deserves trust. One object is used by one thread at a time. Lengths
/// are 32 bits per call; any number of calls may follow one another.

#include <norvcmsg/Buffer.h>
#include <norvcmsg/Media.h>
#include <norvcrypto/Crypto.h>
#include <norvcrypto/Export.h>
#include <norvcrypto/Key.h>
#include <norvcrypto/NorvRefcounted>
#include <norvcrypto/detail/Owned.h>

#include <string>

struct evp_md_ctx_st;

namespace Norvane::Crypto {

/// Computes a digest. Derived classes that want to see the bytes override the third `update`; the other two call it.
class NORVCRYPTO_EXPORT Hasher : public RefImpl, public NonCopyable {
public:
    /// A digest, as OpenSSL's number (NID) for it. The constructor takes any NID whose short name OpenSSL knows as a
    /// digest, those that are not listed here included. MD4 and WHIRLPOOL need the legacy provider, which
    /// `initialize()` loads. MD5, MD4 and SHA1 are for what others made long ago: collisions can be made at will.
    enum Type : int {
        MD4 = 257,
        MD5 = 4,
        MD5_SHA1 = 114,
        RIPEMD160 = 117,
        WHIRLPOOL = 804,
        SHA1 = 64,
        SHA224 = 675,
        SHA256 = 672,
        SHA384 = 673,
        SHA512 = 674,
        SHA512_224 = 1094,
        SHA512_256 = 1095,
        SHA3_224 = 1096,
        SHA3_256 = 1097,
        SHA3_384 = 1098,
        SHA3_512 = 1099,
        BLAKE2B512 = 1056,
        BLAKE2S256 = 1057,
        SM3 = 1143
    };

    /// \throws Exception "Crypto::Hasher", code 4, "Unrecognized DigestType 0x" and the type in lower-case hexadecimal:
    /// OpenSSL has no such digest; without a detail: OpenSSL could not start it
    explicit Hasher(Type type);
    ~Hasher() override;

    /// The bytes of a buffer, or of a text without a terminator.
    virtual void update(const Buffer& data);
    virtual void update(const std::string& data);
    /// Digests `length` bytes; nothing when `data` is null. With a limit (below), only as many as it leaves room for.
    virtual void update(const unsigned char* data, unsigned int length);
    /// Computes the digest of all bytes so far. What comes after this is not refused, but yields no meaningful digest.
    virtual void finalize();
    /// The digest, in bytes; meaningful once `finalize()` has run.
    [[nodiscard]] virtual const Buffer& digest() const;

    [[nodiscard]] Type type() const noexcept;
    /// OpenSSL's short name of the digest, "SHA256" say; empty when it has none.
    [[nodiscard]] std::string typeAsString() const;
    /// Two lower-case hexadecimal digits for each byte of the digest.
    [[nodiscard]] std::string digestAsHexString() const;

    /// Sets the number of bytes after which all others are dropped, silently; 0, as at first, is no limit.
    void maximumInputData(unsigned int limit) noexcept;
    [[nodiscard]] unsigned int maximumInputData() const noexcept;

    /// OpenSSL's digest context (`EVP_MD_CTX*`), which belongs to this object.
    [[nodiscard]] evp_md_ctx_st* context() const noexcept;

protected:
    [[nodiscard]] bool isFinalized() const noexcept { return m_finalized; }

private:
    detail::OwnedDigestContext m_context;
    Type m_type;
    Buffer m_digest;
    std::string m_text; // no operation sets it
    bool m_finalized = false;
    TracerRef m_tracer;
    unsigned int m_maximumInputData = 0;
    unsigned int m_bytesHashed = 0;
};

} // namespace Norvane::Crypto

namespace Norvane {
extern template class RefCounted<Crypto::Hasher>;
extern template class Ref<Crypto::Hasher>;
} // namespace Norvane

namespace Norvane::Crypto {

/// A handle on a hasher.
class NORVCRYPTO_EXPORT RefHasher : public Ref<Hasher> {
public:
    RefHasher();
    /// A handle on a new `Hasher(type)`, with its exceptions.
    explicit RefHasher(Hasher::Type type);
    RefHasher(const RefHasher& other);
    RefHasher& operator=(const RefHasher& other);
    ~RefHasher() override;

protected:
    explicit RefHasher(RefCounted<Hasher>* reference) noexcept;
};

/// Feed a value to the digest and return the handle, so that values can be chained. Deliberate: numbers go in as they
/// lie in memory, without conversion to network byte order, so that such a digest depends on the machine; feed bytes
/// where it must not. `long` counts 8 bytes, `int` 4, `short` 2, `char` 1.
/// \throws Exception "operator->", code 1: the handle is null
NORVCRYPTO_EXPORT RefHasher& operator<<(RefHasher& hasher, long value);
NORVCRYPTO_EXPORT RefHasher& operator<<(RefHasher& hasher, unsigned long value);
NORVCRYPTO_EXPORT RefHasher& operator<<(RefHasher& hasher, unsigned int value);
NORVCRYPTO_EXPORT RefHasher& operator<<(RefHasher& hasher, unsigned short value);
NORVCRYPTO_EXPORT RefHasher& operator<<(RefHasher& hasher, char value);
NORVCRYPTO_EXPORT RefHasher& operator<<(RefHasher& hasher, unsigned char value);
NORVCRYPTO_EXPORT RefHasher& operator<<(RefHasher& hasher, const Buffer& value);
NORVCRYPTO_EXPORT RefHasher& operator<<(RefHasher& hasher, const std::string& value);

/// The body of a `HasherMediaOut`.
class NORVCRYPTO_EXPORT HasherMediaOutImpl : public MediaOutImpl {
public:
    /// \throws Exception those of `Hasher`
    explicit HasherMediaOutImpl(Hasher::Type type);
    ~HasherMediaOutImpl() override;

    void write(const Buffer& data) override;
    void write(const unsigned char* data, unsigned int length) override;
    /// Finalizes the hasher.
    void end() override;

    [[nodiscard]] const RefHasher& hasher() const noexcept;

private:
    RefHasher m_hasher;
};

/// A sink that digests what is written to it; `end()` finalizes the digest.
class NORVCRYPTO_EXPORT HasherMediaOut : public MediaOut {
public:
    /// \throws Exception those of `Hasher`
    explicit HasherMediaOut(Hasher::Type type);
    HasherMediaOut(const HasherMediaOut& other);
    HasherMediaOut& operator=(const HasherMediaOut& other);
    ~HasherMediaOut() override;

    /// The stream's hasher. Deliberate: a body that was replaced through the base class is not checked to be a
    /// `HasherMediaOutImpl`.
    /// \throws Exception "const Norvane::Crypto::RefHasher& Norvane::Crypto::HasherMediaOut::hasher() const", code 1:
    /// the stream has no body
    [[nodiscard]] const RefHasher& hasher() const;
};

/// Signs the bytes fed to it.
class NORVCRYPTO_EXPORT Signer : public Hasher {
public:
    /// \throws Exception those of `Hasher`
    explicit Signer(Type type);
    ~Signer() override;

    /// Shares the private key to sign with.
    void signingKey(const RefKey& key);
    /// The signature over all bytes so far: PKCS#1 v1.5 for RSA (RFC 8017, section 8.2), a DER structure for DSA and EC
    /// (RFC 3279). More bytes may follow, and a further signature over all of them.
    ///
    /// Deliberate: the result always has the key's maximal signature length (`EVP_PKEY_size`). That is exact for RSA; a
    /// DSA or EC signature can be shorter, and zeroes follow it then. Cut the result to the length that its DER header
    /// tells before it goes to a strict verifier.
    /// \throws Exception "operator->", code 1: no key was set
    /// \throws Exception "Crypto::Signer::sign", code 4, OpenSSL's errors: the key cannot sign with this digest
    [[nodiscard]] Buffer sign();

private:
    RefKey m_signingKey;
};

/// Checks a signature over the bytes fed to it.
class NORVCRYPTO_EXPORT Verifier : public Hasher {
public:
    /// \throws Exception those of `Hasher`
    explicit Verifier(Type type);
    ~Verifier() override;

    /// Shares the public key to check with.
    void verificationKey(const RefKey& key);
    /// True when `signature` is the key's signature over all bytes so far; false when it is not. May be asked again.
    /// Call it before `finalize()`, which consumes the digest's state.
    /// \throws Exception "virtual bool Norvane::Crypto::Verifier::isValid(const Norvane::Buffer&)", code 4, "Finalized
    /// already called. Do not call finalize before isValid"
    /// \throws Exception "operator->", code 1: no key was set
    /// \throws Exception "Crypto::Verififer::isValid" (spelled so), code 4, "Error during signature verification:  "
    /// and OpenSSL's errors, if it gives any: the key cannot verify with this digest, or a DSA or EC signature is no
    /// DER structure
    [[nodiscard]] virtual bool isValid(const Buffer& signature);

private:
    RefKey m_verificationKey;
};

/// A handle on a signer, which is a hasher's handle too.
class NORVCRYPTO_EXPORT SignerRef : public RefHasher {
public:
    /// A handle on a new `Signer(type)`, with its exceptions.
    explicit SignerRef(Hasher::Type type);
    SignerRef(const SignerRef& other);
    SignerRef& operator=(const SignerRef& other);
    ~SignerRef() override;

    /// The body, which is not checked to be a `Signer`. \throws Exception "operator->", code 1: the handle is null
    Signer* operator->();
    Signer* operator->() const;
};

/// A handle on a verifier, which is a hasher's handle too.
class NORVCRYPTO_EXPORT RefVerifier : public RefHasher {
public:
    RefVerifier();
    /// A handle on a new `Verifier(type)`, with its exceptions.
    explicit RefVerifier(Hasher::Type type);
    RefVerifier(const RefVerifier& other);
    RefVerifier& operator=(const RefVerifier& other);
    ~RefVerifier() override;

    /// The body, which is not checked to be a `Verifier`. \throws Exception "operator->", code 1: the handle is null
    Verifier* operator->();
    Verifier* operator->() const;
};

/// The body of a `VerifierMediaOut`.
class NORVCRYPTO_EXPORT VerifierMediaOutImpl : public MediaOutImpl {
public:
    /// \throws Exception those of `Hasher`
    explicit VerifierMediaOutImpl(Hasher::Type type);
    ~VerifierMediaOutImpl() override;

    void write(const Buffer& data) override;
    void write(const unsigned char* data, unsigned int length) override;
    /// Finalizes the verifier, whose `isValid` throws from then on.
    void end() override;

    [[nodiscard]] const RefVerifier& verifier() const noexcept;

private:
    RefVerifier m_verifier;
};

/// A sink that feeds a verifier. Ask `verifier()->isValid(signature)` when all is written, and do so before `end()`: an
/// ended stream's verifier throws.
class NORVCRYPTO_EXPORT VerifierMediaOut : public MediaOut {
public:
    /// \throws Exception those of `Hasher`
    explicit VerifierMediaOut(Hasher::Type type);
    VerifierMediaOut(const VerifierMediaOut& other);
    VerifierMediaOut& operator=(const VerifierMediaOut& other);
    ~VerifierMediaOut() override;

    /// The stream's verifier. Deliberate: a body that was replaced through the base class is not checked to be a
    /// `VerifierMediaOutImpl`.
    /// \throws Exception "const Norvane::Crypto::RefVerifier& Norvane::Crypto::VerifierMediaOut::verifier() const",
    /// code 1: the stream has no body
    [[nodiscard]] const RefVerifier& verifier() const;
};

} // namespace Norvane::Crypto

#endif
