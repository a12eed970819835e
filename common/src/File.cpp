#include <norvcmsg/File.h>

#include "MediaFailure.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

namespace Norvane {

namespace {

/// The status of what `path` names; false with errno set when there is none.
bool statusOf(const std::string& path, bool ofLink, struct stat& status) noexcept {
    if (path.find('\0') != std::string::npos) {
        errno = ENOENT; // the system would look for another name
        return false;
    }
    return (ofLink ? ::lstat(path.c_str(), &status) : ::stat(path.c_str(), &status)) == 0;
}

/// A file system may hold times whose year fits no `Time`; they show as the first or last one that does.
Time timeOf(std::int64_t seconds) {
    return Time::fromCalendarSeconds(std::clamp(seconds, -67'768'040'609'740'800, 67'768'036'191'676'799));
}

} // namespace

File::Status::Status(std::uint64_t size, unsigned int mode, const Time& modified)
    : m_size(size),
      m_mode(mode),
      m_modified(modified) {}

bool File::Status::isRegular() const noexcept {
    return S_ISREG(m_mode);
}

bool File::Status::isDirectory() const noexcept {
    return S_ISDIR(m_mode);
}

bool File::Status::isLink() const noexcept {
    return S_ISLNK(m_mode);
}

unsigned int File::Status::permissions() const noexcept {
    return m_mode & 07777U;
}

File::Path::Path() = default;

File::Path::Path(const std::string& text) : m_text(text) {}

bool File::Path::exists() const noexcept {
    struct stat status {};
    return statusOf(m_text, false, status);
}

File::Status File::Path::status(bool ofLink) const {
    struct stat status {};
    if (!statusOf(m_text, ofLink, status)) {
        detail::throwMediaErrno("File::Path::status", "File", m_text, errno);
    }
    return {static_cast<std::uint64_t>(status.st_size), status.st_mode, timeOf(status.st_mtime)};
}

} // namespace Norvane
