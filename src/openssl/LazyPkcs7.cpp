#include "openssl/LazyPkcs7.h"

#include "framing/Reader.h"
#include "openssl/Decode.h"

#include <openssl/objects.h>

#include <algorithm>
#include <array>
#include <limits>
#include <new>
#include <utility>

namespace Norvane::Crypto::openssl {

namespace {

using framing::Element;
using framing::Elements;
using framing::Octets;
using framing::Reader;
using framing::TagClass;

constexpr std::size_t unlimited = std::numeric_limits<std::size_t>::max();
/// Levels down to strings within strings as far as OpenSSL goes, see EncryptedOctets.cpp.
constexpr std::size_t deepest = 10;

bool isType(Octets element, int nid) noexcept {
    const auto identifier = framing::firstElement(element);
    const ASN1_OBJECT* type = OBJ_nid2obj(nid);
    return identifier && identifier->isUniversal(framing::objectIdentifier) && !identifier->header.constructed &&
           std::ranges::equal(identifier->content, Octets(OBJ_get0_data(type), OBJ_length(type)));
}

/// A part that waited.
template <auto Decode, class Waiting> auto* decodedPart(Waiting& waiting) {
    if (waiting.decoded == nullptr) {
        const ErrorMark mark;
        const unsigned char* at = waiting.element.data();
        waiting.decoded.reset(Decode(nullptr, &at, static_cast<long>(waiting.element.size())));
        if (waiting.decoded == nullptr) {
            throw std::bad_alloc(); // nothing else keeps it from being decoded
        }
    }
    return waiting.decoded.get();
}

/// ContentInfo around the parts of a content that is a SEQUENCE.
std::vector<unsigned char> contentInfo(Octets type, std::span<const Octets> parts) {
    std::size_t inside = 0;
    for (const Octets part : parts) {
        inside += part.size();
    }
    const std::size_t content = framing::headerSize(framing::sequence, inside) + inside;
    const std::size_t all = type.size() + framing::headerSize(0, content) + content;
    std::vector<unsigned char> out;
    out.reserve(framing::headerSize(framing::sequence, all) + all);
    framing::appendHeader(out, TagClass::universal, true, framing::sequence, all);
    out.insert(out.end(), type.begin(), type.end());
    framing::appendHeader(out, TagClass::contextSpecific, true, 0, content);
    framing::appendHeader(out, TagClass::universal, true, framing::sequence, inside);
    for (const Octets part : parts) {
        out.insert(out.end(), part.begin(), part.end());
    }
    return out;
}

Pkcs7Ptr decodeStructure(Octets octets) {
    const unsigned char* at = octets.data();
    return Pkcs7Ptr(d2i_PKCS7(nullptr, &at, static_cast<long>(octets.size())));
}

/// What is inside the [0] that a structure's content stands in, which ends it. \param end the octets of the structure
template <class Walk> void walkContent(Reader& reader, std::size_t end, Walk walk) {
    reader.expect(TagClass::contextSpecific, 0);
    reader.enter();
    reader.expect(framing::sequence);
    reader.enter();
    walk();
    reader.leave();
    reader.leave();
    reader.leave();
    if (reader.position() != end) { // what was framed otherwise before
        throw framing::Broken(framing::Fault::unexpected);
    }
}

/// The elements of one that is constructed; nothing when a length in it is wrong.
template <class Take> bool forEachElement(Octets whole, Take take) {
    const auto set = framing::firstElement(whole);
    if (!set || !set->header.constructed) {
        return false;
    }
    for (Elements elements(*set); !elements.atEnd();) {
        const auto element = elements.next();
        if (!element || !take(*element)) {
            return false;
        }
    }
    return true;
}

/// Keeps an element whose parts `take` adds to `parts`; nothing is kept, and it is false, when it does not take one.
template <class Parts, class Take>
bool keepElements(Octets element, std::vector<unsigned char>& kept, Parts& parts, Take take) {
    kept.assign(element.begin(), element.end());
    const bool taken = forEachElement(kept, take);
    if (!taken) {
        parts.clear();
        kept = {};
    }
    return taken;
}

} // namespace

/// The elements of a content, and where they lie.
struct LazyPkcs7::Parts {
    Octets all;
    framing::SegmentRun segments;
    Reader reader;

    explicit Parts(const StructureOctets& octets)
        : all(octets.octets()),
          segments(octets.segments()),
          reader(octetsSource(all), {.depth = deepest}) {
        reader.know(segments);
    }
    Octets take() { return reader.take(unlimited); }
    [[nodiscard]] Octets since(std::uint64_t start) const {
        return all.subspan(static_cast<std::size_t>(start), static_cast<std::size_t>(reader.position() - start));
    }
    /// A string, in one piece or in segments.
    EncryptedOctets takeString() {
        const auto start = static_cast<std::size_t>(reader.position());
        reader.skipString(framing::Segments::certain);
        const Octets element = since(start);
        const bool isIn = segments.start >= start && segments.end() - start <= element.size();
        return EncryptedOctets(element, isIn ? segments.within(start) : framing::SegmentRun());
    }
};

std::unique_ptr<LazyPkcs7> LazyPkcs7::decode(StructureOctets octets) {
    auto lazy = std::make_unique<LazyPkcs7>(Pkcs7Ptr());
    lazy->m_octets = std::move(octets);
    const Octets all = lazy->m_octets.octets();
    if (!isAccepted("ASN1_d2i_bio", refusalOf(all.data(), all.size(), lazy->m_octets.segments()))) {
        return nullptr;
    }
    lazy->m_structure = lazy->decodeSkeleton();
    if (lazy->m_structure == nullptr) {
        lazy->m_structure = queueingOnlyFailure([&] { return decodeStructure(all); });
    }
    if (lazy->m_structure == nullptr) {
        return nullptr;
    }
    if (!lazy->m_recipientsWait && !lazy->m_contentWaits) {
        lazy->m_octets = StructureOctets();
    }
    return lazy;
}

/// Null when the structure is of another type or not understood, for OpenSSL to decode as a whole.
Pkcs7Ptr LazyPkcs7::decodeSkeleton() {
    const ErrorMark mark;
    Pkcs7Ptr structure;
    try {
        Parts parts(m_octets);
        parts.reader.expect(framing::sequence);
        parts.reader.enter();
        const Octets type = parts.take();
        if (isType(type, NID_pkcs7_signed)) {
            structure = decodeSigned(type, parts);
        } else if (isType(type, NID_pkcs7_enveloped)) {
            structure = decodeEnveloped(type, parts);
        }
    } catch (const framing::Broken&) {
        // for OpenSSL to tell what is wrong, if anything is
    }
    if (structure == nullptr) {
        m_certificatesWait = m_listsWait = m_recipientsWait = m_contentWaits = false;
    }
    return structure;
}

Pkcs7Ptr LazyPkcs7::decodeSigned(Octets type, Parts& parts) {
    Reader& reader = parts.reader;
    Octets version;
    Octets algorithms;
    Octets contentType;
    Octets contents;
    Octets signers;
    EncryptedOctets carried;
    Octets certificates;
    Octets lists;
    walkContent(reader, parts.all.size(), [&] {
        version = parts.take();
        algorithms = parts.take();
        const std::uint64_t contentsStart = reader.position();
        reader.expect(framing::sequence);
        reader.enter();
        contentType = parts.take();
        if (reader.next() != nullptr) {
            if (isType(contentType, NID_pkcs7_data)) {
                reader.expect(TagClass::contextSpecific, 0);
                reader.enter();
                reader.expect(framing::octetString);
                carried = parts.takeString();
                reader.leave();
            } else {
                reader.skip();
            }
        }
        reader.leave();
        contents = parts.since(contentsStart);
        if (const auto* next = reader.next(); next != nullptr && next->is(TagClass::contextSpecific, 0)) {
            certificates = parts.take();
        }
        if (const auto* next = reader.next(); next != nullptr && next->is(TagClass::contextSpecific, 1)) {
            lists = parts.take();
        }
        signers = parts.take();
    });
    m_certificatesWait = takeCertificates(certificates);
    m_listsWait = takeLists(lists);
    std::vector<unsigned char> typeAlone;
    if (carried.isThere()) {
        typeAlone = framing::constructed(TagClass::universal, framing::sequence, std::array{contentType});
        contents = typeAlone;
    }
    Pkcs7Ptr structure = decodeStructure(
        contentInfo(type, std::array{version, algorithms, contents, m_certificatesWait ? Octets() : certificates,
                                     m_listsWait ? Octets() : lists, signers}));
    if (structure != nullptr && carried.isThere()) {
        structure->d.sign->contents->d.data = joined(carried).release();
    }
    return structure;
}

Pkcs7Ptr LazyPkcs7::decodeEnveloped(Octets type, Parts& parts) {
    Reader& reader = parts.reader;
    Octets version;
    Octets recipients;
    Octets contentType;
    Octets algorithm;
    walkContent(reader, parts.all.size(), [&] {
        version = parts.take();
        reader.expect(framing::set);
        recipients = parts.take();
        reader.expect(framing::sequence);
        reader.enter();
        contentType = parts.take();
        algorithm = parts.take();
        if (reader.next() != nullptr) {
            reader.expect(TagClass::contextSpecific, 0);
            m_content = parts.takeString();
        }
        reader.leave();
    });
    m_contentWaits = m_content.isThere();
    m_recipientsWait = takeRecipients(recipients);
    static constexpr std::array<unsigned char, 2> emptySet{0x31, 0};
    const std::vector<unsigned char> encrypted =
        framing::constructed(TagClass::universal, framing::sequence, std::array{contentType, algorithm});
    return decodeStructure(
        contentInfo(type, std::array{version, m_recipientsWait ? Octets(emptySet) : recipients, Octets(encrypted)}));
}

/// Keeps the certificates of the element for later; false when there is none or they are not assured.
bool LazyPkcs7::takeCertificates(Octets element) {
    return keepElements(element, m_ofSigned[0], m_certificates, [this](const Element& certificate) {
        const auto name = assuredCertificate(certificate);
        if (name) {
            m_certificates.push_back({certificate.whole, *name});
        }
        return name.has_value();
    });
}

bool LazyPkcs7::takeLists(Octets element) {
    return keepElements(element, m_ofSigned[1], m_lists, [this](const Element& list) {
        const bool assured = isAssuredList(list);
        if (assured) {
            m_lists.push_back({list.whole});
        }
        return assured;
    });
}

bool LazyPkcs7::takeRecipients(Octets element) {
    return forEachElement(element, [this](const Element& recipient) {
        const auto name =
            assuredRecipient(recipient, m_recipients.empty() ? Octets() : m_recipients.back().name.issuer);
        if (name) {
            m_recipients.push_back({recipient.whole, *name});
        }
        return name.has_value();
    });
}

std::size_t LazyPkcs7::waitingCertificates() const noexcept {
    return m_certificatesWait ? m_certificates.size() : 0;
}

X509* LazyPkcs7::certificate(std::size_t index) {
    return decodedPart<d2i_X509>(m_certificates[index]);
}

/// What waited is in the structure from then on, in its order.
template <auto Decode, class Stack, class Part> void LazyPkcs7::decodeInto(Stack*& stack, std::vector<Part>& parts) {
    for (Part& part : parts) {
        decodedPart<Decode>(part);
    }
    OPENSSL_STACK* made = OPENSSL_sk_new_reserve(nullptr, static_cast<int>(parts.size()));
    if (made == nullptr) {
        throw std::bad_alloc();
    }
    for (Part& part : parts) {
        OPENSSL_sk_push(made, part.decoded.release());
    }
    OPENSSL_sk_free(reinterpret_cast<OPENSSL_STACK*>(std::exchange(stack, reinterpret_cast<Stack*>(made))));
    parts.clear();
}

void LazyPkcs7::decodeCertificates() {
    if (m_certificatesWait) {
        decodeInto<d2i_X509>(m_structure->d.sign->cert, m_certificates);
        m_certificatesWait = false;
    }
}

void LazyPkcs7::decodeLists() {
    if (m_listsWait) {
        decodeInto<d2i_X509_CRL>(m_structure->d.sign->crl, m_lists);
        m_listsWait = false;
    }
}

void LazyPkcs7::decodeRecipients() {
    if (m_recipientsWait) {
        decodeInto<d2i_PKCS7_RECIP_INFO>(m_structure->d.enveloped->recipientinfo, m_recipients);
        m_recipientsWait = false;
    }
}

void LazyPkcs7::decodeContent() {
    if (m_contentWaits) {
        m_structure->d.enveloped->enc_data->enc_data = joined(m_content).release();
        m_contentWaits = false;
    }
}

void LazyPkcs7::decodeAll() {
    decodeCertificates();
    decodeLists();
    decodeRecipients();
    decodeContent();
}

std::size_t LazyPkcs7::recipients() const noexcept {
    if (m_recipientsWait) {
        return m_recipients.size();
    }
    const PKCS7_ENVELOPE* envelope = envelopedContent(m_structure.get());
    const int count = envelope == nullptr ? 0 : sk_PKCS7_RECIP_INFO_num(envelope->recipientinfo); // -1 for null
    return static_cast<std::size_t>(std::max(count, 0));
}

const AssuredName* LazyPkcs7::nameOfRecipient(std::size_t index) const noexcept {
    return m_recipientsWait ? &m_recipients[index].name : nullptr;
}

const PKCS7_RECIP_INFO* LazyPkcs7::recipient(std::size_t index) {
    return m_recipientsWait
               ? decodedPart<d2i_PKCS7_RECIP_INFO>(m_recipients[index])
               : sk_PKCS7_RECIP_INFO_value(m_structure->d.enveloped->recipientinfo, static_cast<int>(index));
}

EncryptedOctets LazyPkcs7::encryptedOctets() const noexcept {
    return m_contentWaits ? m_content : EncryptedOctets(encryptedContent(m_structure.get()));
}

} // namespace Norvane::Crypto::openssl
