#include "daemon/PidFile.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <stdexcept>
#include <sys/file.h>
#include <sys/stat.h>
#include <system_error>

namespace norvmilter {

namespace {
[[noreturn]] void refuse(const std::string& path, const std::string& what) {
    throw std::runtime_error("pid file " + path + ": " + what);
}

/// A file of that name that a daemon wrote, or that is new. Root, who starts it, could overwrite anything else.
bool isPidFile(int file) {
    struct stat found {};
    std::array<char, 64> text{};
    if (::fstat(file, &found) != 0 || !S_ISREG(found.st_mode) || found.st_nlink != 1)
        return false;
    const ssize_t length = ::pread(file, text.data(), text.size(), 0);
    return length >= 0 && length < static_cast<ssize_t>(text.size()) &&
           std::all_of(text.begin(), text.begin() + length,
                       [](char one) { return (one >= '0' && one <= '9') || one == '\n'; });
}

} // namespace

PidFile::PidFile(const std::string& path) : m_path(path) {
    if (path.empty())
        return;
    constexpr mode_t readable = 0644;
    m_file = Descriptor(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, readable));
    if (!m_file)
        refuse(path, std::generic_category().message(errno));
    if (!isPidFile(m_file.get()))
        refuse(path, "there is a file of something else");
    // Other users may read it whatever the mask says.
    ::fchmod(m_file.get(), readable);
    // The lock goes with the last process that has the file open, whatever ended it.
    if (::flock(m_file.get(), LOCK_EX | LOCK_NB) != 0)
        refuse(path, errno == EWOULDBLOCK ? "another one runs" : std::generic_category().message(errno));
}

void PidFile::leave() noexcept {
    m_file.close();
    m_path.clear();
}

void PidFile::write() const {
    if (!m_file)
        return;
    const std::string number = std::to_string(::getpid()) + '\n';
    if (::ftruncate(m_file.get(), 0) != 0 ||
        ::pwrite(m_file.get(), number.data(), number.size(), 0) != static_cast<ssize_t>(number.size()))
        refuse(m_path, std::generic_category().message(errno));
}

void PidFile::remove() noexcept {
    if (!m_file)
        return;
    if (::ftruncate(m_file.get(), 0) == 0)
        ::unlink(m_path.c_str());
    m_file.close();
}

} // namespace norvmilter
