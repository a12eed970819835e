// A CMS structure as the body of an entity: what it is, and encrypted layers.

#include "Signed.h"

#include "mime/Transfer.h"

#include <norvcrypto/CMSEnvelopeReader.h>
#include <norvcrypto/Key.h>

#include <openssl/asn1.h>
#include <openssl/err.h>
#include <openssl/objects.h>

#include <algorithm>
#include <array>
#include <memory>

namespace Norvane::Crypto::SMime {

using CMS::EnvelopeReader;
using mime::Header;
using mime::SharedOctets;

namespace {

constexpr const char* dataType = "1.2.840.113549.1.7.1";
constexpr std::string_view beginOfPem = "-----BEGIN ";

/// The types of structures, by the octets of their object identifiers.
struct StructureType {
    std::string_view identifier;
    LayerKind kind;
    const char* name;
};
constexpr std::array<StructureType, 8> structureTypes{{
    {"\x2a\x86\x48\x86\xf7\x0d\x01\x07\x02", LayerKind::opaqueSigned, "SignedData"},
    {"\x2a\x86\x48\x86\xf7\x0d\x01\x07\x03", LayerKind::enveloped, "EnvelopedData"},
    {"\x2a\x86\x48\x86\xf7\x0d\x01\x09\x10\x01\x17", LayerKind::authEnveloped, "AuthEnvelopedData"},
    {"\x2a\x86\x48\x86\xf7\x0d\x01\x09\x10\x01\x09", LayerKind::other, "CompressedData"},
    {"\x2a\x86\x48\x86\xf7\x0d\x01\x07\x04", LayerKind::other, "SignedAndEnvelopedData"},
    {"\x2a\x86\x48\x86\xf7\x0d\x01\x07\x05", LayerKind::other, "DigestedData"},
    {"\x2a\x86\x48\x86\xf7\x0d\x01\x07\x06", LayerKind::other, "EncryptedData"},
    {"\x2a\x86\x48\x86\xf7\x0d\x01\x09\x10\x01\x02", LayerKind::other, "AuthenticatedData"},
}};

/// What begins here, BER or DER.
struct FoundType {
    const StructureType* known = nullptr;
    std::string other; ///< the identifier of the type of a ContentInfo that is none of those
};

constexpr std::size_t longestStart = 80; ///< what is looked at to find a type

/// Of what is encoded as an object identifier; empty when it is none.
std::string dottedOf(std::string_view element) {
    ERR_set_mark();
    const auto* from = reinterpret_cast<const unsigned char*>(element.data());
    const std::unique_ptr<ASN1_OBJECT, void (*)(ASN1_OBJECT*)> object(
        d2i_ASN1_OBJECT(nullptr, &from, static_cast<long>(element.size())), ASN1_OBJECT_free);
    ERR_pop_to_mark();
    std::array<char, 256> text{};
    return object && OBJ_obj2txt(text.data(), static_cast<int>(text.size()), object.get(), 1) > 0 ? text.data() : "";
}

FoundType typeOf(std::string_view octets) {
    const auto at = [&](std::size_t index) {
        return index < octets.size() ? static_cast<unsigned char>(octets[index]) : 0U;
    };
    if (at(0) != 0x30)
        return {};
    const std::size_t lengthOctets = at(1) > 0x80 ? at(1) - 0x80U : 0;
    const std::size_t identifier = 2 + lengthOctets;
    if (lengthOctets > 8 || at(identifier) != 0x06)
        return {};
    const std::string_view value = octets.substr(std::min(identifier + 2, octets.size()), at(identifier + 1));
    const auto* found = std::ranges::find(structureTypes, value, &StructureType::identifier);
    if (found != structureTypes.end())
        return {found, {}};
    // SignedData of another country has an identifier of its own, and is no damage.
    constexpr unsigned int taggedContent = 0xa0;
    const bool isContentInfo = at(identifier + 1) < 0x80 && at(identifier + 2 + value.size()) == taggedContent;
    return {nullptr, isContentInfo ? dottedOf(octets.substr(identifier, 2 + value.size())) : std::string()};
}

/// Relays drop the field that says base64, and some senders name another encoding: DER and BER begin with a SEQUENCE, and
/// its base64 with an M.
SharedOctets withoutArmour(const SharedOctets& body) {
    std::string_view start = body->view(256);
    while (!start.empty() && (start.front() == '\r' || start.front() == '\n')) {
        body->skip(1);
        start = body->view(256);
    }
    if (start.starts_with(beginOfPem)) {
        const std::size_t end = start.find('\n');
        body->skip(end == std::string_view::npos ? 0 : end + 1);
        return mime::decoded(body, mime::Transfer::base64);
    }
    return start.starts_with('M') ? mime::decoded(body, mime::Transfer::base64) : body;
}

/// The caller's keys, guarded.
class GuardedKeys : public CMS::KeyLookup {
public:
    GuardedKeys(Session& session, const CMS::KeyLookup& keys) : m_session(session), m_keys(keys) {}
    [[nodiscard]] NVX509::KeyCertificatePair find(const CMS::CertificateIdentifier& recipient) const override {
        return m_session.outside([&] { return m_keys.find(recipient); });
    }
    [[nodiscard]] bool mayFind(CMS::NamedBy namedBy, const Buffer& octets) const noexcept override {
        return m_keys.mayFind(namedBy, octets);
    }

private:
    Session& m_session;
    const CMS::KeyLookup& m_keys;
};

std::string hexText(const Buffer& octets) {
    constexpr const char* digits = "0123456789abcdef";
    constexpr unsigned int most = 64; // of a name that a stranger chose
    std::string text;
    for (unsigned int at = 0; at < std::min(octets.length(), most); ++at) {
        text += digits[octets.data()[at] >> 4U];
        text += digits[octets.data()[at] & 15U];
    }
    return octets.length() > most ? text + "..." : text;
}

/// For people.
std::string nameOf(const EnvelopeReader::Recipient& recipient) {
    if (recipient.kind() == EnvelopeReader::Recipient::password)
        return "password";
    if (recipient.kind() == EnvelopeReader::Recipient::keyEncryptionKey)
        return "key-encryption key " + hexText(recipient.keyIdentifier());
    const auto identifier = recipient.identifier();
    return identifier ? identifier->asString() : "";
}

void takeRecipients(Layer& layer, const EnvelopeReader& reader) {
    constexpr std::size_t maximumTold = 100;
    layer.cipher = reader.cipher();
    layer.authenticated = reader.isAuthenticated();
    for (const EnvelopeReader::Recipient& from : reader.recipients()) {
        if (layer.recipients.size() == maximumTold)
            break;
        LayerRecipient recipient;
        recipient.identifier = nameOf(from);
        recipient.algorithm = from.algorithm();
        recipient.opened = &from == reader.opened();
        layer.recipients.push_back(recipient);
    }
}

/// With what both sides have.
bool openWithSecrets(Session& session, Layer& layer, EnvelopeReader& reader) {
    constexpr std::size_t mostPasswordTries = 3;
    const ReadOptions& options = session.options;
    for (const EnvelopeReader::Recipient& recipient : reader.recipients()) {
        if (recipient.kind() == EnvelopeReader::Recipient::keyEncryptionKey && options.keyEncryptionKey != nullptr &&
            reader.open(recipient, *options.keyEncryptionKey))
            return true;
        if (recipient.kind() != EnvelopeReader::Recipient::password || options.password == nullptr)
            continue;
        if (session.passwordTries == mostPasswordTries) {
            layer.status = LayerStatus::tooCostly;
            layer.detail = "more than " + std::to_string(mostPasswordTries) + " structures with a password";
            return false;
        }
        if (reader.openWithPassword(recipient, *options.password)) {
            ++session.passwordTries;
            return true;
        }
    }
    return false;
}

bool isOpenedWithSecret(const EnvelopeReader& reader) {
    const auto kind = reader.opened()->kind();
    return kind == EnvelopeReader::Recipient::password || kind == EnvelopeReader::Recipient::keyEncryptionKey;
}

/// \returns whether there is a content to read
bool openEnvelope(Session& session, Layer& layer, EnvelopeReader& reader) {
    if (!reader.hasContent()) {
        layer.status = LayerStatus::unsupported;
        layer.detail = "the encrypted content is not in the message";
        return false;
    }
    const bool isOpen = (session.options.keys != nullptr && reader.open(GuardedKeys(session, *session.options.keys))) ||
                        openWithSecrets(session, layer, reader);
    takeRecipients(layer, reader);
    if (layer.status == LayerStatus::tooCostly)
        return false;
    if (!isOpen) {
        layer.status = reader.unsupported().empty() ? LayerStatus::noKey : LayerStatus::unsupported;
        layer.detail = reader.unsupported().empty() ? "there is no key for any recipient" : reader.unsupported();
        return false;
    }
    if (reader.contentType() != dataType) {
        layer.status = LayerStatus::unsupported;
        layer.detail = "what is encrypted is no MIME entity but " + reader.contentType();
        return false;
    }
    return true;
}

/// The octets of a source, kept while they are taken.
class KeptOctets : public mime::Octets {
public:
    KeptOctets(Session& session, SharedOctets from)
        : m_session(session),
          m_from(std::move(from)),
          m_kept(session.spill()) {}
    std::string_view view(std::size_t atLeast) override { return m_from->view(atLeast); }
    void skip(std::size_t count) override {
        m_isAll = m_isAll && m_session.mayKeep(count);
        if (m_isAll) {
            const std::string_view taken = m_from->view(count).substr(0, count);
            m_session.outside([&] { mime::put(m_kept, taken); }); // a full disk is no fault of the message
        }
        m_from->skip(count);
    }
    /// Within the budget.
    [[nodiscard]] bool isAll() const noexcept { return m_isAll; }
    [[nodiscard]] MediaIn in() const { return m_kept.in(); }

private:
    Session& m_session;
    SharedOctets m_from;
    SwapBufferMediaOut m_kept;
    bool m_isAll = true;
};

/// Hands on what an encrypted layer holds, unless one within it did.
void handOn(Session& session, const KeptOctets& kept, const Place& place) {
    if (session.answer.contentPath.empty() || !session.answer.deliveredPath.empty())
        return;
    if (!kept.isAll())
        return session.fail(place, LayerStatus::tooCostly, "the parts to be kept are longer than the budget allows");
    SharedOctets octets = std::make_shared<mime::MediaOctets>(kept.in());
    Header entity;
    const mime::HeaderLimits limits{session.options.budget.headerOctets, session.options.budget.headerFields};
    static_cast<void>(mime::readHeader(*octets, limits, entity)); // the walk took it
    session.answer.deliveredPath = place.path;
    // Nobody signed the message that was wrapped to protect its header: it would be shown as one that is forwarded.
    const bool isWrapped = session.answer.headers.scheme == HeaderScheme::wrapped;
    if (isWrapped && session.answer.contentPath == place.part(1).path) {
        octets = mime::decoded(octets, mime::transferOf(entity));
        static_cast<void>(mime::readHeader(*octets, limits, entity));
        session.answer.deliveredPath = session.answer.contentPath;
        writeHeader(session, entity, HeaderScheme::wrapped, entity);
    } else {
        writeHeader(session, session.contentHeader, session.answer.headers.scheme, entity);
    }
    mime::copy(*octets, session.content);
}

void readEnvelope(Session& session, std::size_t index, const SharedOctets& octets, const Place& place) {
    const Role role = session.take(index, place);
    EnvelopeReader reader(mime::mediaOver(octets));
    reader.spillTo(session.spillTemplate());
    if (!openEnvelope(session, session.layer(index), reader))
        return;
    SharedOctets content = std::make_shared<mime::MediaOctets>(reader);
    Place payload = place.payload(role);
    std::shared_ptr<KeptOctets> kept;
    if (session.options.keepSignatures && role == Role::main) {
        payload.isKept = true;
        kept = std::make_shared<KeptOctets>(session, content);
        content = kept;
    }
    try {
        readEntity(session, content, payload);
        mime::drain(*content);
    } catch (const Exception& failure) {
        session.rethrowOutside(failure);
        const bool isCostly = dynamic_cast<const TooCostlyException*>(&failure) != nullptr;
        if (isCostly || reader.verdict() != EnvelopeReader::Damaged || !isOpenedWithSecret(reader))
            throw;
        // Whoever made the message named a certificate where there is one; nothing tells whose a secret is.
        session.layer(index).status = LayerStatus::noKey;
        session.layer(index).detail = "the password or key-encryption key is another one, or the message is damaged";
        return;
    }
    if (reader.verdict() == EnvelopeReader::Complete) {
        session.layer(index).status = LayerStatus::good;
        session.layer(index).detail.clear();
        if (kept)
            handOn(session, *kept, payload);
    }
}

} // namespace

void tellFailure(Layer& layer, const Exception& failure) {
    std::string detail;
    for (const Exception::Parameter& parameter : failure.parameters()) {
        if (const auto* text = std::get_if<std::string>(&parameter))
            detail += (detail.empty() ? "" : " ") + *text;
    }
    layer.detail = detail.empty() ? failure.where() : detail;
    const bool isCostly =
        dynamic_cast<const TooCostlyException*>(&failure) != nullptr || detail.starts_with("more than ");
    layer.status = isCostly                            ? LayerStatus::tooCostly
                   : detail.starts_with("unsupported") ? LayerStatus::unsupported
                                                       : LayerStatus::damaged;
}

SharedOctets structureOctets(const SharedOctets& body, mime::Transfer transfer) {
    const std::string_view start = body->view(256);
    const std::size_t text = start.find_first_not_of("\r\n");
    const bool isPem = text != std::string_view::npos && start.substr(text).starts_with(beginOfPem);
    // Its armour is no base64, whatever is said.
    const bool isBase64 = transfer == mime::Transfer::base64 && !isPem;
    return withoutArmour(isBase64 || transfer == mime::Transfer::quotedPrintable ? mime::decoded(body, transfer)
                                                                                 : body);
}

void readStructure(Session& session, const mime::ContentType& contentType, mime::Transfer transfer,
                   const SharedOctets& body, const Place& place) {
    const std::size_t index = session.addLayer(LayerKind::other, place);
    session.addUncovered(place, contentType.text());
    if (++session.structures > session.options.budget.layers) {
        session.take(index, place);
        session.layer(index).status = LayerStatus::tooCostly;
        session.layer(index).detail = "more than " + std::to_string(session.options.budget.layers) + " structures";
        return;
    }
    const SharedOctets octets = structureOctets(body, transfer);
    const auto [type, other] = typeOf(octets->view(longestStart).substr(0, longestStart));
    Layer& layer = session.layer(index);
    if (type == nullptr || type->kind == LayerKind::other) {
        session.take(index, place);
        const std::string name = type == nullptr ? other : type->name;
        layer.status = name.empty() ? LayerStatus::damaged : LayerStatus::unsupported;
        layer.detail = name.empty() ? "no CMS structure is there" : "a structure of type " + name;
        return;
    }
    layer.kind = type->kind;
    try {
        if (type->kind == LayerKind::opaqueSigned)
            readOpaque(session, index, octets, place);
        else
            readEnvelope(session, index, octets, place);
    } catch (const Exception& failure) {
        session.rethrowOutside(failure);
        session.take(index, place);
        tellFailure(session.layer(index), failure);
    }
}

} // namespace Norvane::Crypto::SMime
