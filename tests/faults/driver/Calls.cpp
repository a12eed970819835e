// Stands in for the system calls of files and sockets.

#include "State.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>

namespace {

using faults::comes;
using faults::Kind;

template <class Function> Function real(const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

/// -1 with the error when it is this call's turn.
bool fails(Kind kind, const char* name, int error) noexcept {
    if (!comes(kind, name)) {
        return false;
    }
    errno = error;
    return true;
}

/// From the n-th write on.
bool diskIsFull(const char* name) noexcept {
    const faults::State& mine = faults::state;
    const bool sinceThen =
        mine.armed && mine.paused == 0 && mine.kind == Kind::diskIsFull && mine.came && mine.left <= 0;
    if (!sinceThen && !comes(Kind::diskIsFull, name)) {
        return false;
    }
    errno = ENOSPC;
    return true;
}

bool interrupted(const char* name) noexcept {
    faults::forkHere(name, false);
    return fails(Kind::callIsInterrupted, name, EINTR);
}

/// How much of `length` is moved.
std::size_t most(Kind kind, const char* name, std::size_t length) noexcept {
    return length > 1 && comes(kind, name) ? 1 : length;
}

bool readFails(const char* name) noexcept {
    return interrupted(name) || fails(Kind::readFails, name, EIO);
}
bool writeFails(const char* name, bool isSocket) noexcept {
    return interrupted(name) || fails(Kind::writeFails, name, isSocket ? ECONNRESET : EIO) ||
           (!isSocket && diskIsFull(name));
}

} // namespace

extern "C" {

ssize_t read(int file, void* data, std::size_t length) {
    static const auto next = real<ssize_t (*)(int, void*, std::size_t)>("read");
    return readFails("read") ? -1 : next(file, data, most(Kind::readIsShort, "read", length));
}
ssize_t pread(int file, void* data, std::size_t length, off_t offset) {
    static const auto next = real<ssize_t (*)(int, void*, std::size_t, off_t)>("pread");
    return readFails("pread") ? -1 : next(file, data, most(Kind::readIsShort, "pread", length), offset);
}
ssize_t recv(int file, void* data, std::size_t length, int flags) {
    static const auto next = real<ssize_t (*)(int, void*, std::size_t, int)>("recv");
    return readFails("recv") ? -1 : next(file, data, most(Kind::readIsShort, "recv", length), flags);
}
ssize_t write(int file, const void* data, std::size_t length) {
    static const auto next = real<ssize_t (*)(int, const void*, std::size_t)>("write");
    return writeFails("write", false) ? -1 : next(file, data, most(Kind::writeIsShort, "write", length));
}
ssize_t pwrite(int file, const void* data, std::size_t length, off_t offset) {
    static const auto next = real<ssize_t (*)(int, const void*, std::size_t, off_t)>("pwrite");
    return writeFails("pwrite", false) ? -1 : next(file, data, most(Kind::writeIsShort, "pwrite", length), offset);
}
ssize_t send(int file, const void* data, std::size_t length, int flags) {
    static const auto next = real<ssize_t (*)(int, const void*, std::size_t, int)>("send");
    return writeFails("send", true) ? -1 : next(file, data, most(Kind::writeIsShort, "send", length), flags);
}

int open(const char* path, int flags, ...) {
    static const auto next = real<int (*)(const char*, int, ...)>("open");
    std::va_list more;
    va_start(more, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(more, mode_t) : 0;
    va_end(more);
    return interrupted("open") || fails(Kind::callFails, "open", EMFILE) ? -1 : next(path, flags, mode);
}
int openat(int directory, const char* path, int flags, ...) {
    static const auto next = real<int (*)(int, const char*, int, ...)>("openat");
    std::va_list more;
    va_start(more, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(more, mode_t) : 0;
    va_end(more);
    return interrupted("openat") || fails(Kind::callFails, "openat", EMFILE) ? -1 : next(directory, path, flags, mode);
}
DIR* opendir(const char* path) {
    static const auto next = real<DIR* (*)(const char*)>("opendir");
    return fails(Kind::callFails, "opendir", EMFILE) ? nullptr : next(path);
}
DIR* fdopendir(int directory) {
    static const auto next = real<DIR* (*)(int)>("fdopendir");
    return fails(Kind::callFails, "fdopendir", ENOMEM) ? nullptr : next(directory);
}
dirent* readdir(DIR* directory) {
    static const auto next = real<dirent* (*)(DIR*)>("readdir");
    return fails(Kind::callFails, "readdir", EIO) ? nullptr : next(directory);
}
int fstat(int file, struct stat* status) noexcept {
    static const auto next = real<int (*)(int, struct stat*)>("fstat");
    return fails(Kind::callFails, "fstat", EIO) ? -1 : next(file, status);
}
int stat(const char* path, struct stat* status) noexcept {
    static const auto next = real<int (*)(const char*, struct stat*)>("stat");
    return fails(Kind::callFails, "stat", EIO) ? -1 : next(path, status);
}
int fstatat(int directory, const char* path, struct stat* status, int flags) noexcept {
    static const auto next = real<int (*)(int, const char*, struct stat*, int)>("fstatat");
    return fails(Kind::callFails, "fstatat", EIO) ? -1 : next(directory, path, status, flags);
}
off_t lseek(int file, off_t offset, int from) noexcept {
    static const auto next = real<off_t (*)(int, off_t, int)>("lseek");
    return fails(Kind::callFails, "lseek", EIO) ? -1 : next(file, offset, from);
}
int ftruncate(int file, off_t length) noexcept {
    static const auto next = real<int (*)(int, off_t)>("ftruncate");
    return fails(Kind::callFails, "ftruncate", EIO) ? -1 : next(file, length);
}
int fsync(int file) {
    static const auto next = real<int (*)(int)>("fsync");
    return fails(Kind::callFails, "fsync", EIO) ? -1 : next(file);
}
int rename(const char* from, const char* to) noexcept {
    static const auto next = real<int (*)(const char*, const char*)>("rename");
    return fails(Kind::callFails, "rename", EIO) ? -1 : next(from, to);
}
int unlink(const char* path) noexcept {
    static const auto next = real<int (*)(const char*)>("unlink");
    return fails(Kind::callFails, "unlink", EIO) ? -1 : next(path);
}
int close(int file) {
    static const auto next = real<int (*)(int)>("close");
    // What is closed is closed: Linux tells the failure of earlier writes.
    const int result = next(file);
    return fails(Kind::callFails, "close", EIO) ? -1 : result;
}
int poll(pollfd* files, nfds_t count, int timeout) {
    static const auto next = real<int (*)(pollfd*, nfds_t, int)>("poll");
    return interrupted("poll") || fails(Kind::callFails, "poll", ENOMEM) ? -1 : next(files, count, timeout);
}
int socket(int family, int type, int protocol) noexcept {
    static const auto next = real<int (*)(int, int, int)>("socket");
    return fails(Kind::callFails, "socket", EMFILE) ? -1 : next(family, type, protocol);
}
int accept4(int file, sockaddr* address, socklen_t* length, int flags) {
    static const auto next = real<int (*)(int, sockaddr*, socklen_t*, int)>("accept4");
    return interrupted("accept4") || fails(Kind::callFails, "accept4", EMFILE) ? -1
                                                                               : next(file, address, length, flags);
}
int accept(int file, sockaddr* address, socklen_t* length) {
    static const auto next = real<int (*)(int, sockaddr*, socklen_t*)>("accept");
    return interrupted("accept") || fails(Kind::callFails, "accept", EMFILE) ? -1 : next(file, address, length);
}
int connect(int file, const sockaddr* address, socklen_t length) {
    static const auto next = real<int (*)(int, const sockaddr*, socklen_t)>("connect");
    return fails(Kind::callFails, "connect", ECONNREFUSED) ? -1 : next(file, address, length);
}
int setsockopt(int file, int level, int name, const void* value, socklen_t length) noexcept {
    static const auto next = real<int (*)(int, int, int, const void*, socklen_t)>("setsockopt");
    return fails(Kind::callFails, "setsockopt", ENOMEM) ? -1 : next(file, level, name, value, length);
}

} // extern "C"
