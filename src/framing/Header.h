#pragma once

/// \file
/// The identifier and length octets that stand before the content of every BER or DER element (X.690, 8.1.2 and 8.1.3).

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace Norvane::Crypto::framing {

enum class TagClass : std::uint8_t { universal = 0x00, application = 0x40, contextSpecific = 0x80, privateUse = 0xC0 };

/// Universal tag numbers that readers ask for.
enum Universal : std::uint32_t {
    integer = 2,
    bitString = 3,
    octetString = 4,
    objectIdentifier = 6,
    sequence = 16,
    set = 17,
    utcTime = 23,
    generalizedTime = 24
};

struct Header {
    TagClass tagClass = TagClass::universal;
    bool constructed = false;
    bool indefinite = false; ///< the content ends at an end-of-contents element, not after `contentLength` octets
    std::uint32_t tag = 0;   ///< the tag number
    std::uint64_t contentLength = 0; ///< as announced, which may be more than there is; 0 when indefinite
    std::size_t size = 0;            ///< octets of the header itself

    [[nodiscard]] bool is(TagClass ofClass, std::uint32_t number) const noexcept {
        return tagClass == ofClass && tag == number;
    }
    /// The two zero octets that end content of indefinite length.
    [[nodiscard]] bool isEndOfContents() const noexcept {
        return is(TagClass::universal, 0) && !constructed && contentLength == 0 && size == 2;
    }
    /// An empty element with a length in several octets, as 81 00. OpenSSL refuses such a length with no octet behind it: the
    /// element decodes or not by what stands around it.
    [[nodiscard]] bool isEmptyInLongForm() const noexcept { return !indefinite && contentLength == 0 && size > 2; }
};

enum class HeaderState : std::uint8_t {
    complete,
    incomplete, ///< the header goes on past what is at hand
    malformed,  ///< no octets that could follow make a header of it
};

/// Reads the header at the front of `available` octets; `header` is only meaningful when it is complete. Takes whatever
/// OpenSSL's decoder takes, and understands the same by it: lengths in more octets than they need, small tag numbers in
/// the long form. Tag numbers that do not fit 31 bits and lengths beyond 63 bits are malformed, as they are to OpenSSL.
HeaderState readHeader(const unsigned char* octets, std::size_t available, Header& header) noexcept;

/// Asks for the memory of a header further on: that of the segment which stands there when the next ones are as long as this
/// one, as a sender cuts a body. Walking from header to header waits for memory otherwise.
/// \param octets begin with the header that was read, and end where there is nothing to read
inline void prefetchHeader(std::span<const unsigned char> octets, const Header& header) noexcept {
    constexpr std::size_t ahead = 16;     // as many at once as a processor waits for
    constexpr std::size_t shortest = 256; // shorter ones are in what it reads ahead by itself
    constexpr std::size_t longest = 1U << 20U;
    if (header.contentLength >= shortest && header.contentLength <= longest) {
        const std::size_t distance = ahead * (header.size + static_cast<std::size_t>(header.contentLength));
        if (distance < octets.size()) {
            __builtin_prefetch(octets.data() + distance);
        }
    }
}

/// The octets of a header as DER has it: in as few as there can be.
std::size_t headerSize(std::uint32_t tag, std::uint64_t contentLength) noexcept;
/// Appends such a header.
void appendHeader(std::vector<unsigned char>& out, TagClass tagClass, bool constructed, std::uint32_t tag,
                  std::uint64_t contentLength);

} // namespace Norvane::Crypto::framing
