#pragma once

/// \file
/// Where the content of a structure collects behind its cipher, until the structure is written.

#include "openssl/Pointers.h"

#include <cstddef>
#include <span>
#include <vector>

namespace Norvane::Crypto::openssl {

/// Bytes in blocks: they are never moved to make room, and never needed in one piece.
class ContentSink {
public:
    static constexpr std::size_t blockSize = 65536;
    /// The first blocks have that size, the next this one: where all are small, the C library gives their memory back to the
    /// system at the end of each structure, and gets it back page by page for the next.
    static constexpr std::size_t smallBlocks = 8;
    static constexpr std::size_t mediumBlockSize = 1U << 20U;
    /// All others are as large as some huge pages, and asked for with one more, so that they can begin where one does: the system
    /// hands out fresh memory in pieces of 2 MiB then. What is not used of them is never touched.
    static constexpr std::size_t mediumBlocks = 8;
    static constexpr std::size_t hugePage = 2U << 20U;
    static constexpr std::size_t largeBlockSize = 4 * hugePage;

    ContentSink() = default;
    ContentSink(const ContentSink&) = delete;
    ContentSink& operator=(const ContentSink&) = delete;

    /// A BIO that appends to this sink, which must outlive it; null when there is no memory. OpenSSL takes it for a
    /// memory BIO that holds nothing: finishing a structure looks for one to take the content from, and leaves the
    /// content empty then, for `encodeHead` to announce.
    [[nodiscard]] BioPtr bio();

    /// Where the next bytes go, for what writes them there itself: at least one, as many as the block has left. Empty
    /// once bytes were refused, and when there is no memory, which is queued as an error.
    [[nodiscard]] std::span<unsigned char> room() noexcept;
    /// Counts in the first bytes of the room; false when there are more than a structure can hold, likewise.
    [[nodiscard]] bool filled(std::size_t count) noexcept;

    /// Once bytes were refused, for want of memory or because there are more than a structure can hold, every later
    /// byte is: what is collected would have a gap.
    [[nodiscard]] bool failed() const noexcept { return m_failed; }
    [[nodiscard]] std::size_t length() const noexcept { return m_length; }

    /// Hands over all bytes in order, up to `blockSize` at a time: `take(const unsigned char*, unsigned int)`.
    template <class Take> void forEach(Take take) const {
        std::size_t left = m_length;
        for (std::size_t i = 0; i != m_blocks.size(); ++i) {
            for (std::size_t at = 0; at != sizeOfBlock(i) && left != 0;) {
                const std::size_t count = left < blockSize ? left : blockSize;
                take(begin(i) + at, static_cast<unsigned int>(count));
                at += count;
                left -= count;
            }
        }
    }

private:
    static BIO_METHOD* method();
    static int onWrite(BIO* bio, const char* data, int length);
    static long onControl(BIO* bio, int command, long number, void* argument);

    [[nodiscard]] static constexpr std::size_t sizeOfBlock(std::size_t index) noexcept {
        return index < smallBlocks ? blockSize : isLarge(index) ? largeBlockSize : mediumBlockSize;
    }
    [[nodiscard]] static constexpr bool isLarge(std::size_t index) noexcept {
        return index >= smallBlocks + mediumBlocks;
    }
    /// Where the bytes of a block begin.
    [[nodiscard]] unsigned char* begin(std::size_t index) const noexcept;
    [[nodiscard]] bool append(const char* data, std::size_t length) noexcept;
    [[nodiscard]] bool addBlock() noexcept;
    void refuse() noexcept;

    std::vector<OwnedMemory<unsigned char>> m_blocks; // all full but the last one
    std::size_t m_length = 0;
    std::size_t m_room = 0; // what the last block has left
    bool m_failed = false;
};

} // namespace Norvane::Crypto::openssl
