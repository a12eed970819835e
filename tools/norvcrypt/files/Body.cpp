#include "files/Body.h"

#include <algorithm>
#include <cstring> // explicit_bzero of <string.h> too
#include <sys/stat.h>
#include <unistd.h>

namespace norvcrypt {

namespace {

/// Fewer calls of the system do not get faster from here on, and it stays in the processor's cache.
constexpr unsigned int pieceLength = 1U << 18U;

/// What a regular file has from its present position on. Files of the kernel say to have nothing, or too much.
std::optional<std::uint64_t> sizeOf(const std::string& path) {
    struct stat status {};
    const bool standardInput = path == "-";
    const int result = standardInput ? fstat(STDIN_FILENO, &status) : stat(path.c_str(), &status);
    if (result != 0 || !S_ISREG(status.st_mode))
        return std::nullopt;
    const off_t position = standardInput ? lseek(STDIN_FILENO, 0, SEEK_CUR) : 0;
    if (position < 0 || position > status.st_size)
        return std::nullopt;
    return static_cast<std::uint64_t>(status.st_size - position);
}

} // namespace

Body::Body(Inputs& inputs, const std::string& path, Progress* progress)
    : m_size(sizeOf(path)),
      m_in(inputs.open(path, progress)),
      m_piece(new unsigned char[pieceLength]) {
    fill();
    if (m_filled < pieceLength)
        m_length = m_filled;
    else if (m_size && *m_size >= m_filled)
        m_length = m_size;
}

Body::~Body() {
    explicit_bzero(m_piece.get(), m_used);
}

void Body::write(Norvane::MediaOut& target) {
    for (; m_filled != 0; fill())
        target.write(m_piece.get(), m_filled);
}

void Body::fill() {
    m_filled = static_cast<unsigned int>(m_in.read(m_piece.get(), pieceLength));
    m_used = std::max<std::size_t>(m_used, m_filled);
}

} // namespace norvcrypt
