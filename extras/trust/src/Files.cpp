// Files and directories, opened so that nothing blocks.

#include "Reading.h"

#include <norvcmsg/Buffer.h>
#include <norvcmsg/FileDescriptor.h>

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <system_error>
#include <utility>

namespace Norvane::Crypto::Trust::detail {

namespace {

constexpr std::int64_t largestFile = std::int64_t{64} << 20U;

[[noreturn]] void throwErrno(const std::string& what, int error) {
    if (error == EMFILE || error == ENFILE || error == ENOMEM) {
        throw Exhausted(what + ": " + std::generic_category().message(error));
    }
    throw Unreadable(what + ": " + std::generic_category().message(error));
}

/// Without O_NONBLOCK a FIFO would hold up the load until somebody writes to it.
FileDescriptor opened(int folder, const std::string& path) {
    const int number =
        callUninterrupted([&] { return ::openat(folder, path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC); });
    if (number < 0) {
        throwErrno("cannot be opened", errno);
    }
    return FileDescriptor(number);
}

struct stat statusOf(const FileDescriptor& file) {
    struct stat status {};
    if (fstat(file.get(), &status) != 0) {
        throwErrno("cannot be examined", errno);
    }
    return status;
}

Buffer readAll(const FileDescriptor& file, unsigned int size) {
    FileContent content = readWhole(file, size, false);
    if (content.error != 0) {
        throwErrno("cannot be read", content.error);
    }
    if (content.changed) {
        throw Unreadable("changed while it was read");
    }
    return std::move(content.bytes);
}

std::shared_ptr<const FileContents> readFile(const FileDescriptor& file, const struct stat& status, FileCache& cache) {
    const FileState state(status);
    if (auto known = cache.find(state)) {
        return known;
    }
    if (status.st_size > largestFile) {
        throw Unreadable("is larger than 64 MiB");
    }
    const std::time_t began = std::time(nullptr);
    auto contents =
        std::make_shared<const FileContents>(contentsOf(readAll(file, static_cast<unsigned int>(status.st_size))));
    cache.keep(state, began, contents);
    return contents;
}

void readFolder(const FileDescriptor& folder, const std::string& path, FileCache& cache, ReadPath& result) {
    std::map<std::pair<dev_t, ino_t>, std::shared_ptr<const FileContents>> seen;
    const FolderNames listed = namesIn(folder);
    if (listed.error != 0) {
        throwErrno("cannot be listed", listed.error);
    }
    for (const std::string& name : listed.names) {
        std::string whole = path;
        whole.append("/").append(name);
        try {
            const FileDescriptor file = opened(folder.get(), name);
            const struct stat status = statusOf(file);
            if (S_ISDIR(status.st_mode)) {
                continue;
            }
            if (!S_ISREG(status.st_mode)) {
                throw Unreadable("is no regular file");
            }
            auto& contents = seen[{status.st_dev, status.st_ino}];
            if (!contents) {
                contents = readFile(file, status, cache);
            }
            result.files.push_back({whole, contents});
        } catch (const Exhausted&) {
            throw;
        } catch (const Unreadable& reason) {
            result.problems.push_back({whole, reason.what()});
        }
    }
}

} // namespace

std::shared_ptr<const FileContents> FileCache::find(const FileState& state) {
    if (const auto used = m_used.find(state); used != m_used.end()) {
        return used->second;
    }
    const auto before = m_before.find(state);
    if (before == m_before.end()) {
        return nullptr;
    }
    return m_used.emplace(state, before->second).first->second;
}

void FileCache::keep(const FileState& state, std::time_t readAt, std::shared_ptr<const FileContents> contents) {
    if (state.isSettled(readAt)) {
        m_used[state] = std::move(contents);
    }
}

void FileCache::forgetUnused() {
    m_before = std::move(m_used);
    m_used.clear();
}

ReadPath readPath(const std::string& path, Expected expected, FileCache& cache) {
    if (path.find('\0') != std::string::npos) {
        throw Unreadable("holds a NUL byte");
    }
    ReadPath result;
    const FileDescriptor file = opened(AT_FDCWD, path);
    const struct stat status = statusOf(file);
    if (S_ISDIR(status.st_mode)) {
        readFolder(file, path, cache, result);
    } else if (expected == Expected::directory) {
        throw Unreadable("is no directory");
    } else if (S_ISREG(status.st_mode)) {
        result.files.push_back({path, readFile(file, status, cache)});
    } else {
        throw Unreadable("is neither a regular file nor a directory");
    }
    return result;
}

} // namespace Norvane::Crypto::Trust::detail
