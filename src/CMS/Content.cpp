// The ways into a structure that ask for its type first, and the bytes that a signed one carries.
#include "CMS/StructureParts.h"
#include "openssl/Pkcs7.h"

#include <norvcrypto/CMS.h>

#include <algorithm>
#include <cstring>

namespace Norvane::Crypto::CMS {

namespace {

/// A source over an OCTET STRING inside a structure, which its handle keeps alive.
class EmbeddedContentInImpl : public MediaInImpl {
public:
    EmbeddedContentInImpl(const RefContentInfo& owner, const ASN1_OCTET_STRING* octets)
        : m_owner(owner),
          m_next(ASN1_STRING_get0_data(octets)),
          m_left(static_cast<unsigned int>(ASN1_STRING_length(octets))) {}

    using MediaInImpl::read;
    bool atEnd() const override { return m_left == 0; }
    int peek() const override { return m_left == 0 ? -1 : *m_next; }
    int read(unsigned char* out, unsigned int length) override {
        const unsigned int count = std::min(length, m_left);
        if (count != 0) {
            std::memcpy(out, m_next, count);
            m_next += count;
            m_left -= count;
        }
        return static_cast<int>(count);
    }

private:
    RefContentInfo m_owner;
    const unsigned char* m_next;
    unsigned int m_left; // an ASN.1 length is an int: it fits
};

} // namespace

SignedData StructureParts::signedData(const RefContentInfo& content) {
    SignedData view(openssl::signedContent(structureOf(content)));
    view.m_parts = of(content);
    return view;
}

EnvelopedData StructureParts::envelopedData(const RefContentInfo& content) {
    EnvelopedData view(openssl::envelopedContent(structureOf(content)));
    view.m_parts = of(content);
    return view;
}

SignedData signedData(const RefContentInfo& content) {
    return StructureParts::signedData(content);
}

EnvelopedData envelopedData(const RefContentInfo& content) {
    return StructureParts::envelopedData(content);
}

MediaIn embeddedContent(const RefContentInfo& content) {
    const PKCS7_SIGNED* signedContent = openssl::signedContent(StructureParts::structureOf(content));
    const ASN1_OCTET_STRING* octets = signedContent == nullptr ? nullptr : openssl::dataOctets(signedContent->contents);
    if (octets == nullptr) {
        return MediaIn();
    }
    return MediaIn(makeReference<EmbeddedContentInImpl, MediaInImpl>(content, octets));
}

} // namespace Norvane::Crypto::CMS
