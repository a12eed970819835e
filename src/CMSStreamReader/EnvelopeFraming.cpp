#include "CMSStreamReader/EnvelopeFraming.h"

#include "framing/LentMediaIn.h"

#include <algorithm>
#include <array>

namespace Norvane::Crypto::CMS {

using framing::Broken;
using framing::Element;
using framing::Fault;
using framing::Octets;
using framing::TagClass;

namespace {

constexpr std::array<unsigned char, 9> s_envelopedData{0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x07, 0x03};
constexpr std::array<unsigned char, 11> s_authEnvelopedData{0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D,
                                                            0x01, 0x09, 0x10, 0x01, 0x17};

Element elementOf(Octets octets) {
    const auto element = framing::firstElement(octets);
    if (!element) {
        throw Broken(Fault::malformed);
    }
    return *element;
}

bool isContext(const framing::Header* header, std::uint32_t tag) noexcept {
    return header != nullptr && header->is(TagClass::contextSpecific, tag);
}

} // namespace

/// The next element, which may end so many octets behind `from`.
Octets EnvelopeFraming::take(std::size_t limit, std::uint64_t from, TooLong what) {
    const std::uint64_t used = m_reader.position() - from;
    try {
        return m_reader.take(limit - static_cast<std::size_t>(std::min<std::uint64_t>(used, limit)));
    } catch (const Broken& broken) {
        if (broken.fault() == Fault::tooLong) {
            throw what; // NOLINT(misc-throw-by-value-catch-by-reference): an enumerator
        }
        throw;
    }
}

/// The next element, which must be an object identifier.
Octets EnvelopeFraming::takeIdentifier() {
    constexpr std::size_t longest = 1024;
    const Octets identifier = m_reader.take(longest);
    if (!framing::isObjectIdentifier(elementOf(identifier))) {
        throw Broken(Fault::malformed);
    }
    return identifier;
}

void EnvelopeFraming::readType() {
    const Octets identifier = takeIdentifier();
    const Octets type = elementOf(identifier).content;
    m_authenticated = std::ranges::equal(type, s_authEnvelopedData);
    if (!m_authenticated && !std::ranges::equal(type, s_envelopedData)) {
        throw OtherContentType{identifier};
    }
}

void EnvelopeFraming::readHead(std::size_t limit) {
    m_reader.expect(framing::sequence);
    m_reader.enter();
    readType();
    m_reader.expect(TagClass::contextSpecific, 0);
    m_reader.enter();
    m_reader.expect(framing::sequence);
    m_reader.enter();
    constexpr std::size_t longestVersion = 64;
    if (!framing::isSmallInteger(elementOf(m_reader.take(longestVersion)))) {
        throw Broken(Fault::malformed);
    }
    if (isContext(m_reader.next(), 0)) {
        take(limit, 0, TooLong::head); // originator information: certificates and lists
    }
    if (!m_reader.expect(framing::set).constructed) {
        throw Broken(Fault::unexpected);
    }
    m_recipients = elementOf(take(limit, 0, TooLong::head)).content;
    m_reader.expect(framing::sequence);
    m_reader.enter();
    m_contentType = takeIdentifier();
    m_reader.expect(framing::sequence);
    m_algorithm = take(limit, 0, TooLong::head);
    m_hasContent = isContext(m_reader.next(), 0);
    if (m_hasContent) {
        m_reader.openString(framing::Segments::strict);
    }
}

void EnvelopeFraming::readTail(std::size_t limit) {
    const std::uint64_t from = m_reader.position();
    m_reader.leave(); // EncryptedContentInfo
    if (isContext(m_reader.next(), 1)) {
        const Octets attributes = take(limit, from, TooLong::tail);
        if (m_authenticated) {
            m_attributes = attributes;
        }
    }
    if (m_authenticated) {
        m_reader.expect(framing::octetString);
        m_tag = framing::octetsOf(elementOf(take(limit, from, TooLong::tail)), m_tagStorage);
        if (isContext(m_reader.next(), 2)) {
            take(limit, from, TooLong::tail); // attributes that nothing protects
        }
    }
    m_reader.leave(); // EnvelopedData or AuthEnvelopedData
    m_reader.leave(); // [0]
    m_reader.leave(); // ContentInfo
    m_reader.finish();
}

} // namespace Norvane::Crypto::CMS
