#pragma once

/// \file
/// The framing of EnvelopedData and AuthEnvelopedData around the content.

#include "framing/Reader.h"

#include <norvcmsg/Media.h>

#include <cstddef>
#include <cstdint>

namespace Norvane::Crypto::CMS {

/// Thrown for a structure of another type.
struct OtherContentType {
    framing::Octets identifier; ///< the element, which stays as long as the source or the frame
};

/// Thrown for more octets than allowed before or behind the content.
enum class TooLong : std::uint8_t { head, tail };

/// One structure, read in order: `readHead`, all pieces, `readTail`. Each throws `framing::Broken` and what the source
/// throws. The octets that are lent stay as long as the frame and the source.
class EnvelopeFraming {
public:
    explicit EnvelopeFraming(const MediaIn& in) : m_reader(in) {}

    /// Reads up to the content. \throws OtherContentType, TooLong
    void readHead(std::size_t limit);
    /// The next octets of the content; none at its end.
    framing::Octets piece() { return m_hasContent ? m_reader.piece() : framing::Octets(); }
    /// Reads what is behind the content, to the end of the structure. \throws TooLong
    void readTail(std::size_t limit);

    [[nodiscard]] bool isAuthenticated() const noexcept { return m_authenticated; }
    [[nodiscard]] bool hasContent() const noexcept { return m_hasContent; }
    [[nodiscard]] bool isInPlace() const noexcept { return m_reader.isInPlace(); }
    /// The elements of the recipients.
    [[nodiscard]] framing::Octets recipients() const noexcept { return m_recipients; }
    /// The element of the content's type, an object identifier.
    [[nodiscard]] framing::Octets contentType() const noexcept { return m_contentType; }
    /// The element of the algorithm identifier.
    [[nodiscard]] framing::Octets algorithm() const noexcept { return m_algorithm; }
    /// The element of the authenticated attributes, empty when there are none.
    [[nodiscard]] framing::Octets attributes() const noexcept { return m_attributes; }
    /// The octets of the tag, of AuthEnvelopedData alone.
    [[nodiscard]] framing::Octets tag() const noexcept { return m_tag; }

private:
    framing::Octets take(std::size_t limit, std::uint64_t from, TooLong what);
    framing::Octets takeIdentifier();
    void readType();

    framing::Reader m_reader;
    bool m_authenticated = false;
    bool m_hasContent = false;
    framing::Octets m_recipients;
    framing::Octets m_contentType;
    framing::Octets m_algorithm;
    framing::Octets m_attributes;
    framing::Octets m_tag;
    std::vector<unsigned char> m_tagStorage;
};

} // namespace Norvane::Crypto::CMS
