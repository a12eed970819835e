#include "CMSStreamWriter/SignedFraming.h"

#include <algorithm>

namespace Norvane::Crypto::CMS {

namespace {

using framing::Encoded;
using framing::TagClass;

constexpr std::array<unsigned char, 11> signedData{0x06, 0x09, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x07, 0x02};
constexpr std::uint32_t explicitContent = 0;

/// The octets of an element with that much in it.
std::uint64_t elementSize(std::uint32_t tag, std::uint64_t content) noexcept {
    return framing::headerSize(tag, content) + content;
}

template <class Part> void append(Encoded& out, const Part& part) {
    for (const unsigned char octet : part) { // a few; GCC 12 takes an insertion for a write beyond the end
        out.push_back(octet);
    }
}

void writeUnlessEmpty(MediaOut& out, const Encoded& part) {
    if (!part.empty()) {
        out.write(part.data(), static_cast<unsigned int>(part.size()));
    }
}

} // namespace

Encoded SignedFraming::derHead(std::optional<std::uint64_t> bodyLength, std::size_t infos) const {
    const std::uint64_t octets = bodyLength ? elementSize(framing::octetString, *bodyLength) : 0;
    const std::uint64_t content = contentType.size() + (bodyLength ? elementSize(explicitContent, octets) : 0);
    const std::uint64_t inner = version.size() + digestAlgorithms.size() + elementSize(framing::sequence, content) +
                                certificates.size() + revocationLists.size() + infos;
    const std::uint64_t tagged = elementSize(framing::sequence, inner);

    Encoded out;
    framing::appendHeader(out, TagClass::universal, true, framing::sequence,
                          signedData.size() + elementSize(explicitContent, tagged));
    append(out, signedData);
    framing::appendHeader(out, TagClass::contextSpecific, true, explicitContent, tagged);
    framing::appendHeader(out, TagClass::universal, true, framing::sequence, inner);
    append(out, version);
    append(out, digestAlgorithms);
    framing::appendHeader(out, TagClass::universal, true, framing::sequence, content);
    append(out, contentType);
    if (bodyLength) {
        framing::appendHeader(out, TagClass::contextSpecific, true, explicitContent, octets);
        framing::appendHeader(out, TagClass::universal, false, framing::octetString, *bodyLength);
    }
    return out;
}

Encoded SignedFraming::berHead() const {
    // The structure, its type, the tag and the sequence around its parts, each of indefinite length.
    Encoded out{0x30, 0x80, 0x06, 0x09, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x07, 0x02, 0xA0, 0x80, 0x30, 0x80};
    append(out, version);
    append(out, digestAlgorithms);
    append(out, std::array<unsigned char, 2>{0x30, 0x80}); // the content
    append(out, contentType);
    append(out, std::array<unsigned char, 4>{0xA0, 0x80, 0x24, 0x80}); // the tag around its octets, and these
    return out;
}

void SignedFraming::writeTail(MediaOut& out, const Encoded& infos) const {
    writeUnlessEmpty(out, certificates);
    writeUnlessEmpty(out, revocationLists);
    writeUnlessEmpty(out, infos);
}

void OctetSegments::write(MediaOut& out, const unsigned char* data, std::size_t length) {
    while (length != 0) {
        if (m_count == 0 && length >= shortest) {
            const std::size_t piece = std::min(length, longest);
            writeSegment(out, data, piece);
            data += piece;
            length -= piece;
            continue;
        }
        if (length >= shortest) {
            flush(out);
            continue;
        }
        const std::size_t piece = std::min(length, shortest - m_count);
        std::copy_n(data, piece, m_gathered.data() + m_count);
        m_count += piece;
        data += piece;
        length -= piece;
        if (m_count == shortest) {
            flush(out);
        }
    }
}

void OctetSegments::flush(MediaOut& out) {
    if (m_count != 0) {
        writeSegment(out, m_gathered.data(), m_count);
        m_count = 0;
    }
}

void OctetSegments::writeSegment(MediaOut& out, const unsigned char* data, std::size_t length) {
    m_header.clear();
    framing::appendHeader(m_header, TagClass::universal, false, framing::octetString, length);
    out.write(m_header.data(), static_cast<unsigned int>(m_header.size()));
    out.write(data, static_cast<unsigned int>(length));
}

} // namespace Norvane::Crypto::CMS
