#include "Files.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <system_error>
#include <utility>

namespace Norvane::Crypto::NVX509::keystore {

namespace {

constexpr mode_t permissionBits = 07777;

[[noreturn]] void throwErrno(const std::string& what, int error) {
    const std::string reason = what + ": " + std::generic_category().message(error);
    if (error == EMFILE || error == ENFILE || error == ENOMEM) {
        throw Exhausted(reason);
    }
    throw Refusal(reason);
}

std::string octal(mode_t mode) {
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), "%04o", static_cast<unsigned int>(mode & permissionBits));
    return text.data();
}

struct stat statusOf(const FileDescriptor& file) {
    struct stat status {};
    if (fstat(file.get(), &status) != 0) {
        throwErrno("cannot be examined", errno);
    }
    return status;
}

void refuseWritableByAll(mode_t mode) {
    if ((mode & S_IWOTH) != 0) {
        throw Refusal("everybody may write it (mode " + octal(mode) + "); chmod o-w takes that away");
    }
}

void refuseUsableByOthers(mode_t mode) {
    if ((mode & (S_IRWXG | S_IRWXO)) != 0) {
        throw Refusal("others than its owner may use it (mode " + octal(mode) + "); chmod 600 makes it private");
    }
}

/// Why what was met in place of a folder is not used.
[[noreturn]] void refuseOther(mode_t mode) {
    throw Refusal(S_ISLNK(mode) ? "is a symbolic link, which is not followed" : "is no folder");
}

/// \param how what `name` is looked at with when it cannot be opened: a link that was followed is not what is no folder
FileDescriptor folderOrRefusal(int opened, int parent, const std::string& name, int how) {
    if (opened < 0) {
        const int error = errno;
        struct stat status {};
        if (error == ENOTDIR && fstatat(parent, name.c_str(), &status, how) == 0 && !S_ISDIR(status.st_mode)) {
            refuseOther(status.st_mode);
        }
        throwErrno("cannot be opened", error);
    }
    FileDescriptor folder(opened);
    refuseWritableByAll(statusOf(folder).st_mode);
    return folder;
}

} // namespace

FileDescriptor openStore(const std::string& path) {
    if (path.find('\0') != std::string::npos) {
        throw Refusal("the path holds a NUL byte");
    }
    const int opened = callUninterrupted([&] { return ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); });
    return folderOrRefusal(opened, AT_FDCWD, path, 0);
}

FileDescriptor openFolder(const FileDescriptor& parent, const std::string& name) {
    const int opened = callUninterrupted(
        [&] { return ::openat(parent.get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); });
    return folderOrRefusal(opened, parent.get(), name, AT_SYMLINK_NOFOLLOW);
}

FileState folderState(const FileDescriptor& parent, const std::string& name) {
    struct stat status {};
    if (fstatat(parent.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        throwErrno("cannot be opened", errno);
    }
    if (!S_ISDIR(status.st_mode)) {
        refuseOther(status.st_mode);
    }
    refuseWritableByAll(status.st_mode);
    return FileState(status);
}

/// Names that come and go while many are listed may both be missed: the new one where the listing was already, the old one where
/// it is yet to come. So the names are listed until nothing changed meanwhile; what changes all the time, as in an import of
/// many folders, is taken as it was listed last.
std::vector<std::string> foldersOf(const FileDescriptor& store) {
    constexpr int mostListings = 4;
    std::vector<std::string> names;
    for (int listing = 1;; ++listing) {
        const FileState before = stateOf(store);
        const std::time_t listedAt = std::time(nullptr);
        FolderNames listed = namesIn(store);
        if (listed.error != 0) {
            throwErrno("cannot be listed", listed.error);
        }
        const bool same = listing > 1 && listed.names == names;
        names = std::move(listed.names);
        // What changed a moment ago may change again without a trace.
        if (listing == mostListings || (stateOf(store) == before && (same || before.isSettled(listedAt)))) {
            return names;
        }
    }
}

FileState stateOf(const FileDescriptor& file) {
    return FileState(statusOf(file));
}

std::optional<FileState> stateAt(const FileDescriptor& folder, const std::string& name) {
    struct stat status {};
    if (fstatat(folder.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return std::nullopt;
    }
    return FileState(status);
}

bool mayExist(const FileDescriptor& folder, const std::string& name) {
    struct stat status {};
    return fstatat(folder.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 || errno != ENOENT;
}

std::optional<Buffer> readFile(const FileDescriptor& folder, const std::string& name, Content content,
                               std::optional<FileState>& state) {
    // Without O_NONBLOCK a FIFO would hold up the load until somebody writes to it.
    const int opened = callUninterrupted([&] {
        return ::openat(folder.get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    });
    if (opened < 0) {
        if (errno == ENOENT) {
            return std::nullopt;
        }
        if (errno == ELOOP) {
            throw Refusal("is a symbolic link, which is not followed");
        }
        throwErrno("cannot be opened", errno);
    }
    const FileDescriptor file(opened);
    const struct stat status = statusOf(file);
    state.emplace(status);
    if (!S_ISREG(status.st_mode)) {
        throw Refusal("is no regular file");
    }
    content == Content::secret ? refuseUsableByOthers(status.st_mode) : refuseWritableByAll(status.st_mode);
    constexpr off_t largest = off_t{1} << 20U;
    if (status.st_size > largest) {
        throw Refusal("is larger than 1 MiB");
    }
    FileContent all = readWhole(file, static_cast<unsigned int>(status.st_size), content == Content::secret);
    if (all.error != 0) {
        throwErrno("cannot be read", all.error);
    }
    if (all.changed) {
        throw Refusal("changed while it was read");
    }
    return std::move(all.bytes);
}

} // namespace Norvane::Crypto::NVX509::keystore
