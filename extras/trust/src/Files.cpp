// Files and directories, opened so that nothing blocks.

#include "Reading.h"

#include <norvcmsg/Buffer.h>

#include <algorithm>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <system_error>
#include <tuple>
#include <unistd.h>
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

class Descriptor {
public:
    explicit Descriptor(int number) noexcept : m_number(number) {}
    Descriptor(Descriptor&& other) noexcept : m_number(std::exchange(other.m_number, -1)) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    Descriptor& operator=(Descriptor&&) = delete;
    ~Descriptor() {
        if (m_number >= 0) {
            ::close(m_number);
        }
    }
    [[nodiscard]] int get() const noexcept { return m_number; }

private:
    int m_number;
};

/// Without O_NONBLOCK a FIFO would hold up the load until somebody writes to it.
Descriptor opened(int folder, const std::string& path) {
    const int number = ::openat(folder, path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (number < 0) {
        throwErrno("cannot be opened", errno);
    }
    return Descriptor(number);
}

struct stat statusOf(const Descriptor& file) {
    struct stat status {};
    if (fstat(file.get(), &status) != 0) {
        throwErrno("cannot be examined", errno);
    }
    return status;
}

FileCache::State stateOf(const struct stat& status) {
    return {status.st_dev,          status.st_ino,         status.st_size,        status.st_mtim.tv_sec,
            status.st_mtim.tv_nsec, status.st_ctim.tv_sec, status.st_ctim.tv_nsec};
}

Buffer readAll(const Descriptor& file, unsigned int expected) {
    Buffer content(static_cast<int>(expected + 1), 0);
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
        throw Unreadable("changed while it was read");
    }
    content.length(length);
    return content;
}

std::shared_ptr<const FileContents> readFile(const Descriptor& file, const struct stat& status, FileCache& cache) {
    const FileCache::State state = stateOf(status);
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

void readFolder(const Descriptor& folder, const std::string& path, FileCache& cache, ReadPath& result) {
    std::map<std::pair<dev_t, ino_t>, std::shared_ptr<const FileContents>> seen;
    for (const std::string& name : namesIn(folder)) {
        std::string whole = path;
        whole.append("/").append(name);
        try {
            const Descriptor file = opened(folder.get(), name);
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
            result.files.push_back({whole, name, contents});
        } catch (const Exhausted&) {
            throw;
        } catch (const Unreadable& reason) {
            result.problems.push_back({whole, reason.what()});
        }
    }
}

} // namespace

bool FileCache::State::operator<(const State& other) const {
    const auto all = [](const State& s) {
        return std::tie(s.device, s.inode, s.size, s.seconds, s.nanoseconds, s.changedSeconds, s.changedNanoseconds);
    };
    return all(*this) < all(other);
}

std::shared_ptr<const FileContents> FileCache::find(const State& state) {
    if (const auto used = m_used.find(state); used != m_used.end()) {
        return used->second;
    }
    const auto before = m_before.find(state);
    if (before == m_before.end()) {
        return nullptr;
    }
    return m_used.emplace(state, before->second).first->second;
}

void FileCache::keep(const State& state, std::time_t readAt, std::shared_ptr<const FileContents> contents) {
    constexpr std::time_t grain = 2; // of the times of some file systems, in seconds
    if (state.seconds + grain < readAt && state.changedSeconds + grain < readAt) {
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
    const Descriptor file = opened(AT_FDCWD, path);
    const struct stat status = statusOf(file);
    if (S_ISDIR(status.st_mode)) {
        readFolder(file, path, cache, result);
    } else if (expected == Expected::directory) {
        throw Unreadable("is no directory");
    } else if (S_ISREG(status.st_mode)) {
        result.files.push_back({path, path.substr(path.rfind('/') + 1), readFile(file, status, cache)});
    } else {
        throw Unreadable("is neither a regular file nor a directory");
    }
    return result;
}

} // namespace Norvane::Crypto::Trust::detail
