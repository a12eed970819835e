#include "files/Body.h"

#include <algorithm>
#include <sys/stat.h>
#include <unistd.h>

namespace norvcrypt {

namespace {

/// What has less than this has a known length wherever it comes from.
constexpr unsigned int longestForeseen = 1U << 18U;
/// Fewer calls of the system do not get faster from here on, and it stays in the processor's cache.
constexpr unsigned int pieceLength = 1U << 16U;

/// What a regular file has from its present position on.
struct FileSize {
    std::uint64_t size;
    bool isStored; ///< files of the kernel say to have nothing, or too much, and take up no space
};

std::optional<FileSize> sizeOf(const std::string& path) {
    struct stat status {};
    const bool standardInput = path == "-";
    const int result = standardInput ? fstat(STDIN_FILENO, &status) : stat(path.c_str(), &status);
    if (result != 0 || !S_ISREG(status.st_mode))
        return std::nullopt;
    const off_t position = standardInput ? lseek(STDIN_FILENO, 0, SEEK_CUR) : 0;
    if (position < 0 || position > status.st_size)
        return std::nullopt;
    return FileSize{.size = static_cast<std::uint64_t>(status.st_size - position), .isStored = status.st_blocks > 0};
}

} // namespace

Body::Body(Inputs& inputs, const std::string& path, Progress* progress)
    : m_in(inputs.open(path, progress)),
      m_piece(longestForeseen) {
    const std::optional<FileSize> file = sizeOf(path);
    // Memory that is never touched costs nothing: of a long file, one piece is enough to begin with.
    const bool isLong = file && file->isStored && file->size > longestForeseen;
    const unsigned int first = isLong ? pieceLength : longestForeseen;
    fill(first);
    if (m_filled < first)
        m_length = m_filled;
    else if (file && file->size >= m_filled)
        m_length = file->size;
}

void Body::write(Norvane::MediaOut& target) {
    for (; m_filled != 0; fill(pieceLength))
        for (unsigned int done = 0; done < m_filled; done += pieceLength)
            target.write(m_piece.data() + done, std::min(m_filled - done, pieceLength));
}

void Body::fill(unsigned int length) {
    m_filled = static_cast<unsigned int>(m_in.read(m_piece.data(), length));
    m_piece.used(m_filled);
}

} // namespace norvcrypt
