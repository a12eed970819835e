#pragma once

/// \file
/// A message while it is written.

#include "CMSStreamWriter/EnvelopeFrame.h"
#include "failures/Raise.h"
#include "openssl/ContentEncryption.h"

#include <norvcmsg/Media.h>
#include <norvcmsg/SwapBufferMediaOut.h>
#include <norvcrypto/CMSEnvelopeWriter.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Norvane::Crypto::CMS {

/// Encrypts in one segment's memory, and hands full segments to the target, or to a file where DER's length is not known.
class EnvelopeStream {
public:
    EnvelopeStream(const std::vector<EnvelopeRecipient>& recipients, const EnvelopeOptions& options);
    ~EnvelopeStream();
    EnvelopeStream(const EnvelopeStream&) = delete;
    EnvelopeStream& operator=(const EnvelopeStream&) = delete;

    void write(const MediaOut& target, const unsigned char* data, unsigned int length);
    void end(const MediaOut& target);

private:
    /// Of 4096 to 65520 octets none was faster than the others, measured from 64 KB to 64 MB.
    static constexpr std::size_t segmentLength = 16384;
    static constexpr std::size_t headerRoom = 8;   ///< before a segment, for its tag and length
    static constexpr std::size_t paddingRoom = 32; ///< behind the last one
    static constexpr std::size_t small = 1024;     ///< pieces below it are gathered

    enum class Phase : int {
        open,
        encrypted, ///< all of it, and kept: it can be sent again
        sent,      ///< the target has it all, and is not ended
        ended,
        broken, ///< the target has, at most, the beginning
    };

    [[nodiscard]] bool isKept() const noexcept;
    [[nodiscard]] std::uint64_t encryptedLength(std::uint64_t bodyLength) const noexcept;
    void makeFrame(const std::vector<EnvelopeRecipient>& recipients, const EnvelopeOptions& options);
    void checkLength(std::uint64_t length);
    void take(MediaOutImpl* target, const unsigned char* data, std::size_t length);
    void encryptWaiting();
    void passSegment(MediaOutImpl* target);
    void start(MediaOutImpl* target);
    void finish(MediaOutImpl* target);
    void sendKept(MediaOut target);
    [[noreturn]] void breakOff(const failures::Failure& failure, const std::string& reason);

    [[nodiscard]] unsigned char* content() noexcept { return m_memory.data() + headerRoom; }

    const openssl::ContentAlgorithm& m_algorithm;
    EnvelopeEncoding m_encoding;
    std::optional<std::uint64_t> m_announced;
    std::string m_temporaryFile;
    WrittenFrame m_frame;
    openssl::ContentEncryption m_encryption;
    Phase m_phase = Phase::open;
    std::uint64_t m_taken = 0; ///< bytes of the body

    // The segment: encrypted octets, then such that wait for being encrypted.
    std::array<unsigned char, headerRoom + segmentLength + paddingRoom> m_memory; // filled before it is read
    std::size_t m_encrypted = 0;
    std::size_t m_filled = 0;

    std::optional<SwapBufferMediaOut> m_kept;
    framing::Encoded m_header; ///< of the segment
    framing::Encoded m_tail;
};

} // namespace Norvane::Crypto::CMS
