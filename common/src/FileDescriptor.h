#pragma once

/// \file
/// An owned file descriptor, and the system's calls on it with interruptions and short counts taken care of.

#include <cstdint>
#include <string>
#include <utility>

namespace Norvane::detail {

/// Owns a descriptor, or none (-1).
class FileDescriptor {
public:
    FileDescriptor() noexcept = default;
    explicit FileDescriptor(int descriptor) noexcept : m_descriptor(descriptor) {}
    FileDescriptor(FileDescriptor&& other) noexcept : m_descriptor(std::exchange(other.m_descriptor, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        std::swap(m_descriptor, other.m_descriptor);
        return *this;
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor();

    [[nodiscard]] int get() const noexcept { return m_descriptor; }
    [[nodiscard]] bool isOpen() const noexcept { return m_descriptor >= 0; }
    /// Hands the descriptor over to the caller.
    [[nodiscard]] int release() noexcept { return std::exchange(m_descriptor, -1); }
    /// Closes the file. 0, or the error of the system.
    [[nodiscard]] int close() noexcept;

private:
    int m_descriptor = -1;
};

/// Opens a file as `open` does, for this process alone (a program it starts does not get it) and without making a terminal
/// its own. \throws MediaException with `where` and the path: it cannot be opened, or the path holds a NUL
[[nodiscard]] FileDescriptor openFile(const char* where, const std::string& path, int flags, unsigned int permissions);

/// What a call moved: the number of bytes, and the error of the system that stopped it (0 for none).
struct Moved {
    unsigned int bytes = 0;
    int error = 0;
};

/// Reads until `length` bytes or the end are reached. `offset` below 0 reads at the file's position.
[[nodiscard]] Moved readAll(int descriptor, unsigned char* out, unsigned int length, std::int64_t offset = -1) noexcept;

/// Reads what one call of the system gives, up to `length`; no byte means the end.
[[nodiscard]] Moved readSome(int descriptor, unsigned char* out, unsigned int length) noexcept;

/// Writes all bytes. `offset` below 0 writes at the file's position.
[[nodiscard]] Moved writeAll(int descriptor, const unsigned char* data, unsigned int length,
                             std::int64_t offset = -1) noexcept;

} // namespace Norvane::detail
