#ifndef NORVCRYPTO_BIO_MEDIA_IMPL_H
#define NORVCRYPTO_BIO_MEDIA_IMPL_H

/// \file
/// Bridges between the appliance's streams and OpenSSL: OpenSSL functions read from any `MediaIn` through a
/// `BIOMediaIn`, and write into any `MediaOut` through a `BIOMediaOut`, without the whole message in memory.
///
/// \code
/// Norvane::MemoryMediaOut target;
/// Norvane::Crypto::BIOMediaOut adapter(target);
/// i2d_X509_bio(adapter, certificate); // converts to bio_st*, OpenSSL's BIO*
/// adapter.rethrowStreamException();   // what the target threw, if it threw
/// adapter.end();                      // ends the target too
/// \endcode
///
/// The BIO lives exactly as long as the adapter's body and belongs to it: never free it. (A stray BIO_free does no
/// harm, but leaves an adapter without a BIO.) Its type is 0x401, its method's name "MediaIn" or "MediaOut".
///
/// What the BIOs answer:
/// - Reading n bytes answers n and writing n bytes answers n, whatever number of bytes the stream moved. Deliberate:
///   partial counts are never reported, so that a reader does not see where the source ends; bytes that the source did
///   not deliver are zero. Ask `atEnd()`, or know the length.
/// - Reading from the output BIO and writing to the input BIO answer 0, and so does BIO_gets.
/// - Control commands answer 0 and do nothing, BIO_flush, BIO_pending and BIO_eof included. Two do something on the
///   output BIO, and answer 0 all the same: 115 (BIO_C_GET_BUF_MEM_PTR) stores the address of the pending bytes in
///   `*(unsigned char**)argument`, and 130 (BIO_C_SET_BUF_MEM_EOF_RETURN) writes the pending bytes to the stream.
/// - When the stream throws, the exception is kept, because it must not pass through OpenSSL's C code: that call and
///   all later ones answer -1 until `rethrowStreamException()` throws it, or until the library itself rethrows it after
///   an OpenSSL call of its own.
///
/// One adapter is used by one thread at a time.

#include <norvcmsg/Buffer.h>
#include <norvcmsg/Media.h>
#include <norvcrypto/Export.h>

#include <exception>
#include <memory>

struct bio_st;

namespace Norvane::Crypto {

namespace openssl {
class StreamBio;
}

/// The body of a `BIOMediaIn`: a source that reads from another source, and a BIO at the same time.
class NORVCRYPTO_EXPORT BIOMediaInImpl : public MediaInImpl {
public:
    /// Reads from nothing: at its end from the start. \throws std::bad_alloc
    BIOMediaInImpl();
    /// \param source held by address, neither copied nor counted: the caller keeps it alive while the adapter is used
    /// \throws std::bad_alloc
    explicit BIOMediaInImpl(MediaIn& source);
    ~BIOMediaInImpl() override;
    BIOMediaInImpl(const BIOMediaInImpl&) = delete;
    BIOMediaInImpl& operator=(const BIOMediaInImpl&) = delete;

    using MediaInImpl::read;
    /// The source's answer, as are the next two; without a source true, -1 and 0.
    [[nodiscard]] bool atEnd() const override;
    [[nodiscard]] int peek() const override;
    int read(unsigned char* out, unsigned int length) override;

    /// The BIO, which belongs to this body.
    [[nodiscard]] bio_st* bio() const noexcept;
    /// What the source threw under OpenSSL, which is forgotten here; null when it threw nothing.
    [[nodiscard]] std::exception_ptr takeStreamException() noexcept;

private:
    std::unique_ptr<openssl::StreamBio> m_bio;
    MediaIn* m_source = nullptr;
};

/// A handle on a source that OpenSSL can read from.
class NORVCRYPTO_EXPORT BIOMediaIn : public MediaIn {
public:
    /// An adapter over no source.
    BIOMediaIn();
    /// \param source held by address: the caller keeps the handle alive while the adapter is used
    explicit BIOMediaIn(MediaIn& source);
    BIOMediaIn(const BIOMediaIn& other);
    BIOMediaIn& operator=(const BIOMediaIn& other);
    ~BIOMediaIn() override;

    /// The BIO of the body; null for a handle on a null body. Deliberate: a body that was replaced through the base
    /// class is not checked to be a `BIOMediaInImpl` (the output side does check).
    /// \throws MediaException "MediaException", code 1: the handle is null
    operator bio_st*();

    /// What the source threw under OpenSSL, which is forgotten here; null when it threw nothing.
    [[nodiscard]] std::exception_ptr takeStreamException() noexcept;
    /// Throws what the source threw under OpenSSL; does nothing when it threw nothing. OpenSSL's error queue is left
    /// alone.
    void rethrowStreamException();
};

/// The body of a `BIOMediaOut`: a sink that passes everything on to its target, and a BIO at the same time.
class NORVCRYPTO_EXPORT BIOMediaOutImpl : public MediaOutDecoratorImpl {
public:
    /// Without a target, which `attach` gives. \throws std::bad_alloc
    BIOMediaOutImpl();
    /// \param target shared \throws std::bad_alloc
    explicit BIOMediaOutImpl(const MediaOut& target);
    ~BIOMediaOutImpl() override;
    BIOMediaOutImpl(const BIOMediaOutImpl&) = delete;
    BIOMediaOutImpl& operator=(const BIOMediaOutImpl&) = delete;

    using MediaOutDecoratorImpl::write;
    /// Writes to the target. \throws Exception "operator->", code 1: there is no target; and what the target throws
    void write(const unsigned char* data, unsigned int length) override;

    /// The BIO, which belongs to this body.
    [[nodiscard]] bio_st* bio() const noexcept;
    /// The bytes that the control commands 115 and 130 are about; empty at first, and nothing in the library fills
    /// them.
    [[nodiscard]] Buffer& pending() noexcept;
    /// What the target threw under OpenSSL, which is forgotten here; null when it threw nothing.
    [[nodiscard]] std::exception_ptr takeStreamException() noexcept;

private:
    std::unique_ptr<openssl::StreamBio> m_bio;
    Buffer m_pending;
};

/// A handle on a sink that OpenSSL can write to. `end()` ends the target too.
class NORVCRYPTO_EXPORT BIOMediaOut : public MediaOutDecorator {
public:
    /// An adapter that has no target yet; give it one with `attach`.
    BIOMediaOut();
    /// \param target shared
    explicit BIOMediaOut(const MediaOut& target);
    BIOMediaOut(const BIOMediaOut& other);
    BIOMediaOut& operator=(const BIOMediaOut& other);
    ~BIOMediaOut() override;

    /// The BIO of the body; null for a handle on a null body, and for one whose body was replaced, through the base
    /// class, by another kind of sink.
    /// \throws MediaException "MediaException", code 1: the handle is null
    operator bio_st*();

    /// What the target threw under OpenSSL, which is forgotten here; null when it threw nothing.
    [[nodiscard]] std::exception_ptr takeStreamException() noexcept;
    /// Throws what the target threw under OpenSSL; does nothing when it threw nothing. OpenSSL's error queue is left
    /// alone.
    void rethrowStreamException();
};

} // namespace Norvane::Crypto

#endif
