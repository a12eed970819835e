#include <norvcmsg/File.h>

#include "FileCalls.h"
#include "MediaFailure.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <limits>
#include <utility>
#include <vector>

namespace Norvane {

namespace {

constexpr unsigned int bufferSize = 65536;

/// How many forks lie between this process and the one that loaded the library; asking the system who one is costs more than a
/// short write.
std::atomic<unsigned int> s_generation = 0;
[[maybe_unused]] const int s_counting = ::pthread_atfork(nullptr, nullptr, [] { ++s_generation; });

/// The memory of a stream. Keys and passphrases pass through it like anything else, and a stream cannot tell: what was
/// in it is wiped before the memory goes.
class StreamBuffer {
public:
    StreamBuffer() : m_bytes(bufferSize) {}
    ~StreamBuffer() { ::explicit_bzero(m_bytes.data(), m_bytes.size()); }
    StreamBuffer(const StreamBuffer&) = delete;
    StreamBuffer& operator=(const StreamBuffer&) = delete;

    [[nodiscard]] unsigned char* data() noexcept { return m_bytes.data(); }
    [[nodiscard]] const unsigned char* data() const noexcept { return m_bytes.data(); }

private:
    std::vector<unsigned char> m_bytes;
};

class FileMediaInImpl : public MediaInImpl {
public:
    explicit FileMediaInImpl(const File::Path& path)
        : m_path(path.asString()),
          m_file(detail::openFile("FileMediaIn", m_path, O_RDONLY, 0)) {
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
        if (m_next == m_held && !fill()) {
            tellError();
            return -1;
        }
        return m_buffer.data()[m_next];
    }

    using MediaInImpl::read;
    int read(unsigned char* out, unsigned int length) override {
        length = std::min(length, static_cast<unsigned int>(std::numeric_limits<int>::max()));
        auto count = takeHeld(out, length);
        while (count < length && length - count < bufferSize && fill()) {
            count += takeHeld(out + count, length - count);
        }
        if (length - count >= bufferSize) {
            count += readPast(out + count, length - count);
        }
        if (count == 0 && length != 0) {
            tellError();
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
        m_error = 0;
    }

private:
    /// Throws the error that stopped the last read, once: the bytes before it are handed out first, and the system may
    /// not tell it again.
    void tellError() const {
        if (const int error = std::exchange(m_error, 0); error != 0) {
            detail::throwMediaErrno("FileMediaIn::read", "FileMedia", m_path, error);
        }
    }

    unsigned int takeHeld(unsigned char* out, unsigned int length) noexcept {
        const auto count = std::min(length, m_held - m_next);
        if (count != 0) {
            std::memcpy(out, m_buffer.data() + m_next, count);
        }
        m_next += count;
        return count;
    }

    /// Puts what the file has at hand into the empty buffer; false at the end and after an error.
    bool fill() const {
        if (m_error != 0) {
            return false;
        }
        const auto moved = detail::readSome(m_file.get(), m_buffer.data(), bufferSize);
        m_error = moved.error;
        m_next = 0;
        m_held = moved.bytes;
        return m_held != 0;
    }

    /// Reads past the buffer.
    unsigned int readPast(unsigned char* out, unsigned int length) {
        if (m_error != 0) {
            return 0;
        }
        const auto moved = detail::readAll(m_file.get(), out, length);
        m_error = moved.error;
        return moved.bytes;
    }

    std::string m_path;
    FileDescriptor m_file;
    mutable StreamBuffer m_buffer;
    mutable unsigned int m_next = 0;
    mutable unsigned int m_held = 0;
    mutable int m_error = 0;
};

class FileMediaOutImpl : public MediaOutImpl {
public:
    FileMediaOutImpl(const File::Path& path, unsigned int permissions)
        : m_path(path.asString()),
          m_file(detail::openFile("FileMediaOut", m_path, O_WRONLY | O_CREAT | O_TRUNC, permissions)) {}

    ~FileMediaOutImpl() override {
        // What a process has collected is not for its children to write once more when they go.
        if (m_file.isOpen() && m_error == 0 && m_generation == s_generation.load(std::memory_order_relaxed)) {
            static_cast<void>(detail::writeAll(m_file.get(), m_buffer.data(), m_held));
        }
    }

    using MediaOutImpl::write;
    void write(const unsigned char* data, unsigned int length) override {
        requireUsable("FileMediaOut::write");
        if (length > bufferSize - m_held) {
            flush("FileMediaOut::write");
        }
        if (length >= bufferSize) {
            writeFile("FileMediaOut::write", data, length);
        } else {
            m_generation = s_generation.load(std::memory_order_relaxed);
            std::copy_n(data, length, m_buffer.data() + m_held);
            m_held += length;
        }
    }

    void end() override {
        if (!m_file.isOpen()) {
            return;
        }
        if (m_error == 0) {
            flush("FileMediaOut::end");
        }
        const int error = m_file.close();
        if (m_error != 0 || error != 0) {
            detail::throwMediaErrno("FileMediaOut::end", "FileMedia", m_path, m_error != 0 ? m_error : error);
        }
    }

    [[nodiscard]] unsigned long tell() const override { return m_position + m_held; }

    void setpos(unsigned long position) override {
        requireUsable("FileMediaOut::setpos");
        flush("FileMediaOut::setpos");
        if (::lseek(m_file.get(), static_cast<off_t>(position), SEEK_SET) < 0) {
            detail::throwMediaErrno("FileMediaOut::setpos", "FileMedia", m_path, errno);
        }
        m_position = position;
    }

private:
    /// Throws when the file is closed, or once a write failed: bytes are missing then, so none may follow.
    void requireUsable(const char* where) const {
        if (!m_file.isOpen()) {
            detail::throwMedia(where, "FileMedia", m_path + ": already ended");
        }
        if (m_error != 0) {
            detail::throwMediaErrno(where, "FileMedia", m_path, m_error);
        }
    }

    void flush(const char* where) {
        writeFile(where, m_buffer.data(), m_held);
        m_held = 0;
    }

    void writeFile(const char* where, const unsigned char* data, unsigned int length) {
        const auto moved = detail::writeAll(m_file.get(), data, length);
        m_position += moved.bytes;
        if (moved.error != 0) {
            m_error = moved.error;
            detail::throwMediaErrno(where, "FileMedia", m_path, moved.error);
        }
    }

    std::string m_path;
    FileDescriptor m_file;
    StreamBuffer m_buffer;
    unsigned int m_held = 0;
    unsigned long m_position = 0;  // of the first held byte
    int m_error = 0;               // of the first write that failed
    unsigned int m_generation = 0; // of the process that wrote last what is held
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
