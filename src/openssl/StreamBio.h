#pragma once

/// \file
/// The BIO inside a stream adapter's body. OpenSSL 3 keeps the BIO record to itself, so a body owns an allocated one
/// that points back to this object.

#include "openssl/Pointers.h"

#include <norvcmsg/Buffer.h>
#include <norvcmsg/Media.h>

#include <exception>

namespace Norvane::Crypto::openssl {

/// Owns a source/sink BIO that reads from or writes to a stream body. When this object goes, a BIO that OpenSSL still
/// refers to answers 0 to everything; when a stray BIO_free takes the BIO first, this object knows and does not free it
/// again. Exceptions of the stream are kept for `rethrowingStreamErrors`.
class StreamBio {
public:
    /// A BIO of the method "MediaIn" that reads from `source`. \throws std::bad_alloc
    explicit StreamBio(MediaInImpl& source);
    /// A BIO of the method "MediaOut" that writes to `sink`; `pending` is what its control commands expose.
    /// \throws std::bad_alloc
    StreamBio(MediaOutImpl& sink, Buffer& pending);
    ~StreamBio();
    StreamBio(const StreamBio&) = delete;
    StreamBio& operator=(const StreamBio&) = delete;

    /// The BIO; null after a stray BIO_free.
    [[nodiscard]] BIO* get() const noexcept { return m_bio; }
    [[nodiscard]] bool reads() const noexcept { return m_source != nullptr; }
    /// What the stream threw, which is forgotten here; null when it threw nothing.
    [[nodiscard]] std::exception_ptr takeException() noexcept;

    /// Reads up to `length` bytes; the count is short only at the source's end. -1 once the source threw.
    int read(unsigned char* out, int length) noexcept;

    /// The object behind a BIO of the method "MediaIn" or "MediaOut"; null for any other BIO.
    static StreamBio* behind(BIO* bio) noexcept;

private:
    static BIO_METHOD* inputMethod();
    static BIO_METHOD* outputMethod();
    static int onWrite(BIO* bio, const char* data, int length);
    static int onPuts(BIO* bio, const char* text);
    static int onRead(BIO* bio, char* out, int length);
    static long onControl(BIO* bio, int command, long number, void* argument);
    static int onCreate(BIO* bio);
    static int onDestroy(BIO* bio);
    static BIO_METHOD* makeMethod(const char* name, bool input);

    void open(BIO_METHOD* method);
    /// Runs `work` on the stream; -1 when it throws now or threw before.
    template <class Work> int guarded(Work work) noexcept;

    MediaInImpl* m_source = nullptr;
    MediaOutImpl* m_sink = nullptr;
    Buffer* m_pending = nullptr;
    BIO* m_bio = nullptr;
    std::exception_ptr m_exception;
};

} // namespace Norvane::Crypto::openssl
