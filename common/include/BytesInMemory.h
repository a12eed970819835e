#ifndef NORVCMSG_BYTES_IN_MEMORY_H
#define NORVCMSG_BYTES_IN_MEMORY_H

/// \file
/// Sources whose bytes can be read in place, without a copy: what a reader of a large structure asks a source for before
/// it reads from it piece by piece.
///
/// \code
/// const Norvane::MappedFileMediaIn message(Norvane::File::Path("message.p7m"));
/// if (const auto* bytes = dynamic_cast<const Norvane::BytesInMemory*>(message.operator->())) {
///     use(bytes->rest(), bytes->left());
/// }
/// \endcode
///
/// Threads: one stream is used by one thread at a time (see Media.h).

#include <norvcmsg/Export.h>
#include <norvcmsg/File.h>
#include <norvcmsg/Media.h>

namespace Norvane {

/// What the body of a source derives from, beside `MediaInImpl`, when its bytes lie in memory: in one piece, at one
/// place and unchanged as long as the body lives. `MemoryMediaIn` and `MappedFileMediaIn` are such sources; a program's
/// own sources may be.
class NORVCMSG_EXPORT BytesInMemory {
public:
    BytesInMemory() = default;
    BytesInMemory(const BytesInMemory&) = delete;
    BytesInMemory& operator=(const BytesInMemory&) = delete;
    virtual ~BytesInMemory();

    /// The bytes from the position of the source on; null or any pointer when none is left.
    [[nodiscard]] virtual const unsigned char* rest() const noexcept = 0;
    /// How many there are.
    [[nodiscard]] virtual unsigned long left() const noexcept = 0;
    /// Moves the position on, as reading would. \param count at most `left()`
    virtual void skip(unsigned long count) noexcept = 0;
};

/// A source over a file that is mapped into memory: read in place by those who can, and by all others like any source. It
/// knows its position. An empty file is a source without bytes.
///
/// FOR FILES THAT NOBODY ELSE CHANGES. The file must stay as it is while the source lives: where somebody shortens it, reading
/// beyond its new end ends the process (SIGBUS), and bytes that somebody writes into it show. Use `FileMediaIn` for the
/// files of strangers.
class NORVCMSG_EXPORT MappedFileMediaIn : public MediaIn {
public:
    /// Maps the whole file.
    /// \throws MediaException "MappedFileMediaIn", code 4, with the reason: the file cannot be opened or mapped, or is no
    ///         regular file
    explicit MappedFileMediaIn(const File::Path& path);
    ~MappedFileMediaIn() override;
};

} // namespace Norvane

#endif
