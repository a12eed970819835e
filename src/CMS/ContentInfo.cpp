// The outer structure: its type, and how it is decoded, made and freed.
#include "failures/Events.h"
#include "failures/Raise.h"
#include "openssl/LazyPkcs7.h"
#include "openssl/StreamExceptions.h"
#include "openssl/TrueCountBio.h"

#include <norvcrypto/CMS.h>

#include <array>
#include <memory>
#include <utility>

namespace Norvane {
template class RefCounted<Crypto::CMS::_ContentInfo>;
template class Ref<Crypto::CMS::_ContentInfo>;
} // namespace Norvane

namespace Norvane::Crypto::CMS {

namespace {

struct TypeRow {
    ContentInfo::ContentType number;
    const char* identifier;
};

constexpr std::array<TypeRow, 6> s_types{{
    {ContentInfo::Data, "1.2.840.113549.1.7.1"},
    {ContentInfo::SignedData, "1.2.840.113549.1.7.2"},
    {ContentInfo::EnvelopedData, "1.2.840.113549.1.7.3"},
    {ContentInfo::DigestedData, "1.2.840.113549.1.7.5"},
    {ContentInfo::EncryptedData, "1.2.840.113549.1.7.6"},
    {ContentInfo::SmimeAttributes, "1.2.840.113549.1.9.16.2"},
}};

/// The number of a type. The text alone does not decide: its arcs wrap at 32 bits, so that an identifier of a
/// stranger's making may print as one of ours.
ContentInfo::ContentType numberOf(const ASN1::ObjectIdentifier& type) {
    for (const TypeRow& row : s_types) {
        if (type.asString() == row.identifier) {
            const ASN1::RefObjectIdentifier known{std::string(row.identifier)};
            return *known == type ? row.number : ContentInfo::Unknown;
        }
    }
    return ContentInfo::Unknown;
}

/// Has OpenSSL read what is not framed as a structure: it knows what is wrong, and reads as far as it always did.
std::unique_ptr<openssl::LazyPkcs7> decodeWhole(MediaIn& source, const openssl::StructureOctets& begun) {
    MediaIn whole = begun.octets().empty() ? source : openssl::octetsSource(begun.octets(), source);
    BIOMediaIn adapter(whole);
    const openssl::BioPtr reader = openssl::trueCountBio(adapter);
    openssl::Pkcs7Ptr structure =
        openssl::rethrowingStreamErrors(adapter, [&] { return openssl::decodePkcs7(reader.get()); });
    return structure == nullptr ? nullptr : std::make_unique<openssl::LazyPkcs7>(std::move(structure));
}

} // namespace

ContentInfo::ContentInfo(const pkcs7_st* structure) : ContentInfo(const_cast<pkcs7_st*>(structure), false) {}

ContentInfo::ContentInfo(pkcs7_st* structure, bool owns) : m_structure(structure), m_owns(owns) {}

ContentInfo::~ContentInfo() {
    if (m_owns) {
        PKCS7_free(m_structure);
    }
}

bool ContentInfo::decode(MediaIn& source) {
    openssl::StructureOctets octets(source);
    if (octets.isWhole()) {
        m_parts = openssl::LazyPkcs7::decode(std::move(octets));
    } else {
        m_parts = decodeWhole(source, octets);
    }
    m_structure = m_parts == nullptr ? nullptr : m_parts->structure();
    return m_structure != nullptr;
}

pkcs7_st* ContentInfo::structure() const {
    if (m_parts != nullptr) {
        m_parts->decodeAll();
    }
    return m_structure;
}

const ASN1::ObjectIdentifier& ContentInfo::type() const {
    return m_type.around(m_structure == nullptr ? nullptr : m_structure->type);
}

ContentInfo::ContentType ContentInfo::typeAsEnum() const {
    if (m_structure == nullptr || m_typeNumber != Unknown) {
        return m_typeNumber;
    }
    m_typeNumber = numberOf(type());
    if (m_typeNumber == Unknown) {
        failures::logEvent(failures::Event::contentTypeUnknown, type().asString());
    }
    return m_typeNumber;
}

_ContentInfo::_ContentInfo(const pkcs7_st* structure) : ContentInfo(structure) {}

_ContentInfo::_ContentInfo(pkcs7_st* structure, bool owns) : ContentInfo(structure, owns) {}

_ContentInfo::_ContentInfo(MediaIn& in) : ContentInfo(nullptr, false) {
    if (!decode(in)) {
        failures::logEvent(failures::Event::contentInfoUndecodable,
                           "Norvane::Crypto::CMS::_ContentInfo::_ContentInfo(Norvane::MediaIn&)",
                           openssl::drainErrorQueue());
        failures::raise(failures::contentInfoDecode, "ASN1 Decode failed:");
    }
}

_ContentInfo::~_ContentInfo() = default;

namespace {

RefCounted<_ContentInfo>* newStructure(bool create) {
    if (!create) {
        return nullptr;
    }
    openssl::Pkcs7Ptr structure(PKCS7_new());
    if (structure == nullptr) {
        static_cast<void>(openssl::drainErrorQueue()); // the text is fixed
        failures::raise(failures::contentInfoCreate, "Creation failed");
    }
    auto body = std::make_unique<_ContentInfo>(structure.get(), true);
    static_cast<void>(structure.release());
    return adoptReference(body.release());
}

} // namespace

RefContentInfo::RefContentInfo(bool create) : Ref(newStructure(create)) {}

RefContentInfo::RefContentInfo(const pkcs7_st* structure) : Ref(makeReference<_ContentInfo>(structure)) {}

RefContentInfo::RefContentInfo(MediaIn& in) : Ref(makeReference<_ContentInfo>(in)) {}

RefContentInfo::RefContentInfo(const RefContentInfo& other) = default;
RefContentInfo& RefContentInfo::operator=(const RefContentInfo& other) = default;
RefContentInfo::~RefContentInfo() = default;

RefContentInfo::operator pkcs7_st*() {
    return std::as_const(*this);
}

RefContentInfo::operator pkcs7_st*() const {
    const _ContentInfo* body = bodyOrNull();
    return body == nullptr ? nullptr : body->structure();
}

} // namespace Norvane::Crypto::CMS
