#include <norvcmsg/BytesInMemory.h>

#include "FileCalls.h"
#include "MediaFailure.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>

namespace Norvane {

BytesInMemory::~BytesInMemory() = default;

namespace {

constexpr const char* s_where = "MappedFileMediaIn";

/// A whole file in memory; none for an empty one, which the system does not map.
class Mapping {
public:
    explicit Mapping(const std::string& path) {
        // Not blocking: opening a pipe would wait for somebody who writes, only to be refused.
        const FileDescriptor file = detail::openFile(s_where, path, O_RDONLY | O_NONBLOCK, 0);
        struct stat status {};
        if (::fstat(file.get(), &status) != 0) {
            detail::throwMediaErrno(s_where, "BytesInMemory", path, errno);
        }
        if (!S_ISREG(status.st_mode)) {
            detail::throwMedia(s_where, "BytesInMemory", path + ": not a regular file");
        }
        if (status.st_size == 0) {
            return;
        }
        m_length = static_cast<unsigned long>(status.st_size);
        void* bytes = ::mmap(nullptr, m_length, PROT_READ, MAP_PRIVATE, file.get(), 0);
        if (bytes == MAP_FAILED) {
            detail::throwMediaErrno(s_where, "BytesInMemory", path, errno);
        }
        m_bytes = static_cast<unsigned char*>(bytes);
        static_cast<void>(::madvise(bytes, m_length, MADV_SEQUENTIAL));
    }
    ~Mapping() {
        if (m_bytes != nullptr) {
            static_cast<void>(::munmap(m_bytes, m_length));
        }
    }
    Mapping(const Mapping&) = delete;
    Mapping& operator=(const Mapping&) = delete;

    [[nodiscard]] const unsigned char* bytes() const noexcept { return m_bytes; }
    [[nodiscard]] unsigned long length() const noexcept { return m_length; }

private:
    unsigned char* m_bytes = nullptr;
    unsigned long m_length = 0;
};

class MappedFileMediaInImpl : public MediaInImpl, public BytesInMemory {
public:
    explicit MappedFileMediaInImpl(const File::Path& path) : m_file(path.asString()) {}

    [[nodiscard]] bool atEnd() const override { return left() == 0; }
    [[nodiscard]] int peek() const override { return atEnd() ? -1 : *rest(); }

    using MediaInImpl::read;
    int read(unsigned char* out, unsigned int length) override {
        const unsigned long count = std::min(
            {static_cast<unsigned long>(length), left(), static_cast<unsigned long>(std::numeric_limits<int>::max())});
        if (count != 0) {
            std::memcpy(out, rest(), count);
        }
        m_position += count;
        return static_cast<int>(count);
    }

    [[nodiscard]] unsigned long tell() const override { return m_position; }
    void setpos(unsigned long position) override {
        if (position > m_file.length()) {
            detail::throwMedia("MappedFileMediaIn::setpos", "BytesInMemory", "position past the end");
        }
        m_position = position;
    }

    [[nodiscard]] const unsigned char* rest() const noexcept override { return m_file.bytes() + m_position; }
    [[nodiscard]] unsigned long left() const noexcept override { return m_file.length() - m_position; }
    void skip(unsigned long count) noexcept override { m_position += count; }

private:
    const Mapping m_file;
    unsigned long m_position = 0;
};

} // namespace

MappedFileMediaIn::MappedFileMediaIn(const File::Path& path)
    : MediaIn(makeReference<MappedFileMediaInImpl, MediaInImpl>(path)) {}

MappedFileMediaIn::~MappedFileMediaIn() = default;

} // namespace Norvane
