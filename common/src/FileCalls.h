#pragma once

/// \file
/// The system's calls on files, with interruptions and short counts taken care of.

#include <norvcmsg/FileDescriptor.h>

#include <cstdint>
#include <string>

namespace Norvane::detail {

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
