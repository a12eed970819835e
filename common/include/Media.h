#ifndef NORVCMSG_MEDIA_H
#define NORVCMSG_MEDIA_H

/// \file
/// Streams. `MediaIn` is a source and `MediaOut` a sink of bytes; both are handles (see NorvRefcounted) on bodies,
/// `MediaInImpl` and `MediaOutImpl`, which derive virtually from `RefImpl`. A new kind of stream is a body; of a source
/// it has to supply `atEnd`, `peek` and `read(uchar_t*, uint_t)`, of a sink `write(const uchar_t*, uint_t)`.
///
/// \code
/// Norvane::MemoryMediaIn body(text);
/// Norvane::MemoryMediaOut copy;
/// body.write(copy);
/// copy.end();
/// \endcode
///
/// Failures are thrown (`Exception`, `MediaException`, or what a body of the caller's throws); a null handle throws as
/// in NorvRefcounted. Lengths are bytes in 32 bits, positions bytes in 64. One stream is used by one thread at a time.

#include <norvcmsg/Buffer.h>
#include <norvcmsg/Export.h>
#include <norvcmsg/Types.h>
#include <norvcrypto/NorvRefcounted>

#include <string>

namespace Norvane {

class MediaOut;

/// The body of a source.
class NORVCMSG_EXPORT MediaInImpl : public virtual RefImpl {
public:
    MediaInImpl();
    ~MediaInImpl() override;

    /// True when no byte is left.
    [[nodiscard]] virtual bool atEnd() const = 0;
    /// The next byte (0 to 255) without taking it, or -1 at the end.
    [[nodiscard]] virtual int peek() const = 0;
    /// Replaces `line` by the bytes up to and with the next LF, or up to the end. False when no byte was left.
    virtual bool readline(Buffer& line);
    /// Replaces `out` by up to `length` bytes, by all that is left when `length` is 0. The number of bytes read. Memory
    /// is taken as bytes arrive, not as `length` announces; capacity that `out` brings along is used. When the stream
    /// throws, `out` holds what arrived before.
    ///
    /// \throws MediaException "MediaInImpl::read", code 4: all that is left is more than an `int` counts
    virtual int read(Buffer& out, unsigned int length);
    /// Replaces `out` by as many bytes as fit its capacity (by all that is left when it has none).
    virtual int read(Buffer& out);
    /// Replaces `out` by all that is left. \throws MediaException as above
    virtual int read(std::string& out);
    /// Reads into `out`; the number of bytes read, which is short of `length` only at the end.
    virtual int read(unsigned char* out, unsigned int length) = 0;
    /// The position in bytes from the start. \throws MediaException "MediaInImpl::tell", code 4: this kind keeps none
    [[nodiscard]] virtual unsigned long tell() const;
    /// Goes to a position. \throws MediaException "MediaInImpl::setpos", code 4: this kind cannot
    virtual void setpos(unsigned long position);
    /// Copies all that is left into `out` in pieces of a fixed size, without ending it. Returns `out`.
    virtual MediaOut& write(MediaOut& out);
};

/// The body of a sink.
class NORVCMSG_EXPORT MediaOutImpl : public virtual RefImpl {
public:
    MediaOutImpl();
    ~MediaOutImpl() override;

    virtual void write(const Buffer& data);
    virtual void write(const unsigned char* data, unsigned int length) = 0;
    /// Tells that no byte follows: what is held back goes out.
    virtual void end();
    /// Tells the character set of the text that follows; most streams do not care.
    virtual void characterSet(const std::string& name);
    /// The number of bytes written. \throws MediaException "MediaOutImpl::tell", code 4: this kind does not count
    [[nodiscard]] virtual unsigned long tell() const;
    /// Goes to a position. \throws MediaException "MediaOutImpl::setpos", code 4: this kind cannot
    virtual void setpos(unsigned long position);
};

extern template class RefCounted<MediaInImpl>;
extern template class Ref<MediaInImpl>;
extern template class RefCounted<MediaOutImpl>;
extern template class Ref<MediaOutImpl>;

/// A handle on a source; each operation is that of the body.
class NORVCMSG_EXPORT MediaIn : public Ref<MediaInImpl> {
public:
    MediaIn();
    explicit MediaIn(RefCounted<MediaInImpl>* reference);
    MediaIn(const MediaIn& other);
    MediaIn& operator=(const MediaIn& other);
    ~MediaIn() override;

    [[nodiscard]] bool atEnd() const;
    [[nodiscard]] int peek() const;
    bool readline(Buffer& line);
    int read(Buffer& out, unsigned int length);
    int read(Buffer& out);
    int read(std::string& out);
    int read(unsigned char* out, unsigned int length);
    [[nodiscard]] unsigned long tell() const;
    void setpos(unsigned long position);
    virtual MediaOut& write(MediaOut& out);
};

/// A handle on a sink; each operation is that of the body.
class NORVCMSG_EXPORT MediaOut : public Ref<MediaOutImpl> {
public:
    MediaOut();
    explicit MediaOut(RefCounted<MediaOutImpl>* reference);
    MediaOut(const MediaOut& other);
    MediaOut& operator=(const MediaOut& other);
    ~MediaOut() override;

    void write(const Buffer& data);
    void write(const unsigned char* data, unsigned int length);
    void end();
    void characterSet(const std::string& name);
    [[nodiscard]] unsigned long tell() const;
    void setpos(unsigned long position);
};

/// The body of a sink that passes everything on to another one. Without a target, writing and ending throw as a null
/// handle does.
class NORVCMSG_EXPORT MediaOutDecoratorImpl : public virtual MediaOutImpl {
public:
    MediaOutDecoratorImpl();
    explicit MediaOutDecoratorImpl(const MediaOut& target);
    ~MediaOutDecoratorImpl() override;

    using MediaOutImpl::write;
    void write(const unsigned char* data, unsigned int length) override;
    /// Ends the target.
    void end() override;
    void characterSet(const std::string& name) override;
    virtual void attach(const MediaOut& target);
    virtual void detach();

protected:
    [[nodiscard]] MediaOut& target() noexcept { return m_target; }

private:
    MediaOut m_target;
};

/// A handle on a decorating sink. `MediaOut` is a virtual base: a class derived from this one has to hand its reference
/// to the constructor of `MediaOut` itself (`BIOMediaOut() : MediaOut(reference) {}`), the one given here has no effect
/// then.
class NORVCMSG_EXPORT MediaOutDecorator : public virtual MediaOut {
public:
    MediaOutDecorator();
    explicit MediaOutDecorator(RefCounted<MediaOutImpl>* reference);
    MediaOutDecorator(const MediaOutDecorator& other);
    MediaOutDecorator& operator=(const MediaOutDecorator& other);
    ~MediaOutDecorator() override;

    /// Sends what is written from now on to `target`, which is shared.
    /// \throws MediaException "MediaException", code 1: the handle is null or the body is no decorator
    /// \throws MediaException "MediaOutDecorator::attach", code 4: `target` is this very decorator
    void attach(const MediaOut& target);
    /// Lets go of the target. \throws MediaException "MediaException", code 1: the handle is null or the body is no
    /// decorator
    void detach();
};

/// A source over a copy of bytes in memory. It knows its position.
class NORVCMSG_EXPORT MemoryMediaIn : public MediaIn {
public:
    explicit MemoryMediaIn(const Buffer& content);
    explicit MemoryMediaIn(const std::string& content);
    ~MemoryMediaIn() override;
};

/// A sink that keeps what it gets in memory. It knows its position; bytes written at an earlier one replace what is
/// there. Ending it changes nothing but `ended()`.
class NORVCMSG_EXPORT MemoryMediaOut : public MediaOut {
public:
    MemoryMediaOut();
    ~MemoryMediaOut() override;
    /// What was written so far; valid until the next write.
    /// \throws MediaException "MemoryMediaOut", code 1: the handle was made to refer to another kind of stream
    [[nodiscard]] const Buffer& content() const;
    /// True once `end()` was called. \throws MediaException as `content()` does
    [[nodiscard]] bool ended() const;
};

/// A sink that counts and drops what it gets; `tell()` answers the count.
class NORVCMSG_EXPORT NullMediaOut : public MediaOut {
public:
    NullMediaOut();
    ~NullMediaOut() override;
};

} // namespace Norvane

#endif
