#ifndef NORVCMSG_FILE_DESCRIPTOR_H
#define NORVCMSG_FILE_DESCRIPTOR_H

/// \file
/// Files and folders that are open, as POSIX numbers them: owned, listed, read as a whole, and told from what they were.
///
/// \code
/// const Norvane::FileDescriptor folder(open("/etc/mail", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
/// const auto listed = Norvane::namesIn(folder);
/// if (listed.error != 0) { ... }                    // an errno
/// for (const std::string& name : listed.names) { ... }
/// \endcode
///
/// Nothing here throws but `std::bad_alloc`. Threads: different objects may be used in different threads at once.

#include <norvcmsg/Buffer.h>
#include <norvcmsg/Export.h>

#include <cerrno>
#include <cstdint>
#include <ctime>
#include <string>
#include <utility>
#include <vector>

struct stat;

namespace Norvane {

/// Owns a descriptor, or none (-1).
class NORVCMSG_EXPORT FileDescriptor {
public:
    FileDescriptor() noexcept = default;
    /// Takes over a descriptor; a negative number is none.
    explicit FileDescriptor(int descriptor) noexcept : m_descriptor(descriptor) {}
    FileDescriptor(FileDescriptor&& other) noexcept : m_descriptor(std::exchange(other.m_descriptor, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        std::swap(m_descriptor, other.m_descriptor);
        return *this;
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    /// Closes the file.
    ~FileDescriptor();

    [[nodiscard]] int get() const noexcept { return m_descriptor; }
    [[nodiscard]] bool isOpen() const noexcept { return m_descriptor >= 0; }
    /// Hands the descriptor over to the caller.
    [[nodiscard]] int release() noexcept { return std::exchange(m_descriptor, -1); }
    /// Closes the file. 0, or the errno.
    [[nodiscard]] int close() noexcept;

private:
    int m_descriptor = -1;
};

/// Makes a call of the system's again as long as a signal interrupts it (EINTR), as opening does on network file systems.
/// \param call answers below 0 for a failure, with errno
template <class Call> int callUninterrupted(Call call) {
    int result = call();
    while (result < 0 && errno == EINTR) {
        result = call();
    }
    return result;
}

/// What tells that a file or a folder is another one, or was changed: a folder is when an entry of it comes, goes or is
/// renamed, a file when its content, owner, mode or number of names changes.
struct FileState {
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    std::uint32_t mode = 0; ///< type and permissions
    std::int64_t size = 0;
    std::int64_t modifiedSeconds = 0; ///< of the content, since 1970
    std::int64_t modifiedNanoseconds = 0;
    std::int64_t changedSeconds = 0; ///< of anything; no program can set it
    std::int64_t changedNanoseconds = 0;

    FileState() noexcept = default;
    NORVCMSG_EXPORT explicit FileState(const struct stat& status) noexcept;

    NORVCMSG_EXPORT bool operator==(const FileState& other) const noexcept;
    bool operator!=(const FileState& other) const noexcept { return !(*this == other); }
    NORVCMSG_EXPORT bool operator<(const FileState& other) const noexcept;

    /// Whether a later change will show: false for a file that was changed within two seconds of `readAt`, when it was read
    /// (some file systems count no finer), so that what was read must not be kept for it.
    [[nodiscard]] NORVCMSG_EXPORT bool isSettled(std::time_t readAt) const noexcept;
};

/// The names in a folder.
struct FolderNames {
    std::vector<std::string> names; ///< those that do not begin with a dot, in the order of their bytes
    int error = 0;                  ///< the errno that ended the listing early
};

/// Lists an open folder, from its start whatever was listed before.
NORVCMSG_EXPORT FolderNames namesIn(const FileDescriptor& folder);

/// What reading all of a file came to.
struct FileContent {
    Buffer bytes;         ///< all of it, when there was neither of the others
    int error = 0;        ///< the errno that ended reading
    bool changed = false; ///< it was longer or shorter than expected
};

/// Reads a regular file from where it stands to its end, which takes `size` bytes. What was read of a secret is wiped, with
/// the last copy of the buffer too.
/// \param size below 2 GiB, as the file's status told it
NORVCMSG_EXPORT FileContent readWhole(const FileDescriptor& file, unsigned int size, bool secret);

} // namespace Norvane

#endif
