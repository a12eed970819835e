#include <norvcmsg/SwapBufferMediaOut.h>

#include "FileCalls.h"
#include "MediaFailure.h"
#include "Wiped.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>
#include <string_view>

namespace Norvane {

namespace {

/// The bytes: in memory, or in a file without a name.
class SwapBufferMediaOutImpl : public MediaOutImpl {
public:
    SwapBufferMediaOutImpl(unsigned int limit, const char* fileTemplate)
        : m_limit(limit),
          m_template(fileTemplate == nullptr ? "" : fileTemplate) {
        m_memory.protect();
    }

    using MediaOutImpl::write;
    void write(const unsigned char* data, unsigned int length) override {
        if (!isSwapped() && length <= m_limit - m_memory.length()) {
            m_memory.append(Buffer(data, length, true));
        } else {
            swapOut();
            store(m_file, data, length, m_length);
        }
        m_length += length;
    }

    [[nodiscard]] unsigned long tell() const override { return m_length; }
    [[nodiscard]] unsigned long length() const noexcept { return m_length; }
    [[nodiscard]] bool isSwapped() const noexcept { return m_file.isOpen(); }

    void clear() {
        m_memory = emptyMemory();
        m_file = FileDescriptor();
        m_length = 0;
    }

    /// Reads what lies at `position`; short only at the end.
    unsigned int readAt(unsigned long position, unsigned char* out, unsigned int length) const {
        if (position >= m_length) {
            return 0;
        }
        const auto count = static_cast<unsigned int>(std::min<unsigned long>(length, m_length - position));
        if (!isSwapped()) {
            if (count != 0) {
                std::memcpy(out, std::as_const(m_memory).data() + position, count);
            }
            return count;
        }
        const auto moved = detail::readAll(m_file.get(), out, count, static_cast<std::int64_t>(position));
        if (moved.error != 0) {
            detail::throwMediaErrno("SwapBufferMediaOut::read", "SwapBufferMediaOut", m_template, moved.error);
        }
        return moved.bytes;
    }

private:
    static Buffer emptyMemory() {
        Buffer empty;
        empty.protect();
        return empty;
    }

    /// Moves the bytes from memory to a new file; they stay in memory when that fails.
    void swapOut() {
        if (isSwapped()) {
            return;
        }
        FileDescriptor file = unnamedFile();
        if (!file.isOpen()) {
            file = fileThatLostItsName();
        }
        store(file, std::as_const(m_memory).data(), m_memory.length(), 0);
        m_file = std::move(file);
        m_memory = emptyMemory();
    }

    /// A file that never had a name, in the folder of the template: whatever ends the process, nothing of it stays. Not
    /// open where the file system knows none such, or the template is none.
    [[nodiscard]] FileDescriptor unnamedFile() const {
        static constexpr std::string_view end = "XXXXXX";
        const auto length = m_template.size();
        if (length < end.size() || m_template.compare(length - end.size(), end.size(), end) != 0) {
            return FileDescriptor(-1);
        }
        const auto slash = m_template.rfind('/');
        const std::string folder = slash == std::string::npos ? "." : m_template.substr(0, slash + 1);
        return FileDescriptor(
            callUninterrupted([&] { return ::open(folder.c_str(), O_TMPFILE | O_EXCL | O_RDWR | O_CLOEXEC, 0600); }));
    }

    [[nodiscard]] FileDescriptor fileThatLostItsName() const {
        std::string path;
        FileDescriptor file(callUninterrupted([&] {
            path = m_template;
            return ::mkostemp(path.data(), O_CLOEXEC);
        }));
        if (!file.isOpen()) {
            fail("cannot make a temporary file from ", errno);
        }
        if (::unlink(path.c_str()) != 0) {
            fail("cannot take away the name of a temporary file from ", errno);
        }
        return file;
    }

    void store(const FileDescriptor& file, const unsigned char* data, unsigned int length,
               unsigned long position) const {
        const auto moved = detail::writeAll(file.get(), data, length, static_cast<std::int64_t>(position));
        if (moved.error != 0) {
            fail("cannot write the temporary file from ", moved.error);
        }
    }

    [[noreturn]] void fail(const char* what, int error) const {
        detail::throwMediaErrno("SwapBufferMediaOut::write", "SwapBufferMediaOut", what + m_template, error);
    }

    unsigned int m_limit;
    std::string m_template;
    Buffer m_memory;
    FileDescriptor m_file;
    unsigned long m_length = 0;
};

/// A position in the bytes of a swap buffer, which lives at least as long.
class SwapBufferMediaInImpl : public MediaInImpl {
public:
    SwapBufferMediaInImpl(const MediaOut& owner, const SwapBufferMediaOutImpl& bytes)
        : m_owner(owner),
          m_bytes(bytes) {}

    [[nodiscard]] bool atEnd() const override { return m_position >= m_bytes.length(); }
    [[nodiscard]] int peek() const override {
        unsigned char byte = 0;
        return m_bytes.readAt(m_position, &byte, 1) == 1 ? byte : -1;
    }

    // Byte by byte, as other sources do it, would ask the system for each byte of a file.
    bool readline(Buffer& line) override {
        constexpr unsigned int most = 1024;
        detail::Wiped<most> piece;
        line.length(0);
        while (true) {
            const auto held = m_bytes.readAt(m_position, piece.data(), most);
            const auto* newline = static_cast<const unsigned char*>(std::memchr(piece.data(), '\n', held));
            const auto length = newline == nullptr ? held : static_cast<unsigned int>(newline - piece.data()) + 1;
            line.append(Buffer(piece.data(), length, true));
            m_position += length;
            if (newline != nullptr || held < most) {
                return !line.empty();
            }
        }
    }

    using MediaInImpl::read;
    int read(unsigned char* out, unsigned int length) override {
        constexpr auto largestCount = static_cast<unsigned int>(std::numeric_limits<int>::max());
        const auto count = m_bytes.readAt(m_position, out, std::min(length, largestCount));
        m_position += count;
        return static_cast<int>(count);
    }

    [[nodiscard]] unsigned long tell() const override { return m_position; }
    void setpos(unsigned long position) override {
        if (position > m_bytes.length()) {
            detail::throwMedia("SwapBufferMediaOut::setpos", "SwapBufferMediaOut", "position past the end");
        }
        m_position = position;
    }

private:
    MediaOut m_owner;
    const SwapBufferMediaOutImpl& m_bytes;
    unsigned long m_position = 0;
};

SwapBufferMediaOutImpl& swapBufferOf(MediaOutImpl* body) {
    auto* swapBuffer = dynamic_cast<SwapBufferMediaOutImpl*>(body);
    if (swapBuffer == nullptr) {
        throw MediaException("SwapBufferMediaOut", 1, "SwapBufferMediaOut", __LINE__);
    }
    return *swapBuffer;
}

} // namespace

SwapBufferMediaOut::SwapBufferMediaOut(unsigned int limit, const char* fileTemplate)
    : MediaOut(makeReference<SwapBufferMediaOutImpl, MediaOutImpl>(limit, fileTemplate)) {}

SwapBufferMediaOut::SwapBufferMediaOut(const SwapBufferMediaOut& other) = default;

SwapBufferMediaOut& SwapBufferMediaOut::operator=(const SwapBufferMediaOut& other) = default;

SwapBufferMediaOut::~SwapBufferMediaOut() = default;

MediaIn SwapBufferMediaOut::in() const {
    const auto& bytes = swapBufferOf(bodyOrNull());
    return MediaIn(makeReference<SwapBufferMediaInImpl, MediaInImpl>(*this, bytes));
}

unsigned long SwapBufferMediaOut::length() const {
    return swapBufferOf(bodyOrNull()).length();
}

bool SwapBufferMediaOut::isSwapped() const {
    return swapBufferOf(bodyOrNull()).isSwapped();
}

void SwapBufferMediaOut::clear() {
    swapBufferOf(bodyOrNull()).clear();
}

} // namespace Norvane
