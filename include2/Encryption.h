#ifndef NORVCRYPTO_ENCRYPTION_H
#define NORVCRYPTO_ENCRYPTION_H

/// \file
/// Symmetric encryption: the ciphers, random initialisation vectors, and sinks that encrypt or decrypt what is written
/// to them and pass it on.
///
/// \code
/// Norvane::Crypto::initialize(); // once, before anything else: it also loads the old ciphers
/// const Norvane::Buffer key = ...; // 32 bytes, random and kept secret; marked with protect()
/// const Norvane::Buffer iv = IntializationVectorGenerator::generateIV(16); // anew for each body
///
/// Norvane::MemoryMediaOut secret;
/// EncrypterMediaOut encrypter(AES_256_CBC, key, iv);
/// encrypter.attach(secret);
/// body.write(encrypter); // as many writes as there are pieces
/// encrypter.end();       // the padding; also ends `secret`
///
/// Norvane::MemoryMediaOut clear;
/// DecrypterMediaOut decrypter(AES_256_CBC, key, iv);
/// decrypter.attach(clear);
/// decrypter.write(secret.content());
/// decrypter.end(); // throws when the padding is wrong: discard `clear` then
/// \endcode
///
/// - Cipher block chaining (NIST SP 800-38A) with the padding of RFC 5652, 6.3: a body of n bytes becomes n bytes and 1
///   to a block more. A body of any size passes in constant memory, written in pieces.
/// - This hides a body, it does not protect it from change: a changed one decrypts to garbage that the padding gives
///   away by chance only, and telling a sender which padding was wrong lets him decrypt. Sign, or compare a MAC, where
///   that matters.
/// - DES, IDEA, triple DES, Blowfish and CAST5 are for what others made long ago: DES keys can be searched, and the
///   blocks of 8 bytes of all five give plain text away after some gigabytes under one key.
/// - Keys are the caller's to keep: mark buffers that hold them with `Buffer::protect()`. Nothing here copies a key but
///   OpenSSL's context, which is wiped when the stream has ended or goes.
/// - One stream is used by one thread at a time; everything else here by any number of threads.

#include <norvcmsg/Buffer.h>
#include <norvcmsg/Media.h>
#include <norvcrypto/Export.h>

#include <memory>

struct evp_cipher_st;

namespace Norvane::Crypto {

/// A cipher in CBC mode, as OpenSSL's number (NID) for it. These eight are valid.
enum Cipher : int {
    DES_CBC = 31,      ///< key 8 bytes, IV 8
    IDEA_CBC = 34,     ///< key 16, IV 8
    DES_EDE3_CBC = 44, ///< key 24, IV 8: triple DES
    BF_CBC = 91,       ///< key 16 (Blowfish is used with no other length), IV 8
    CAST5_CBC = 108,   ///< key 16 (CAST5 is used with no other length), IV 8
    AES_128_CBC = 419, ///< key 16, IV 16
    AES_192_CBC = 423, ///< key 24, IV 16
    AES_256_CBC = 427  ///< key 32, IV 16
};

/// OpenSSL's description of a cipher (`const EVP_CIPHER*`); never null, and never to be freed. `initialize()` must have
/// run before it is used: DES, Blowfish and CAST5 come from a provider that is loaded there, and IDEA from libgcrypt. Streams
/// keep AES and triple DES as OpenSSL's default provider has them from their first use on: default properties other than
/// "fips" that a program sets later do not count for them.
///
/// \throws Exception "const EVP_CIPHER* Norvane::Crypto::initializeCipher(Norvane::Crypto::Cipher)", code 4, file
/// Encryption, line 81, "Unsupported CIPHER value " and the value in decimal: it is none of the eight
NORVCRYPTO_EXPORT const evp_cipher_st* initializeCipher(Cipher cipher);

/// Makes initialisation vectors (deliberately so spelled). Holds nothing.
class NORVCRYPTO_EXPORT IntializationVectorGenerator {
public:
    IntializationVectorGenerator();

    /// Deliberately odd: always null, since an instance is made only where there is one already. Calls through it are
    /// fine, because `generateIV` is static.
    [[nodiscard]] static IntializationVectorGenerator* instance() noexcept;

    /// `length` random bytes from OpenSSL's generator; 0 gives an empty buffer. The length for a cipher is its block's:
    /// 16 for AES, 8 for the others.
    ///
    /// \throws Exception "Crypto::IntializationVectorGenerator::generateIV", code 4, file Encryption, line 26, the
    /// OpenSSL errors: the generator failed, or `length` is above 2^31 - 1
    static Buffer generateIV(unsigned int length);
};

template <class Direction> class CipherStream;
struct Encrypting;
struct Decrypting;

/// The body of an `EncrypterMediaOut`.
class NORVCRYPTO_EXPORT EncrypterMediaOutImpl : public MediaOutDecoratorImpl {
public:
    /// See `EncrypterMediaOut`.
    EncrypterMediaOutImpl(Cipher cipher, const Buffer& key, const Buffer& iv);
    /// Does not end the stream: without `end()` the last block is lost and the target is not ended.
    ~EncrypterMediaOutImpl() override;
    EncrypterMediaOutImpl(const EncrypterMediaOutImpl&) = delete;
    EncrypterMediaOutImpl& operator=(const EncrypterMediaOutImpl&) = delete;

    using MediaOutDecoratorImpl::write;
    /// Encrypts the bytes and passes on the blocks that are full; nothing when `data` is null or `length` 0. One write
    /// gives one write to the target (of no bytes, while no block is full); only one of more than 2^30 bytes gives one
    /// for each 2^30 bytes. It takes as much memory as it has bytes.
    ///
    /// \throws Exception "Crypto::EncrypterMediaOut::write", code 4, file Encryption, line 150, the OpenSSL errors:
    /// OpenSSL failed; nothing was passed on
    /// \throws Exception the same, detail "written to after its end": `end()` was called before
    /// \throws Exception "operator->", code 1: there is no target; nothing was taken
    /// \throws what the target throws, unchanged; how much it took of these bytes is for the target to say
    void write(const unsigned char* data, unsigned int length) override;

    /// Passes on the last block, which is padded, and ends the target. After that it does nothing: it may be called any
    /// number of times. When the target throws, a further call goes on where this one failed: it does not encrypt
    /// again, and does not write again what the target took.
    ///
    /// \throws Exception "Crypto::EncrypterMediaOut::write" (deliberately: not "end"), code 4, file Encryption, line
    /// 168, the OpenSSL errors: OpenSSL failed; nothing was passed on
    /// \throws Exception "operator->", code 1: there is no target; attach one and end again
    /// \throws what the target throws, unchanged
    void end() override;

private:
    std::unique_ptr<CipherStream<Encrypting>> m_stream;
};

/// The body of a `DecrypterMediaOut`.
class NORVCRYPTO_EXPORT DecrypterMediaOutImpl : public MediaOutDecoratorImpl {
public:
    /// See `DecrypterMediaOut`.
    DecrypterMediaOutImpl(Cipher cipher, const Buffer& key, const Buffer& iv);
    /// Does not end the stream: without `end()` the last block is lost and the target is not ended.
    ~DecrypterMediaOutImpl() override;
    DecrypterMediaOutImpl(const DecrypterMediaOutImpl&) = delete;
    DecrypterMediaOutImpl& operator=(const DecrypterMediaOutImpl&) = delete;

    using MediaOutDecoratorImpl::write;
    /// Decrypts the bytes and passes on the blocks that are full, except the last one, which may be padding. Pieces are
    /// as those of the encrypting side.
    ///
    /// \throws Exception "Crypto::Decrypter::write", code 4, file Encryption, line 246, the OpenSSL errors: OpenSSL
    /// failed; nothing was passed on
    /// \throws Exception the same, detail "written to after its end": `end()` was called before
    /// \throws Exception "operator->", code 1: there is no target; nothing was taken
    /// \throws what the target throws, unchanged; how much it took of these bytes is for the target to say
    void write(const unsigned char* data, unsigned int length) override;

    /// Checks the padding, passes on what is left and ends the target; as on the encrypting side otherwise.
    ///
    /// \throws Exception "Crypto::Decrypter::update" (deliberately: not "end"), code 4, file Encryption, line 264, the
    /// OpenSSL errors: the padding is wrong ("bad decrypt"), or the bytes were no whole number of blocks, or none at
    /// all ("wrong final block length"). The key or the IV is wrong, or the bytes were damaged or cut. Discard what was
    /// passed on so far. A wrong key goes unnoticed about once in 256 times.
    /// \throws Exception "operator->", code 1: there is no target; attach one and end again
    /// \throws what the target throws, unchanged
    void end() override;

private:
    std::unique_ptr<CipherStream<Decrypting>> m_stream;
};

/// A sink that encrypts what is written to it; see `EncrypterMediaOutImpl` for writing and ending. Attach a target
/// before writing.
class NORVCRYPTO_EXPORT EncrypterMediaOut : public MediaOutDecorator {
public:
    /// \param key as long as the cipher asks for (see `Cipher`); further bytes are not used
    /// \param iv  as long as the cipher's block; further bytes are not used. Never the same twice under one key
    /// \throws Exception that of `initializeCipher`
    /// \throws Exception "Crypto::s_initializeEncryptionContext", code 4, file Encryption, without a fixed line:
    ///         - "The key has 15 bytes, AES-128-CBC takes 16": it is too short; likewise "The IV has ..."
    /// \throws Exception "s_initializeEncryptionContext", code 4, file Encryption, line 114, without a detail: OpenSSL
    ///         refused; `getErrString()` tells why
    EncrypterMediaOut(Cipher cipher, const Buffer& key, const Buffer& iv);
    EncrypterMediaOut(const EncrypterMediaOut& other);
    EncrypterMediaOut& operator=(const EncrypterMediaOut& other);
    ~EncrypterMediaOut() override;

    /// As `MediaOutDecorator::attach`, and sooner done for a handle that refers to the stream it was made with.
    void attach(const MediaOut& target);
};

/// A sink that decrypts what is written to it; see `DecrypterMediaOutImpl` for writing and ending. Attach a target
/// before writing.
class NORVCRYPTO_EXPORT DecrypterMediaOut : public MediaOutDecorator {
public:
    /// \param key the key that the bytes were encrypted with; further bytes are not used
    /// \param iv  the IV that they were encrypted with; further bytes are not used
    /// \throws Exception that of `initializeCipher`
    /// \throws Exception "Crypto::s_initializeDecryptionContext", code 4, file Encryption, without a fixed line: the key
    ///         or the IV is too short, as on the encrypting side
    /// \throws Exception "s_initializeEncryptionContext" (deliberately: the name of the other side), code 4, file
    ///         Encryption, line 210, without a detail: OpenSSL refused; `getErrString()` tells why
    DecrypterMediaOut(Cipher cipher, const Buffer& key, const Buffer& iv);
    DecrypterMediaOut(const DecrypterMediaOut& other);
    DecrypterMediaOut& operator=(const DecrypterMediaOut& other);
    ~DecrypterMediaOut() override;

    /// As `MediaOutDecorator::attach`, and sooner done for a handle that refers to the stream it was made with.
    void attach(const MediaOut& target);
};

} // namespace Norvane::Crypto

#endif
