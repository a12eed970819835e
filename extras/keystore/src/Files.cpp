#include "Files.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace Norvane::Crypto::NVX509::keystore {

namespace {

constexpr unsigned int largestFile = 1U << 20U;
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

struct stat statusOf(const Descriptor& file) {
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

Descriptor folderOrRefusal(int opened, int parent, const std::string& name) {
    const int error = errno;
    struct stat status {};
    if (opened < 0 && (error == ENOTDIR || error == ELOOP) &&
        fstatat(parent, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 && !S_ISDIR(status.st_mode)) {
        throw Refusal(S_ISLNK(status.st_mode) ? "is a symbolic link, which is not followed" : "is no folder");
    }
    if (opened < 0) {
        throwErrno("cannot be opened", error);
    }
    Descriptor folder(opened);
    refuseWritableByAll(statusOf(folder).st_mode);
    return folder;
}

/// Reads until the end, or one byte more than expected.
Buffer readAll(const Descriptor& file, unsigned int expected, bool secret) {
    Buffer content(static_cast<int>(expected + 1), 0);
    if (secret) {
        content.protect();
    }
    unsigned int length = 0;
    while (length <= expected) {
        const auto count = ::read(file.get(), content.data() + length, expected + 1 - length);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            throwErrno("cannot be read", errno);
        }
        if (count == 0) {
            break;
        }
        length += static_cast<unsigned int>(count);
    }
    if (length != expected) {
        throw Refusal("changed while it was read");
    }
    content.length(length);
    return content;
}

} // namespace

Descriptor::~Descriptor() {
    if (m_number >= 0) {
        ::close(m_number);
    }
}

Descriptor openStore(const std::string& path) {
    if (path.find('\0') != std::string::npos) {
        throw Refusal("the path holds a NUL byte");
    }
    return folderOrRefusal(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC), AT_FDCWD, path);
}

Descriptor openFolder(const Descriptor& parent, const std::string& name) {
    return folderOrRefusal(::openat(parent.get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC),
                           parent.get(), name);
}

std::vector<std::string> namesIn(const Descriptor& folder) {
    const int own = ::openat(folder.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(own < 0 ? nullptr : fdopendir(own), closedir);
    if (!stream) {
        const Descriptor closing(own);
        throwErrno("cannot be listed", errno);
    }
    std::vector<std::string> names;
    errno = 0;
    while (const dirent* entry = readdir(stream.get())) {
        if (entry->d_name[0] != '.') {
            names.emplace_back(entry->d_name);
        }
        errno = 0;
    }
    if (errno != 0) {
        throwErrno("cannot be listed", errno);
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::optional<Buffer> readFile(const Descriptor& folder, const char* name, Content content) {
    // Without O_NONBLOCK a FIFO would hold up the load until somebody writes to it.
    const int opened = ::openat(folder.get(), name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (opened < 0) {
        if (errno == ENOENT) {
            return std::nullopt;
        }
        if (errno == ELOOP) {
            throw Refusal("is a symbolic link, which is not followed");
        }
        throwErrno("cannot be opened", errno);
    }
    const Descriptor file(opened);
    const struct stat status = statusOf(file);
    if (!S_ISREG(status.st_mode)) {
        throw Refusal("is no regular file");
    }
    content == Content::secret ? refuseUsableByOthers(status.st_mode) : refuseWritableByAll(status.st_mode);
    if (status.st_size > static_cast<off_t>(largestFile)) {
        throw Refusal("is larger than 1 MiB");
    }
    return readAll(file, static_cast<unsigned int>(status.st_size), content == Content::secret);
}

} // namespace Norvane::Crypto::NVX509::keystore
