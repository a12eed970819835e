#include <norvcmsg/File.h>

#include "FileDescriptor.h"
#include "MediaFailure.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <vector>

namespace Norvane {

namespace {

constexpr unsigned int bufferSize = 65536;

detail::FileDescriptor openFile(const char* where, const std::string& path, int flags, unsigned int permissions) {
    if (path.find('\0') != std::string::npos) {
        detail::throwMediaErrno(where, "FileMedia", path, ENOENT);
    }
    int descriptor = -1;
    do {
        descriptor = ::open(path.c_str(), flags | O_CLOEXEC | O_NOCTTY, permissions);
    } while (descriptor < 0 && errno == EINTR);
    if (descriptor < 0) {
        detail::throwMediaErrno(where, "FileMedia", path, errno);
    }
    return detail::FileDescriptor(descriptor);
}

class FileMediaInImpl : public MediaInImpl {
public:
    explicit FileMediaInImpl(const File::Path& path)
        : m_path(path.asString()),
          m_file(openFile("FileMediaIn", m_path, O_RDONLY, 0)),
          m_buffer(bufferSize) {
        struct stat status {};
        if (::fstat(m_file.get(), &status) != 0) {
            detail::throwMediaErrno("FileMediaIn", "FileMedia", m_path, errno);
        }
        if (S_ISDIR(status.st_mode)) {
            detail::throwMediaErrno("FileMediaIn", "FileMedia", m_path, EISDIR);
        }
    }

    [[nodiscard]] bool atEnd() const override { return peek() < 0; }

    [[nodiscard]] int peek() const override {
        if (m_next == m_held) {
            m_held = readFile(m_buffer.data(), bufferSize);
            m_next = 0;
        }
        return m_next == m_held ? -1 : m_buffer[m_next];
    }

    using MediaInImpl::read;
    int read(unsigned char* out, unsigned int length) override {
        length = std::min(length, static_cast<unsigned int>(std::numeric_limits<int>::max()));
        auto count = takeHeld(out, length);
        if (length - count >= bufferSize) {
            count += readFile(out + count, length - count);
        } else if (count < length && peek() >= 0) {
            count += takeHeld(out + count, length - count);
        }
        return static_cast<int>(count);
    }

    [[nodiscard]] unsigned long tell() const override {
        const auto position = ::lseek(m_file.get(), 0, SEEK_CUR);
        if (position < 0) {
            detail::throwMediaErrno("FileMediaIn::tell", "FileMedia", m_path, errno);
        }
        return static_cast<unsigned long>(position) - (m_held - m_next);
    }

    void setpos(unsigned long position) override {
        if (::lseek(m_file.get(), static_cast<off_t>(position), SEEK_SET) < 0) {
            detail::throwMediaErrno("FileMediaIn::setpos", "FileMedia", m_path, errno);
        }
        m_next = 0;
        m_held = 0;
    }

private:
    unsigned int takeHeld(unsigned char* out, unsigned int length) noexcept {
        const auto count = std::min(length, m_held - m_next);
        if (count != 0) {
            std::memcpy(out, m_buffer.data() + m_next, count);
        }
        m_next += count;
        return count;
    }

    unsigned int readFile(unsigned char* out, unsigned int length) const {
        const auto moved = detail::readAll(m_file.get(), out, length);
        if (moved.error != 0 && moved.bytes == 0) {
            detail::throwMediaErrno("FileMediaIn::read", "FileMedia", m_path, moved.error);
        }
        return moved.bytes;
    }

    std::string m_path;
    detail::FileDescriptor m_file;
    mutable std::vector<unsigned char> m_buffer;
    mutable unsigned int m_next = 0;
    mutable unsigned int m_held = 0;
};

class FileMediaOutImpl : public MediaOutImpl {
public:
    FileMediaOutImpl(const File::Path& path, unsigned int permissions)
        : m_path(path.asString()),
          m_file(openFile("FileMediaOut", m_path, O_WRONLY | O_CREAT | O_TRUNC, permissions)) {
        m_held.reserve(bufferSize);
    }

    ~FileMediaOutImpl() override {
        if (m_file.isOpen()) {
            static_cast<void>(detail::writeAll(m_file.get(), m_held.data(), heldLength()));
        }
    }

    using MediaOutImpl::write;
    void write(const unsigned char* data, unsigned int length) override {
        if (!m_file.isOpen()) {
            detail::throwMedia("FileMediaOut::write", "FileMedia", m_path + ": already ended");
        }
        if (length > bufferSize - heldLength()) {
            flush("FileMediaOut::write");
        }
        if (length >= bufferSize) {
            writeFile("FileMediaOut::write", data, length);
        } else {
            m_held.insert(m_held.end(), data, data + length);
        }
    }

    void end() override {
        if (!m_file.isOpen()) {
            return;
        }
        flush("FileMediaOut::end");
        if (const int error = m_file.close(); error != 0) {
            detail::throwMediaErrno("FileMediaOut::end", "FileMedia", m_path, error);
        }
    }

    [[nodiscard]] unsigned long tell() const override { return m_position + heldLength(); }

    void setpos(unsigned long position) override {
        if (!m_file.isOpen()) {
            detail::throwMedia("FileMediaOut::setpos", "FileMedia", m_path + ": already ended");
        }
        flush("FileMediaOut::setpos");
        if (::lseek(m_file.get(), static_cast<off_t>(position), SEEK_SET) < 0) {
            detail::throwMediaErrno("FileMediaOut::setpos", "FileMedia", m_path, errno);
        }
        m_position = position;
    }

private:
    [[nodiscard]] unsigned int heldLength() const noexcept { return static_cast<unsigned int>(m_held.size()); }

    void flush(const char* where) {
        // What fails once is not tried again: the bytes that got through would be doubled.
        std::vector<unsigned char> held;
        held.swap(m_held);
        writeFile(where, held.data(), static_cast<unsigned int>(held.size()));
        held.clear();
        m_held.swap(held);
    }

    void writeFile(const char* where, const unsigned char* data, unsigned int length) {
        const auto moved = detail::writeAll(m_file.get(), data, length);
        m_position += moved.bytes;
        if (moved.error != 0) {
            detail::throwMediaErrno(where, "FileMedia", m_path, moved.error);
        }
    }

    std::string m_path;
    detail::FileDescriptor m_file;
    std::vector<unsigned char> m_held;
    unsigned long m_position = 0;
};

} // namespace

FileMediaIn::FileMediaIn(const File::Path& path) : MediaIn(makeReference<FileMediaInImpl, MediaInImpl>(path)) {}

FileMediaIn::FileMediaIn(const FileMediaIn& other) = default;

FileMediaIn& FileMediaIn::operator=(const FileMediaIn& other) = default;

FileMediaIn::~FileMediaIn() = default;

FileMediaOut::FileMediaOut(const File::Path& path, unsigned int permissions)
    : MediaOut(makeReference<FileMediaOutImpl, MediaOutImpl>(path, permissions)) {}

FileMediaOut::FileMediaOut(const FileMediaOut& other) = default;

FileMediaOut& FileMediaOut::operator=(const FileMediaOut& other) = default;

FileMediaOut::~FileMediaOut() = default;

} // namespace Norvane
