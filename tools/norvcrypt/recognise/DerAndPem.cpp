#include "recognise/DerAndPem.h"
#include "base/PlainWords.h"
#include "openssl/OpenSsl.h"
#include "recognise/Blanks.h"
#include "recognise/WhatElse.h"
#include "recognise/Wrapped.h"

#include <norvcrypto-keystore/KeyFiles.h>
#include <norvcrypto/Crypto.h>
#include <norvcrypto/EncodedKind.h>

#include <openssl/pem.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <deque>
#include <optional>
#include <set>
#include <string_view>
#include <utility>

namespace norvcrypt {

namespace {

/// Blocks that stand in front of the key that repeats them.
constexpr std::string_view parameters = "PARAMETERS";

constexpr const char* nothingKnown = "no certificate, list, key or CMS structure";

/// The largest file that is read holds fewer certificates of a usual size. Objects of a few octets each would take up some twenty times
/// the file's length, whatever it is read for.
constexpr std::size_t mostObjects = 300000;

/// An element's header, as far as it lies within the bytes.
struct Header {
    int tag = 0;
    std::size_t headerLength = 0;
    std::size_t contentLength = 0; ///< of an indefinite length: all that follows
    bool indefinite = false;
    bool complete = false; ///< the announced content is there
};

std::optional<Header> headerOf(const unsigned char* bytes, std::size_t length) {
    const QuietQuestion quiet;
    const unsigned char* at = bytes;
    long content = 0;
    int tag = 0;
    int tagClass = 0;
    const int flags = ASN1_get_object(&at, &content, &tag, &tagClass, static_cast<long>(length));
    const auto headerLength = static_cast<std::size_t>(at - bytes);
    // 0x80 tells that the header cannot be read or that it announces more than there is.
    if (headerLength == 0 || tagClass != V_ASN1_UNIVERSAL)
        return std::nullopt;
    Header header{.tag = tag, .headerLength = headerLength};
    header.indefinite = (static_cast<unsigned int>(flags) & 1U) != 0;
    header.complete = (static_cast<unsigned int>(flags) & 0x80U) == 0;
    header.contentLength =
        header.indefinite || !header.complete ? length - headerLength : static_cast<std::size_t>(content);
    return header;
}

/// A certificate request (RFC 2986) begins with what no other structure here does: a version, a name, a public key and
/// attributes under [0].
bool isRequest(const Norvane::Buffer& der) {
    const QuietQuestion quiet;
    const unsigned char* at = der.data();
    const unsigned char* const end = at + der.length();
    const auto enter = [&](int tagWanted, int classWanted, bool skip) {
        long content = 0;
        int tag = 0;
        int tagClass = 0;
        const int flags = at == end ? 0x80 : ASN1_get_object(&at, &content, &tag, &tagClass, end - at);
        if ((static_cast<unsigned int>(flags) & 0x81U) != 0 || tag != tagWanted || tagClass != classWanted)
            return false;
        at += skip ? content : 0;
        return true;
    };
    return enter(V_ASN1_SEQUENCE, V_ASN1_UNIVERSAL, false) && enter(V_ASN1_SEQUENCE, V_ASN1_UNIVERSAL, false) &&
           enter(V_ASN1_INTEGER, V_ASN1_UNIVERSAL, true) && enter(V_ASN1_SEQUENCE, V_ASN1_UNIVERSAL, true) &&
           enter(V_ASN1_SEQUENCE, V_ASN1_UNIVERSAL, true) && enter(0, V_ASN1_CONTEXT_SPECIFIC, false);
}

ObjectKind kindOf(const Norvane::Buffer& der) {
    using Norvane::Crypto::EncodedKind;
    switch (Norvane::Crypto::encodedKind(der)) {
    case EncodedKind::certificate:
        return ObjectKind::certificate;
    case EncodedKind::certificateRevocationList:
        return ObjectKind::list;
    case EncodedKind::crossCertificatePair:
        return ObjectKind::crossPair;
    case EncodedKind::contentInfo:
        return ObjectKind::cms;
    case EncodedKind::publicKey:
        return ObjectKind::publicKey;
    case EncodedKind::privateKey:
        return ObjectKind::privateKey;
    case EncodedKind::encryptedPrivateKey:
        return ObjectKind::encryptedKey;
    case EncodedKind::pkcs12:
        return ObjectKind::pkcs12;
    case EncodedKind::unknown:
        break;
    }
    return isRequest(der) ? ObjectKind::request : ObjectKind::unknown;
}

constexpr std::array<std::pair<std::string_view, ObjectKind>, 12> labels{{
    {"CERTIFICATE", ObjectKind::certificate},
    {"X509 CERTIFICATE", ObjectKind::certificate},
    {"TRUSTED CERTIFICATE", ObjectKind::certificate},
    {"X509 CRL", ObjectKind::list},
    {"CMS", ObjectKind::cms},
    {"PKCS7", ObjectKind::cms},
    {"PKCS #7 SIGNED DATA", ObjectKind::cms},
    {"PUBLIC KEY", ObjectKind::publicKey},
    {"RSA PUBLIC KEY", ObjectKind::publicKey},
    {"ENCRYPTED PRIVATE KEY", ObjectKind::encryptedKey},
    {"CERTIFICATE REQUEST", ObjectKind::request},
    {"NEW CERTIFICATE REQUEST", ObjectKind::request},
}};

ObjectKind kindOfLabel(std::string_view label) {
    const auto* const known =
        std::find_if(labels.begin(), labels.end(), [label](const auto& entry) { return entry.first == label; });
    if (known != labels.end())
        return known->second;
    // "RSA PRIVATE KEY", "EC PRIVATE KEY" and other kinds of key, or none.
    return label.ends_with("PRIVATE KEY") ? ObjectKind::privateKey : ObjectKind::unknown;
}

/// RSA PUBLIC KEY holds the bare key of PKCS#1; what follows wants it as every other public key comes.
Norvane::Buffer subjectPublicKeyInfo(const Norvane::Buffer& der) {
    const QuietQuestion quiet;
    const unsigned char* at = der.data();
    const KeyPtr key(d2i_PublicKey(EVP_PKEY_RSA, nullptr, &at, static_cast<long>(der.length())));
    unsigned char* encoded = nullptr;
    const int length = key ? i2d_PUBKEY(key.get(), &encoded) : 0;
    if (length <= 0)
        return der;
    const std::unique_ptr<unsigned char, Freeing<[](unsigned char* memory) { OPENSSL_free(memory); }>> owned(encoded);
    return {encoded, static_cast<unsigned int>(length), false};
}

/// What stands in a block counts, where that can be told, and not how it is labelled: "PKCS7 SIGNED", "CERTIFICATE" for
/// a structure with certificates.
ObjectKind kindOf(const std::string& label, const Norvane::Buffer& der) {
    const ObjectKind kind = kindOfLabel(label);
    const bool mayBeAnother = kind == ObjectKind::unknown || kind == ObjectKind::certificate ||
                              kind == ObjectKind::list || kind == ObjectKind::cms;
    const ObjectKind content = mayBeAnother ? kindOf(der) : ObjectKind::unknown;
    return content == ObjectKind::unknown ? kind : content;
}

FoundObject objectOf(const std::string& label, const std::string& header, const Norvane::Buffer& der) {
    const ObjectKind kind = kindOf(label, der);
    if (label == "OPENSSH PRIVATE KEY")
        return {ObjectKind::unknown, der, "a key of OpenSSH, which ssh-keygen -p -m PKCS8 turns into PEM"};
    if (kind == ObjectKind::unknown)
        return {kind, der, "a PEM block of the unknown kind " + label};
    if (header.find("ENCRYPTED") == std::string::npos)
        return {kind, label == "RSA PUBLIC KEY" ? subjectPublicKeyInfo(der) : der, {}};
    if (kind == ObjectKind::privateKey)
        return {ObjectKind::encryptedKey, der, {}};
    return {ObjectKind::unknown, der, "an encrypted PEM block of the kind " + label};
}

/// What PEM_read_bio hands out, wiped and freed.
struct Block {
    char* label = nullptr;
    char* header = nullptr;
    unsigned char* data = nullptr;
    long length = 0;
    Block() = default;
    Block(const Block&) = delete;
    Block& operator=(const Block&) = delete;
    ~Block() {
        OPENSSL_free(label);
        OPENSSL_free(header);
        OPENSSL_clear_free(data, static_cast<std::size_t>(length));
    }
};

std::vector<FoundObject> objectsInPem(const Norvane::Buffer& content) {
    std::vector<FoundObject> objects;
    const std::string_view text(reinterpret_cast<const char*>(content.data()), content.length());
    const BioPtr bio(BIO_new_mem_buf(content.data(), static_cast<int>(content.length())));
    while (bio && BIO_pending(bio.get()) > 0) {
        const std::size_t left = BIO_ctrl_pending(bio.get());
        Block block;
        if (PEM_read_bio(bio.get(), &block.label, &block.header, &block.data, &block.length) == 1) {
            // Parameters stand in front of the key that repeats them.
            if (std::string_view(block.label).ends_with("PARAMETERS"))
                continue;
            Norvane::Buffer der;
            der.protect();
            der.append(Norvane::Buffer(block.data, static_cast<unsigned int>(block.length), true));
            objects.push_back(objectOf(block.label, block.header, der));
            continue;
        }
        const bool noMore = ERR_GET_REASON(ERR_peek_last_error()) == PEM_R_NO_START_LINE;
        const std::string errors = Norvane::Crypto::getErrString();
        if (noMore)
            break;
        // Looked for in what was read just now alone: the file may hold objects beside it, and many damaged blocks.
        const std::string armour = foreignArmourIn(text.substr(text.size() - left, left - BIO_ctrl_pending(bio.get())));
        objects.push_back({ObjectKind::unknown, {}, armour.empty() ? damagedBlock + inPlainWords(errors) : armour});
    }
    return objects;
}

/// Where the blanks begin that a content ends with; looked for once, however many objects it holds.
std::size_t endWithoutBlanks(const Norvane::Buffer& content) {
    std::size_t end = content.length();
    while (end > 0 && isBlank(content.data()[end - 1]))
        --end;
    return end;
}

std::vector<FoundObject> objectsInDer(const Norvane::Buffer& content) {
    std::vector<FoundObject> objects;
    std::size_t at = 0;
    const std::size_t end = endWithoutBlanks(content);
    // An editor's last line feed is no object.
    while (at < content.length() && (objects.empty() || at < end)) {
        if (objects.size() == mostObjects) {
            objects.push_back({ObjectKind::unknown,
                               {},
                               "more than " + std::to_string(mostObjects) + " objects: the others are not looked at"});
            break;
        }
        const unsigned char* start = content.data() + at;
        const std::size_t left = content.length() - at;
        const auto header = headerOf(start, left);
        const std::size_t length = header ? header->headerLength + header->contentLength : left;
        Norvane::Buffer der;
        der.protect();
        der.append(Norvane::Buffer(start, static_cast<unsigned int>(length), true));
        at += length;
        const ObjectKind kind = kindOf(der);
        // Garbage can look like millions of small objects: what is unknown is told once for a stretch of it.
        if (kind == ObjectKind::unknown && !objects.empty() && objects.back().kind == ObjectKind::unknown)
            continue;
        std::string problem;
        if (kind == ObjectKind::unknown)
            problem = header && !header->complete ? "malformed: it ends before its announced length"
                                                  : "no certificate, list, key or CMS structure, or a malformed one";
        objects.push_back({kind, der, problem});
    }
    return objects;
}

std::string_view octetsOf(const Norvane::Buffer& bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.length()};
}

/// Beside proper PEM, the blocks that OpenSSL passes over (indented or quoted in a mail, say), each once.
std::vector<FoundObject> withPassedOver(std::vector<FoundObject> objects, const Norvane::Buffer& content) {
    std::set<std::string_view> known;
    for (const FoundObject& object : objects)
        known.insert(octetsOf(object.der));
    std::deque<FoundObject> others; // which stay where they are while more of them come
    for (const WrappedObject& wrapped : wrappedIn(content)) {
        if (wrapped.label.empty() || wrapped.label.ends_with(parameters))
            continue;
        FoundObject object = objectOf(wrapped.label, "", wrapped.der);
        if (!known.contains(octetsOf(object.der)))
            known.insert(octetsOf(others.emplace_back(std::move(object)).der));
    }
    objects.insert(objects.end(), others.begin(), others.end());
    return objects;
}

/// What a text holds that is no proper PEM. Nothing when nothing of it is known: what is wrong is told of the text itself.
std::vector<FoundObject> objectsWrapped(const Norvane::Buffer& content) {
    std::vector<FoundObject> objects;
    for (const WrappedObject& wrapped : wrappedIn(content)) {
        const std::vector<FoundObject> found = wrapped.label.empty()
                                                   ? objectsInDer(wrapped.der)
                                                   : std::vector<FoundObject>{objectOf(wrapped.label, "", wrapped.der)};
        objects.insert(objects.end(), found.begin(), found.end());
    }
    const auto isUnknown = [](const FoundObject& object) { return object.kind == ObjectKind::unknown; };
    return std::ranges::all_of(objects, isUnknown) ? std::vector<FoundObject>() : objects;
}

} // namespace

bool beginsStructure(const Norvane::Buffer& start) {
    if (!looksLikeDer(start))
        return false;
    const unsigned char length = start.data()[1];
    const std::size_t inner = 2 + (length > 0x80 ? length & 0x7FU : 0U);
    return inner < start.length() && start.data()[inner] == V_ASN1_OBJECT;
}

bool looksLikeDer(const Norvane::Buffer& content) {
    if (content.empty() || content.at(0) != 0x30)
        return false;
    return headerOf(content.data(), content.length()).has_value();
}

std::vector<FoundObject> objectsIn(const Norvane::Buffer& content) {
    std::vector<FoundObject> objects;
    if (looksLikeDer(content))
        objects = objectsInDer(content);
    // A text may begin with the digit 0, which is the first byte of every DER object.
    const bool isPem =
        Norvane::Crypto::NVX509::isPem(content) && (objects.empty() || objects.front().kind == ObjectKind::unknown);
    if (isPem)
        objects = objectsInPem(content);
    const auto isUnknown = [](const FoundObject& object) { return object.kind == ObjectKind::unknown; };
    if (std::ranges::all_of(objects, isUnknown))
        if (std::vector<FoundObject> wrapped = objectsWrapped(content); !wrapped.empty())
            objects = std::move(wrapped);
    if (!std::ranges::all_of(objects, isUnknown) && isPem && hasImproperPem(content))
        objects = withPassedOver(std::move(objects), content);
    if (objects.empty())
        objects.push_back({ObjectKind::unknown, {}, content.empty() ? "it is empty" : nothingKnown});
    return objects;
}

} // namespace norvcrypt
