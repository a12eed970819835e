#include "Messages.h"

#include "StoredKey.h"

#include "../EnvelopeKey.h"

#include <norvcmsg/Media.h>
#include <norvcrypto/CMSEnvelopeWriter.h>
#include <norvcrypto/CMSSignedWriter.h>

#include <openssl/cms.h>

#include <fstream>
#include <iterator>
#include <stdexcept>

namespace fuzz {

namespace {

namespace der = norvauthority::der;
namespace CMS = Norvane::Crypto::CMS;
namespace NVX509 = Norvane::Crypto::NVX509;
using norvauthority::Identity;
using norvauthority::Key;

struct People {
    Identity authority = norvauthority::issue(
        {.subject = {{"CN", "Authority"}}, .key = storedKey("authority"), .ca = true, .keyUsage = 0x06U});
    Identity bob = of("bob", storedKey("bob"));
    Identity alice = of("alice", storedKey("alice"));
    Identity eve = of("eve", storedKey("eve"));
    Identity dora = of("dora", storedKey("dora"));
    Identity edward = of("edward", Key::ed25519());

private:
    [[nodiscard]] Identity of(const std::string& name, const Key& key) const {
        return norvauthority::issue(
            {.subject = {{"CN", name}},
             .key = key,
             .issuer = &authority,
             .serial = std::to_string(1000 + name.size() * 16 + static_cast<unsigned char>(name[0]))});
    }
};

const People& people() {
    static const People all;
    return all;
}

Bytes body(std::size_t length) {
    Bytes octets(length);
    for (std::size_t i = 0; i < length; ++i) {
        octets[i] = static_cast<unsigned char>(i * 7 + 3);
    }
    return octets;
}

Bytes bytesOf(const Norvane::Buffer& buffer) {
    return {buffer.data(), buffer.data() + buffer.length()};
}

/// Changes a message as a tree.
template <class Change> Bytes changed(const Bytes& message, Change change) {
    auto root = parse(message);
    if (!root) {
        throw std::runtime_error("no structure");
    }
    change(*root);
    return encode(*root);
}

Node nodeOf(const Bytes& octets) {
    return *parse(octets);
}

// Envelopes

Bytes enveloped(const std::vector<CMS::EnvelopeRecipient>& recipients, CMS::ContentCipher cipher,
                CMS::EnvelopeEncoding encoding, const std::string& contentType = "1.2.840.113549.1.7.1") {
    const Bytes content = body(200);
    CMS::EnvelopeOptions options;
    options.cipher = cipher;
    options.encoding = encoding;
    options.bodyLength = content.size();
    options.contentType = contentType;
    Norvane::MemoryMediaOut target;
    CMS::EnvelopeWriter writer(recipients, options);
    writer.attach(target);
    writer.write(content.data(), static_cast<unsigned int>(content.size()));
    writer.end();
    return bytesOf(target.content());
}

Node attributeNode() {
    return nodeOf(der::sequence({der::oid("1.2.840.113549.1.9.15"), der::set({der::sequence({})})}));
}

/// The content in octet strings of 50 octets.
void segment(Node& root) {
    Node& encrypted = root.parts[1].parts[0].parts[2];
    Node& content = encrypted.parts[2];
    const Bytes all = content.parts.empty() ? content.content : content.parts[0].content;
    content.parts.clear();
    content.content.clear();
    content.setConstructed(true);
    for (std::size_t at = 0; at < all.size(); at += 50) {
        content.parts.push_back(
            nodeOf(der::octetString(Bytes(all.begin() + static_cast<std::ptrdiff_t>(at),
                                          all.begin() + static_cast<std::ptrdiff_t>(std::min(at + 50, all.size()))))));
    }
}

void addOriginator(Node& root) {
    auto& parts = root.parts[1].parts[0].parts;
    const Bytes certificates = der::element(der::contextConstructed(0), people().alice.certificate.der);
    parts.insert(parts.begin() + 1, nodeOf(der::element(der::contextConstructed(0), certificates)));
}

void addUnprotected(Node& root, unsigned int tag) {
    Node attributes = nodeOf(der::element(der::contextConstructed(tag), {}));
    attributes.parts.push_back(attributeNode());
    root.parts[1].parts[0].parts.push_back(attributes);
}

std::vector<Seed> makeEnvelopes() {
    using CMS::ContentCipher;
    using CMS::EnvelopeEncoding;
    using CMS::EnvelopeRecipient;
    const auto rsa = pairOf(people().bob)->certificate;
    const auto agreeing = pairOf(people().eve)->certificate;
    const auto byKey = CMS::NamedBy::subjectKeyIdentifier;
    const std::vector<std::pair<std::string, EnvelopeRecipient>> kinds{
        {"rsa", EnvelopeRecipient::rsaPkcs1(rsa)},
        {"rsa-identifier", EnvelopeRecipient::rsaPkcs1(rsa, byKey)},
        {"oaep", EnvelopeRecipient::rsaOaep(rsa)},
        {"agreement", EnvelopeRecipient::keyAgreement(agreeing)},
        {"agreement-identifier", EnvelopeRecipient::keyAgreement(agreeing, CMS::KeyAgreementParameters(), byKey)},
        {"kek",
         EnvelopeRecipient::keyEncryptionKey(bufferOf(keyEncryptionKey()), bufferOf(keyEncryptionKeyIdentifier()))},
        {"password", EnvelopeRecipient::password(bufferOf(Bytes(messagePassword().begin(), messagePassword().end())),
                                                 {.iterations = 1000})},
    };
    std::vector<Seed> seeds;
    std::vector<EnvelopeRecipient> everybody;
    for (const auto& [name, recipient] : kinds) {
        everybody.push_back(recipient);
        seeds.emplace_back(name + "-ber", enveloped({recipient}, ContentCipher::aes128Cbc, EnvelopeEncoding::ber));
        seeds.emplace_back(name + "-der", enveloped({recipient}, ContentCipher::aes256Cbc, EnvelopeEncoding::der));
        seeds.emplace_back(name + "-gcm", enveloped({recipient}, ContentCipher::aes256Gcm, EnvelopeEncoding::der));
    }
    const Bytes all = enveloped(everybody, ContentCipher::tripleDesCbc, EnvelopeEncoding::der);
    const Bytes allGcm = enveloped(everybody, ContentCipher::aes128Gcm, EnvelopeEncoding::ber);
    const Bytes small = seeds[1].second;
    const Bytes smallGcm = seeds[2].second;
    seeds.emplace_back("everybody", all);
    seeds.emplace_back("everybody-gcm", allGcm);
    seeds.emplace_back("attributes-gcm",
                       enveloped({kinds[0].second}, ContentCipher::aes192Gcm, EnvelopeEncoding::der, "1.2.3.4"));
    seeds.emplace_back("segments", changed(small, segment));
    seeds.emplace_back("segments-gcm", changed(smallGcm, segment));
    seeds.emplace_back("originator", changed(small, addOriginator));
    seeds.emplace_back("unprotected", changed(small, [](Node& root) { addUnprotected(root, 1); }));
    seeds.emplace_back("both", changed(seeds[0].second, [](Node& root) {
                           addOriginator(root);
                           addUnprotected(root, 1);
                       }));
    return seeds;
}

// Signed messages

struct Bio {
    explicit Bio(BIO* made) : bio(made) {}
    Bio(const Bio&) = delete;
    Bio& operator=(const Bio&) = delete;
    ~Bio() { BIO_free(bio); }
    BIO* bio;
};

Bytes signedBy(const std::vector<std::pair<const Identity*, const char*>>& signers, unsigned int flags,
               const norvauthority::Crl* list = nullptr, const Identity* another = nullptr) {
    flags |= CMS_BINARY;
    const Bio content(BIO_new_mem_buf(detachedBody().data(), static_cast<int>(detachedBody().size())));
    CMS_ContentInfo* structure = CMS_sign(nullptr, nullptr, nullptr, nullptr, flags | CMS_PARTIAL);
    for (const auto& [identity, digest] : signers) {
        CMS_add1_signer(structure, identity->certificate.x509().get(), identity->key.get(),
                        EVP_get_digestbyname(digest), flags);
    }
    if (list != nullptr) {
        CMS_add1_crl(structure, list->crl().get());
    }
    if (another != nullptr) {
        CMS_add1_cert(structure, another->certificate.x509().get());
    }
    const Bio out(BIO_new(BIO_s_mem()));
    if ((flags & CMS_STREAM) != 0) {
        i2d_CMS_bio_stream(out.bio, structure, content.bio, static_cast<int>(flags));
    } else {
        CMS_final(structure, content.bio, nullptr, flags);
        i2d_CMS_bio(out.bio, structure);
    }
    CMS_ContentInfo_free(structure);
    char* data = nullptr;
    const long length = BIO_get_mem_data(out.bio, &data);
    return {data, data + length};
}

Bytes writtenBy(const Identity& identity, CMS::SignedWriter::RsaScheme scheme, CMS::SignedWriter::Encoding encoding) {
    CMS::SignedWriter::Signer signer(pairOf(identity));
    signer.rsaScheme = scheme;
    CMS::SignedWriter::Options options;
    options.signers = {signer};
    options.encoding = encoding;
    options.length = detachedBody().size();
    Norvane::MemoryMediaOut target;
    CMS::SignedWriter writer(options);
    writer.attach(target);
    writer.write(detachedBody().data(), static_cast<unsigned int>(detachedBody().size()));
    writer.end();
    return bytesOf(target.content());
}

/// A copy of the signer as a signature of its signature, which is as wrong as it is well-formed.
void countersign(Node& root) {
    Node& signer = root.parts[1].parts[0].parts.back().parts[0];
    Node attribute = nodeOf(der::sequence({der::oid("1.2.840.113549.1.9.6"), der::set({})}));
    attribute.parts[1].parts.push_back(signer);
    Node attributes = nodeOf(der::element(der::contextConstructed(1), {}));
    attributes.parts = {attribute, attributeNode()};
    signer.parts.push_back(attributes);
}

std::vector<Seed> makeSigned() {
    using Scheme = CMS::SignedWriter::RsaScheme;
    using Encoding = CMS::SignedWriter::Encoding;
    const People& all = people();
    const norvauthority::Crl list = norvauthority::issueList({.issuer = &all.authority, .revoked = {{.serial = "7"}}});
    std::vector<Seed> seeds{
        {"attached", signedBy({{&all.alice, "SHA256"}}, 0)},
        {"detached", signedBy({{&all.alice, "SHA256"}}, CMS_DETACHED)},
        {"plain", signedBy({{&all.alice, "SHA256"}}, CMS_NOATTR)},
        {"plain-detached", signedBy({{&all.eve, "SHA256"}}, CMS_NOATTR | CMS_DETACHED)},
        {"stream", signedBy({{&all.alice, "SHA1"}}, CMS_STREAM)},
        {"stream-detached", signedBy({{&all.eve, "SHA512"}}, CMS_STREAM | CMS_DETACHED)},
        {"curve", signedBy({{&all.eve, "SHA384"}}, 0)},
        {"dsa", signedBy({{&all.dora, "SHA256"}}, CMS_STREAM)},
        {"two", signedBy({{&all.alice, "SHA256"}, {&all.eve, "SHA512"}}, 0)},
        {"identifier", signedBy({{&all.eve, "SHA256"}}, CMS_USE_KEYID | CMS_STREAM)},
        {"lists", signedBy({{&all.eve, "SHA256"}}, CMS_STREAM, &list, &all.authority)},
        {"nobody", signedBy({}, 0, &list, &all.authority)},
        {"pss", writtenBy(all.alice, Scheme::pss, Encoding::ber)},
        {"pss-der", writtenBy(all.alice, Scheme::pss, Encoding::der)},
        {"written", writtenBy(all.eve, Scheme::pkcs1, Encoding::der)},
        {"ed25519", writtenBy(all.edward, Scheme::pkcs1, Encoding::ber)},
    };
    seeds.emplace_back("countersigned", changed(seeds[0].second, countersign));
    seeds.emplace_back("countersigned-stream", changed(seeds[4].second, countersign));
    return seeds;
}

} // namespace

const std::vector<Seed>& envelopeSeeds() {
    static const std::vector<Seed> seeds = makeEnvelopes();
    return seeds;
}

const std::vector<Seed>& signedSeeds() {
    static const std::vector<Seed> seeds = makeSigned();
    return seeds;
}

std::vector<Bytes> octetsOf(const std::vector<Seed>& seeds) {
    std::vector<Bytes> all;
    for (const Seed& seed : seeds) {
        all.push_back(seed.second);
    }
    return all;
}

const Bytes& detachedBody() {
    static const Bytes octets = body(120);
    return octets;
}

const Identity& rsaRecipient() {
    return people().bob;
}

const Identity& agreementRecipient() {
    return people().eve;
}

const Bytes& keyEncryptionKey() {
    static const Bytes key = body(16);
    return key;
}

const Bytes& keyEncryptionKeyIdentifier() {
    static const Bytes identifier{'k', 'e', 'k'};
    return identifier;
}

const std::string& messagePassword() {
    static const std::string password = "password";
    return password;
}

Norvane::Buffer bufferOf(const Bytes& octets) {
    return {octets.data(), static_cast<unsigned int>(octets.size()), false};
}

NVX509::KeyCertificatePair pairOf(const Identity& identity) {
    return {Norvane::Crypto::RefKey(new Norvane::Crypto::PrivateKey(identity.key.newReference())),
            NVX509::CertificateFactory().readDER(bufferOf(identity.certificate.der))};
}

} // namespace fuzz
