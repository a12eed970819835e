#include "openssl/EncryptedOctets.h"

#include "framing/Reader.h"
#include "openssl/StructureOctets.h"

#include <cstring>
#include <new>
#include <utility>

namespace Norvane::Crypto::openssl {

using framing::Octets;
using framing::Reader;

namespace {

/// The string and five within it, as far as OpenSSL goes.
constexpr std::size_t deepestInContent = 6;

} // namespace

EncryptedOctets::EncryptedOctets(const ASN1_OCTET_STRING* octets) noexcept {
    if (octets != nullptr) {
        static constexpr unsigned char nothing = 0;
        const unsigned char* data = ASN1_STRING_get0_data(octets);
        m_octets = {data == nullptr ? &nothing : data, static_cast<std::size_t>(ASN1_STRING_length(octets))};
    }
}

struct EncryptedOctets::Pieces::Segments {
    Segments(Octets element, const framing::SegmentRun& known)
        : reader(octetsSource(element), {.depth = deepestInContent}) {
        reader.know(known);
        reader.openString(framing::Segments::strict);
    }
    Reader reader;
};

EncryptedOctets::Pieces::Pieces(const EncryptedOctets& content) : m_octets(content.m_octets) {
    if (!content.m_isElement) {
        return;
    }
    framing::Header header;
    framing::readHeader(m_octets.data(), m_octets.size(), header);
    if (header.constructed) {
        m_segments = std::make_unique<Segments>(m_octets, content.m_known);
    } else {
        m_octets = m_octets.subspan(header.size);
    }
}

EncryptedOctets::Pieces::~Pieces() = default;

Octets EncryptedOctets::Pieces::next() {
    return m_segments != nullptr ? m_segments->reader.piece() : std::exchange(m_octets, {});
}

OctetStringPtr joined(const EncryptedOctets& octets) {
    std::size_t length = 0;
    for (EncryptedOctets::Pieces pieces(octets);;) {
        const Octets piece = pieces.next();
        if (piece.empty()) {
            break;
        }
        length += piece.size();
    }
    OctetStringPtr string(ASN1_OCTET_STRING_new());
    OwnedMemory<unsigned char> data(static_cast<unsigned char*>(OPENSSL_malloc(length + 1)));
    if (string == nullptr || data == nullptr) {
        throw std::bad_alloc();
    }
    unsigned char* at = data.get();
    for (EncryptedOctets::Pieces pieces(octets);;) {
        const Octets piece = pieces.next();
        if (piece.empty()) {
            break;
        }
        std::memcpy(at, piece.data(), piece.size());
        at += piece.size();
    }
    *at = 0; // as OpenSSL ends its strings
    ASN1_STRING_set0(string.get(), data.release(), static_cast<int>(length));
    return string;
}

} // namespace Norvane::Crypto::openssl
