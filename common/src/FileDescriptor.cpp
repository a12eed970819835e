#include <norvcmsg/FileDescriptor.h>

#include "FileCalls.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <tuple>

namespace Norvane {

namespace {

auto all(const FileState& state) {
    return std::tie(state.device, state.inode, state.mode, state.size, state.modifiedSeconds, state.modifiedNanoseconds,
                    state.changedSeconds, state.changedNanoseconds);
}

} // namespace

FileDescriptor::~FileDescriptor() {
    static_cast<void>(close());
}

int FileDescriptor::close() noexcept {
    const int descriptor = std::exchange(m_descriptor, -1);
    // On Linux the descriptor is gone even when close was interrupted.
    return descriptor < 0 || ::close(descriptor) == 0 || errno == EINTR ? 0 : errno;
}

FileState::FileState(const struct stat& status) noexcept
    : device(status.st_dev),
      inode(status.st_ino),
      mode(status.st_mode),
      size(status.st_size),
      modifiedSeconds(status.st_mtim.tv_sec),
      modifiedNanoseconds(status.st_mtim.tv_nsec),
      changedSeconds(status.st_ctim.tv_sec),
      changedNanoseconds(status.st_ctim.tv_nsec) {}

bool FileState::operator==(const FileState& other) const noexcept {
    return all(*this) == all(other);
}

bool FileState::operator<(const FileState& other) const noexcept {
    return all(*this) < all(other);
}

bool FileState::isSettled(std::time_t readAt) const noexcept {
    constexpr std::time_t grain = 2;
    return modifiedSeconds + grain < readAt && changedSeconds + grain < readAt;
}

FolderNames namesIn(const FileDescriptor& folder) {
    FolderNames listed;
    FileDescriptor own(
        callUninterrupted([&] { return ::openat(folder.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(own.isOpen() ? fdopendir(own.get()) : nullptr, closedir);
    if (!stream) {
        listed.error = errno;
        return listed;
    }
    static_cast<void>(own.release()); // the stream closes it
    errno = 0;
    // The stream is this function's own, and readdir_r is deprecated: names may be longer than it has room for.
    // cppcheck-suppress readdirCalled
    while (const dirent* entry = readdir(stream.get())) {
        if (entry->d_name[0] != '.') {
            listed.names.emplace_back(entry->d_name);
        }
        errno = 0;
    }
    listed.error = errno;
    std::sort(listed.names.begin(), listed.names.end());
    return listed;
}

FileContent readWhole(const FileDescriptor& file, unsigned int size, bool secret) {
    FileContent content;
    content.bytes = Buffer(static_cast<int>(size + 1), 0);
    if (secret) {
        content.bytes.protect();
    }
    unsigned int length = 0;
    do { // a byte more is asked for, so that a file that grew is seen without another call
        const auto moved = detail::readSome(file.get(), content.bytes.data() + length, size + 1 - length);
        if (moved.bytes == 0) {
            content.error = moved.error;
            break;
        }
        length += moved.bytes;
    } while (length < size);
    content.changed = content.error == 0 && length != size;
    content.bytes.length(std::min(length, size));
    return content;
}

} // namespace Norvane
