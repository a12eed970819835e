#pragma once

/// \file
/// What stands around the body and the signers of a SignedData, in DER and in BER of indefinite lengths.

#include "framing/Encoding.h"

#include <norvcmsg/Media.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

namespace Norvane::Crypto::CMS {

/// The parts that are known before the body, as elements; those that are empty are left out.
struct SignedFraming {
    framing::Encoded version;
    framing::Encoded digestAlgorithms;
    framing::Encoded contentType;
    framing::Encoded certificates;
    framing::Encoded revocationLists;

    /// What stands before a body of that many octets, or before where it would stand. \param infos the octets of the set of signers
    [[nodiscard]] framing::Encoded derHead(std::optional<std::uint64_t> bodyLength, std::size_t infos) const;
    /// What stands before the segments of a body of unknown length.
    [[nodiscard]] framing::Encoded berHead() const;
    /// Writes what stands behind the body. \param infos the set of signers
    void writeTail(MediaOut& out, const framing::Encoded& infos) const;
};

/// The segments of an octet string of indefinite length: small pieces are gathered, large ones pass from where they lie.
class OctetSegments {
public:
    void write(MediaOut& out, const unsigned char* data, std::size_t length);
    /// Writes what is gathered.
    void flush(MediaOut& out);

private:
    static constexpr std::size_t shortest = 4096; ///< but for the last one, and one that a large piece follows
    static constexpr std::size_t longest = 65536;

    void writeSegment(MediaOut& out, const unsigned char* data, std::size_t length);

    framing::Encoded m_header; // kept, so that no segment takes memory
    std::array<unsigned char, shortest> m_gathered{};
    std::size_t m_count = 0;
};

} // namespace Norvane::Crypto::CMS
