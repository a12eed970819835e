#pragma once

/// \file
/// Where the content of a structure collects behind its cipher, until the structure is written.

#include "openssl/Pointers.h"

#include <cstddef>
#include <vector>

namespace Norvane::Crypto::openssl {

/// Bytes in blocks of a fixed size: they are never moved to make room, and never needed in one piece.
class ContentSink {
public:
    static constexpr std::size_t blockSize = 65536;

    ContentSink() = default;
    ContentSink(const ContentSink&) = delete;
    ContentSink& operator=(const ContentSink&) = delete;

    /// A BIO that appends to this sink, which must outlive it; null when there is no memory. OpenSSL takes it for a
    /// memory BIO that holds nothing: finishing a structure looks for one to take the content from, and leaves the
    /// content empty then, for `encodeHead` to announce.
    [[nodiscard]] BioPtr bio();

    /// Once bytes were refused, for want of memory or because there are more than a structure can hold, every later
    /// byte is: what is collected would have a gap.
    [[nodiscard]] bool failed() const noexcept { return m_failed; }
    [[nodiscard]] std::size_t length() const noexcept { return m_length; }

    /// Hands over all bytes in order, a block at a time: `take(const unsigned char*, unsigned int)`.
    template <class Take> void forEach(Take take) const {
        std::size_t left = m_length;
        for (const OwnedMemory<unsigned char>& block : m_blocks) {
            const std::size_t count = left < blockSize ? left : blockSize;
            take(block.get(), static_cast<unsigned int>(count));
            left -= count;
        }
    }

private:
    static BIO_METHOD* method();
    static int onWrite(BIO* bio, const char* data, int length);
    static long onControl(BIO* bio, int command, long number, void* argument);

    [[nodiscard]] bool append(const char* data, std::size_t length) noexcept;
    [[nodiscard]] bool addBlock() noexcept;

    std::vector<OwnedMemory<unsigned char>> m_blocks; // all full but the last one
    std::size_t m_length = 0;
    bool m_failed = false;
};

} // namespace Norvane::Crypto::openssl
