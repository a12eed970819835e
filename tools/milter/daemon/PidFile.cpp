#include "daemon/PidFile.h"

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
} // namespace

PidFile::PidFile(const std::string& path) : m_path(path) {
    if (path.empty())
        return;
    constexpr mode_t readable = 0644;
    m_file = Descriptor(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, readable));
    if (!m_file)
        refuse(path, std::generic_category().message(errno));
    // Other users may read it whatever the mask says.
    ::fchmod(m_file.get(), readable);
    // The lock goes with the last process that has the file open, whatever ended it.
    if (::flock(m_file.get(), LOCK_EX | LOCK_NB) != 0)
        refuse(path, errno == EWOULDBLOCK ? "another one runs" : std::generic_category().message(errno));
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
