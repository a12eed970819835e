#include "CMSStreamWriter/EnvelopeFrame.h"

#include "openssl/AlgorithmIdentifiers.h"
#include "openssl/ContentEncryption.h"

#include <openssl/objects.h>

#include <array>

namespace Norvane::Crypto::CMS {

namespace {

using framing::Encoded;
using framing::Octets;
using framing::TagClass;

constexpr unsigned char s_indefinite = 0x80;
constexpr unsigned char s_sequence = 0x30;
constexpr unsigned char s_constructed0 = 0xA0;

void append(Encoded& out, Octets octets) {
    out.insert(out.end(), octets.begin(), octets.end());
}

void open(Encoded& out, unsigned char tag) {
    out.push_back(tag);
    out.push_back(s_indefinite);
}

/// An element's header, and what it adds to the length of what is inside.
struct Around {
    TagClass tagClass;
    std::uint32_t tag;
    std::uint64_t content;

    [[nodiscard]] std::uint64_t whole() const noexcept { return framing::headerSize(tag, content) + content; }
    void appendTo(Encoded& out) const { framing::appendHeader(out, tagClass, true, tag, content); }
};

} // namespace

Encoded WrittenFrame::start() const {
    return openssl::objectIdentifier(authenticated ? NID_id_smime_ct_authEnvelopedData : NID_pkcs7_enveloped);
}

Encoded WrittenFrame::afterContent(Octets tag) const {
    Encoded out;
    if (!authenticated) {
        return out;
    }
    if (!attributes.empty()) {
        append(out, framing::contextOf(1, {attributes}));
    }
    append(out, framing::octetStringOf(tag));
    return out;
}

Encoded WrittenFrame::head() const {
    Encoded out;
    open(out, s_sequence); // ContentInfo
    append(out, start());
    open(out, s_constructed0);
    open(out, s_sequence); // EnvelopedData
    append(out, framing::integerOf(version));
    append(out, recipients);
    open(out, s_sequence); // EncryptedContentInfo
    append(out, contentType);
    append(out, cipher);
    open(out, s_constructed0);
    return out;
}

Encoded WrittenFrame::head(std::uint64_t contentLength) const {
    const std::array<unsigned char, openssl::ContentEncryption::tagLength> anyTag{};
    const Encoded identifier = start();
    const Encoded number = framing::integerOf(version);
    const std::uint64_t content = framing::headerSize(0, contentLength) + contentLength;
    const Around contentInfo{TagClass::universal, framing::sequence, contentType.size() + cipher.size() + content};
    const Around data{TagClass::universal, framing::sequence,
                      number.size() + recipients.size() + contentInfo.whole() + afterContent(anyTag).size()};
    const Around explicitly{TagClass::contextSpecific, 0, data.whole()};
    const Around all{TagClass::universal, framing::sequence, identifier.size() + explicitly.whole()};

    Encoded out;
    all.appendTo(out);
    append(out, identifier);
    explicitly.appendTo(out);
    data.appendTo(out);
    append(out, number);
    append(out, recipients);
    contentInfo.appendTo(out);
    append(out, contentType);
    append(out, cipher);
    framing::appendHeader(out, TagClass::contextSpecific, false, 0, contentLength);
    return out;
}

Encoded WrittenFrame::tail(bool indefinite, Octets tag) const {
    if (!indefinite) {
        return afterContent(tag);
    }
    constexpr std::size_t ofContent = 2; // the content and what it is in
    constexpr std::size_t ofMessage = 3; // the data, [0], the whole
    Encoded out(2 * ofContent);
    append(out, afterContent(tag));
    out.resize(out.size() + 2 * ofMessage);
    return out;
}

} // namespace Norvane::Crypto::CMS
