#ifndef NORVCMSG_SWAP_BUFFER_MEDIA_OUT_H
#define NORVCMSG_SWAP_BUFFER_MEDIA_OUT_H

/// \file
/// A sink that keeps what it gets, in memory while it is small and in a temporary file beyond.
///
/// \code
/// Norvane::SwapBufferMediaOut body(0x10000, "/var/spool/tmp/swapXXXXXX");
/// source.write(body);
/// body.end();
/// body.in().write(destination);
/// \endcode
///
/// Threads: one at a time for the handle, its copies and all sources over its bytes together (see Media.h).

#include <norvcmsg/Export.h>
#include <norvcmsg/Media.h>

namespace Norvane {

/// A handle: copies share the bytes. The file is made when the bytes first pass the limit, readable and writable by its
/// owner alone (mode 0600), and has no name from then on, so that it goes with the last handle or with the process. The
/// bytes in memory are wiped when they go. A write that fails leaves what was written before it.
class NORVCMSG_EXPORT SwapBufferMediaOut : public MediaOut {
public:
    /// Touches no file yet. \param limit the number of bytes kept in memory
    /// \param fileTemplate the path of the temporary file, ending in "XXXXXX" as mkstemp takes it
    ///
    /// Writing throws MediaException "SwapBufferMediaOut::write", code 4, with the reason: the file cannot be made, or
    /// the disk is full.
    SwapBufferMediaOut(unsigned int limit, const char* fileTemplate);
    SwapBufferMediaOut(const SwapBufferMediaOut& other);
    SwapBufferMediaOut& operator=(const SwapBufferMediaOut& other);
    ~SwapBufferMediaOut() override;

    /// A source over the bytes, from the first one on. Each has a position of its own; all see what is written later.
    /// \throws MediaException "SwapBufferMediaOut", code 1: the handle is null or refers to another kind of stream;
    /// reading throws it with "SwapBufferMediaOut::read", code 4
    [[nodiscard]] MediaIn in() const;
    /// The number of bytes written. \throws MediaException as `in()` does
    [[nodiscard]] unsigned long length() const;
    /// True when the bytes are in a file. \throws MediaException as `in()` does
    [[nodiscard]] bool isSwapped() const;
    /// Drops what was written, in memory (wiped) or in the file, and starts afresh under the same limit and template: for
    /// every handle that shares the bytes. A source over them is at its end until as much is written again; set its
    /// position to 0, or ask for a new one. \throws MediaException as `in()` does
    void clear();
};

} // namespace Norvane

#endif
