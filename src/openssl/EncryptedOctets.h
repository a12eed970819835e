#pragma once

/// \file
/// The octets of a content where they lie: in a structure of OpenSSL's, or in the encoding that it was read from, in pieces
/// maybe.

#include "framing/SegmentRun.h"
#include "openssl/Pointers.h"

#include <memory>

namespace Norvane::Crypto::openssl {

/// The octets of an encrypted content, in one piece or several, lent.
class EncryptedOctets {
public:
    EncryptedOctets() noexcept = default;
    explicit EncryptedOctets(const ASN1_OCTET_STRING* octets) noexcept;
    /// An element that is a string, with its header, known to be sound.
    /// \param known segments that were found in it, counted from its header
    explicit EncryptedOctets(framing::Octets element, const framing::SegmentRun& known = {}) noexcept
        : m_octets(element),
          m_known(known),
          m_isElement(true) {}

    /// Whether there is a content, of no octets maybe.
    [[nodiscard]] bool isThere() const noexcept { return m_isElement || m_octets.data() != nullptr; }

    /// Hands them over from the beginning, as they lie in memory; segments of less than 1 KB are gathered.
    class Pieces {
    public:
        explicit Pieces(const EncryptedOctets& content);
        ~Pieces();
        Pieces(const Pieces&) = delete;
        Pieces& operator=(const Pieces&) = delete;
        /// Valid until the next call; empty at the end.
        framing::Octets next();

    private:
        framing::Octets m_octets;
        struct Segments;
        std::unique_ptr<Segments> m_segments;
    };

private:
    framing::Octets m_octets;
    framing::SegmentRun m_known;
    bool m_isElement = false;
};

/// The octets in one piece. \throws std::bad_alloc
OctetStringPtr joined(const EncryptedOctets& octets);

} // namespace Norvane::Crypto::openssl
