#include "FileCalls.h"

#include "MediaFailure.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace Norvane::detail {

namespace {

/// Linux moves no more at once.
constexpr unsigned int mostAtOnce = 0x40000000;

/// Repeats `call(done, left)` until everything is moved, nothing moves or an error that is no interruption stops it.
template <class Call> Moved moveAll(unsigned int length, Call call) noexcept {
    Moved moved;
    while (moved.bytes < length) {
        const auto count = call(moved.bytes, std::min(length - moved.bytes, mostAtOnce));
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            moved.error = errno;
        }
        if (count <= 0) {
            break;
        }
        moved.bytes += static_cast<unsigned int>(count);
    }
    return moved;
}

} // namespace

Moved readAll(int descriptor, unsigned char* out, unsigned int length, std::int64_t offset) noexcept {
    return moveAll(length, [=](unsigned int done, unsigned int left) {
        return offset < 0 ? ::read(descriptor, out + done, left) : ::pread(descriptor, out + done, left, offset + done);
    });
}

Moved readSome(int descriptor, unsigned char* out, unsigned int length) noexcept {
    ssize_t count = 0;
    do {
        count = ::read(descriptor, out, length);
    } while (count < 0 && errno == EINTR);
    return count < 0 ? Moved{0, errno} : Moved{static_cast<unsigned int>(count), 0};
}

Moved writeAll(int descriptor, const unsigned char* data, unsigned int length, std::int64_t offset) noexcept {
    auto moved = moveAll(length, [=](unsigned int done, unsigned int left) {
        return offset < 0 ? ::write(descriptor, data + done, left)
                          : ::pwrite(descriptor, data + done, left, offset + done);
    });
    if (moved.bytes < length && moved.error == 0) {
        moved.error = EIO; // a write that takes nothing and tells no reason must not lose bytes unnoticed
    }
    return moved;
}

FileDescriptor openFile(const char* where, const std::string& path, int flags, unsigned int permissions) {
    if (path.find('\0') != std::string::npos) {
        throwMediaErrno(where, "FileMedia", path, ENOENT);
    }
    const int descriptor =
        callUninterrupted([&] { return ::open(path.c_str(), flags | O_CLOEXEC | O_NOCTTY, permissions); });
    if (descriptor < 0) {
        throwMediaErrno(where, "FileMedia", path, errno);
    }
    return FileDescriptor(descriptor);
}

} // namespace Norvane::detail
