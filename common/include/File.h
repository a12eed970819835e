#ifndef NORVCMSG_FILE_H
#define NORVCMSG_FILE_H

/// \file
/// Files by path, and streams over them.
///
/// \code
/// Norvane::File::Path path("/etc/mail/ca.pem");
/// if (path.exists()) {
///     Norvane::Buffer content(static_cast<int>(path.status(false).size()), 0);
///     Norvane::FileMediaIn(path).read(content, 0);
/// }
/// \endcode
///
/// Failures of the system are thrown as `MediaException` with code 4, the path and the reason as text and the error
/// number as second parameter. Sizes and positions are bytes in 64 bits.
///
/// Threads: paths and statuses are values, which several threads may read at once; one stream is used by one thread at
/// a time (see Media.h).

#include <norvcmsg/Export.h>
#include <norvcmsg/Media.h>
#include <norvcmsg/Time.h>

#include <cstdint>
#include <string>

namespace Norvane {

/// What belongs to files.
class NORVCMSG_EXPORT File {
public:
    /// What the system tells about a file at one moment.
    class NORVCMSG_EXPORT Status {
    public:
        Status(std::uint64_t size, unsigned int mode, const Time& modified);
        /// In bytes.
        [[nodiscard]] std::uint64_t size() const noexcept { return m_size; }
        [[nodiscard]] bool isRegular() const noexcept;
        [[nodiscard]] bool isDirectory() const noexcept;
        [[nodiscard]] bool isLink() const noexcept;
        /// The permission bits, as chmod takes them.
        [[nodiscard]] unsigned int permissions() const noexcept;
        [[nodiscard]] const Time& modified() const noexcept { return m_modified; }

    private:
        std::uint64_t m_size;
        unsigned int m_mode;
        Time m_modified;
    };

    /// The name of a file that may or may not exist.
    class NORVCMSG_EXPORT Path {
    public:
        /// The empty path, which names nothing.
        Path();
        Path(const std::string& text);
        [[nodiscard]] bool empty() const noexcept { return m_text.empty(); }
        [[nodiscard]] const std::string& asString() const noexcept { return m_text; }
        /// True when the path names something (the target of a link) that this process can see.
        [[nodiscard]] bool exists() const noexcept;
        /// The status of what the path names. \param ofLink true asks about a symbolic link itself, false about its
        /// target \throws MediaException "File::Path::status", code 4
        [[nodiscard]] Status status(bool ofLink) const;

        bool operator==(const Path& other) const noexcept { return m_text == other.m_text; }

    private:
        std::string m_text;
    };

    File() = delete;
};

/// A source over a file, which it holds open. It knows its position if the file does (a pipe does not).
class NORVCMSG_EXPORT FileMediaIn : public MediaIn {
public:
    /// Opens the file. \throws MediaException "FileMediaIn", code 4: it cannot be opened, or is a directory. Reading
    /// throws the same with "FileMediaIn::read"; when bytes came before the error, the read that got them is short and
    /// the next one throws.
    explicit FileMediaIn(const File::Path& path);
    FileMediaIn(const FileMediaIn& other);
    FileMediaIn& operator=(const FileMediaIn& other);
    ~FileMediaIn() override;
};

/// A sink into a file, which it holds open. Bytes are collected; `end()` writes what is left and closes the file, and
/// only its success says that all bytes arrived. A second `end()` does nothing; a write after it throws. Once a write
/// failed, every later one and `end()` fail with the same reason. A stream that goes without `end()` writes what it can
/// and keeps silent about failures; in the child of a fork it writes nothing unless the child wrote to it.
class NORVCMSG_EXPORT FileMediaOut : public MediaOut {
public:
    /// Creates the file, or empties the one that is there. \param permissions of a new file, before the umask
    /// \throws MediaException "FileMediaOut", code 4: it cannot be opened. Writing throws the same with
    /// "FileMediaOut::write", ending with "FileMediaOut::end", positions with "FileMediaOut::setpos".
    explicit FileMediaOut(const File::Path& path, unsigned int permissions = 0666);
    FileMediaOut(const FileMediaOut& other);
    FileMediaOut& operator=(const FileMediaOut& other);
    ~FileMediaOut() override;
};

} // namespace Norvane

#endif
