#pragma once

/// \file
/// What the tests of the envelope writer share: recipients of all kinds, and opening what was written with OpenSSL's own
/// calls.

#include "support/Cms.h"

#include <norvcrypto/CMSEnvelopeWriter.h>

#include <openssl/cms.h>

#include <map>
#include <optional>

namespace cmstest {

namespace der = norvauthority::der;

/// A key for key agreement: "P-256", "P-384", "P-521" or "X25519".
inline norvauthority::Key agreementKey(const std::string& curve) {
    if (curve != "X25519") {
        return norvauthority::Key::ec(curve);
    }
    EVP_PKEY* made = EVP_PKEY_Q_keygen(nullptr, nullptr, "X25519");
    norvauthority::Key key = norvauthority::Key::of(made);
    EVP_PKEY_free(made);
    return key;
}

/// Somebody with such a key, made once in a process.
inline const Identity& onCurve(const std::string& curve) {
    static std::map<std::string, Identity> made;
    auto found = made.find(curve);
    if (found == made.end()) {
        found = made.emplace(curve, norvauthority::issue({.subject = {{"CN", curve}, {"O", "Mail"}},
                                                          .key = agreementKey(curve),
                                                          .issuer = &identities().authority,
                                                          .serial = "ec" + std::to_string(made.size() + 1),
                                                          .keyUsage = 0x08}))
                    .first;
    }
    return found->second;
}
inline const Identity& withRsa(unsigned int bits) {
    static std::map<unsigned int, Identity> made;
    auto found = made.find(bits);
    if (found == made.end()) {
        found = made.emplace(bits, norvauthority::issue({.subject = {{"CN", "short"}},
                                                         .key = norvauthority::Key::rsa(bits),
                                                         .issuer = &identities().authority,
                                                         .serial = std::to_string(bits)}))
                    .first;
    }
    return found->second;
}

inline const Bytes& kekOf(std::size_t length) {
    static const std::map<std::size_t, Bytes> keys{{16, bodyOf(16)}, {24, bodyOf(24)}, {32, bodyOf(32)}};
    return keys.at(length);
}
inline const std::string password = "correct horse battery staple";
inline const std::string kekIdentifier = "kek 1";

/// A recipient, and what OpenSSL opens the message with.
struct Addressee {
    std::string name;
    CMS::EnvelopeRecipient recipient;
    const Identity* identity = nullptr;
    Bytes kek{};
    bool hasPassword = false;
};

inline std::vector<Addressee> addressees() {
    using CMS::EnvelopeRecipient;
    using CMS::NamedBy;
    using Crypto::Hasher;
    const auto byKey = NamedBy::subjectKeyIdentifier;
    std::vector<Addressee> all;
    const Identity& alice = identities().rsa;
    const auto certificate = certificateOf(alice);
    all.push_back({"rsa", EnvelopeRecipient(certificate), &alice});
    all.push_back({"rsaByKeyIdentifier", EnvelopeRecipient(certificate, byKey), &alice});
    all.push_back({"oaep", EnvelopeRecipient::rsaOaep(certificate), &alice});
    all.push_back({"oaepSha1", EnvelopeRecipient::rsaOaep(certificate, {Hasher::SHA1}), &alice});
    all.push_back(
        {"oaepSha512MaskSha1Label",
         EnvelopeRecipient::rsaOaep(certificate, {Hasher::SHA512, Hasher::SHA1, bufferOf(bytesOf("label"))}, byKey),
         &alice});
    for (const char* curve : {"P-256", "P-384", "P-521"}) {
        all.push_back({curve, EnvelopeRecipient(certificateOf(onCurve(curve))), &onCurve(curve)});
    }
    const Identity& p256 = onCurve("P-256");
    all.push_back({"P-256ByKeyIdentifier", EnvelopeRecipient(certificateOf(p256), byKey), &p256});
    all.push_back(
        {"P-256CofactorSha1", EnvelopeRecipient::keyAgreement(certificateOf(p256), {Hasher::SHA1, true}), &p256});
    all.push_back({"P-521Sha256ByKeyIdentifier",
                   EnvelopeRecipient::keyAgreement(certificateOf(onCurve("P-521")), {Hasher::SHA256, false}, byKey),
                   &onCurve("P-521")});
    for (const std::size_t length : {16U, 24U, 32U}) {
        all.push_back({"kek" + std::to_string(length),
                       EnvelopeRecipient::keyEncryptionKey(bufferOf(kekOf(length)), bufferOf(bytesOf(kekIdentifier))),
                       nullptr, kekOf(length)});
    }
    all.push_back({"password", EnvelopeRecipient::password(bufferOf(bytesOf(password)), {1000}), nullptr, {}, true});
    all.push_back({"passwordSha1",
                   EnvelopeRecipient::password(bufferOf(bytesOf(password)), {2048, Hasher::SHA1}),
                   nullptr,
                   {},
                   true});
    all.push_back({"passwordSha512",
                   EnvelopeRecipient::password(bufferOf(bytesOf(password)), {1001, Hasher::SHA512}),
                   nullptr,
                   {},
                   true});
    return all;
}

inline std::vector<CMS::EnvelopeRecipient> recipientsOf(const std::vector<Addressee>& people) {
    std::vector<CMS::EnvelopeRecipient> recipients;
    recipients.reserve(people.size());
    for (const Addressee& person : people) {
        recipients.push_back(person.recipient);
    }
    return recipients;
}

/// How a message is written: encoding, announced length, size of the pieces (0: at once).
struct Manner {
    CMS::EnvelopeEncoding encoding = CMS::EnvelopeEncoding::ber;
    bool announced = false;
    std::size_t piece = 0;
};

inline Bytes written(const std::vector<CMS::EnvelopeRecipient>& recipients, CMS::EnvelopeOptions options,
                     const Bytes& body, std::size_t piece = 0) {
    options.temporaryFile = "/tmp/swapXXXXXX";
    Norvane::MemoryMediaOut target;
    CMS::EnvelopeWriter writer(recipients, options);
    writer.attach(target);
    writeInPieces(writer, body, piece);
    EXPECT_FALSE(target.ended());
    writer.end();
    EXPECT_TRUE(target.ended());
    return bytesOf(target.content());
}

inline Bytes written(const std::vector<CMS::EnvelopeRecipient>& recipients, CMS::ContentCipher cipher,
                     const Manner& manner, const Bytes& body) {
    CMS::EnvelopeOptions options;
    options.cipher = cipher;
    options.encoding = manner.encoding;
    if (manner.announced) {
        options.bodyLength = body.size();
    }
    return written(recipients, options, body, manner.piece);
}

inline CmsStructure decodedCms(const Bytes& structure) {
    const unsigned char* at = structure.data();
    CmsStructure decoded(d2i_CMS_ContentInfo(nullptr, &at, static_cast<long>(structure.size())));
    if (decoded != nullptr && at != structure.data() + structure.size()) {
        ADD_FAILURE() << "something follows the structure";
    }
    return decoded;
}

/// The body by OpenSSL's calls, those of `openssl cms -decrypt`; nothing when it refuses.
inline std::optional<Bytes> opened(const Bytes& structure, const Addressee& by) {
    const CmsStructure decoded = decodedCms(structure);
    if (decoded == nullptr) {
        ADD_FAILURE() << "OpenSSL does not decode it";
        ERR_print_errors_fp(stderr);
        return std::nullopt;
    }
    norvauthority::X509Ptr certificate;
    EVP_PKEY* key = nullptr;
    int prepared = 1;
    if (by.identity != nullptr) {
        certificate = by.identity->certificate.x509();
        key = by.identity->key.get();
    } else if (by.hasPassword) {
        Bytes copy = bytesOf(password);
        prepared = CMS_decrypt_set1_password(decoded.get(), copy.data(), static_cast<ossl_ssize_t>(copy.size()));
    } else {
        Bytes secret = by.kek;
        Bytes identifier = bytesOf(kekIdentifier);
        prepared =
            CMS_decrypt_set1_key(decoded.get(), secret.data(), secret.size(), identifier.data(), identifier.size());
    }
    const Bio out(BIO_new(BIO_s_mem()));
    if (prepared != 1 || CMS_decrypt(decoded.get(), key, certificate.get(), nullptr, out.get(), CMS_BINARY) != 1) {
        ERR_print_errors_fp(stderr);
        return std::nullopt;
    }
    return contentOf(out.get());
}

/// One element of an encoding whose lengths are definite or not.
struct Node {
    unsigned char tag = 0;
    Bytes whole{};
    Bytes content{}; ///< of a primitive element
    std::vector<Node> parts{};

    [[nodiscard]] const Node& at(std::size_t index) const { return parts.at(index); }
    [[nodiscard]] std::string hex() const { return norvauthority::toHex(content); }
};

/// Takes an encoding apart by hand. \param at moves behind the element
inline Node nodeAt(const Bytes& octets, std::size_t& at) {
    const std::size_t start = at;
    Node node{octets.at(at++)};
    std::size_t length = octets.at(at++);
    const bool indefinite = length == 0x80;
    if (length > 0x80) {
        std::size_t count = length & 0x7FU;
        for (length = 0; count != 0; --count) {
            length = length << 8U | octets.at(at++);
        }
    }
    const std::size_t end = indefinite ? octets.size() : at + length;
    if ((node.tag & 0x20U) == 0) {
        node.content.assign(octets.begin() + static_cast<std::ptrdiff_t>(at),
                            octets.begin() + static_cast<std::ptrdiff_t>(end));
        at = end;
    } else {
        while (indefinite ? octets.at(at) != 0 || octets.at(at + 1) != 0 : at < end) {
            node.parts.push_back(nodeAt(octets, at));
        }
        at += indefinite ? 2 : 0;
    }
    node.whole.assign(octets.begin() + static_cast<std::ptrdiff_t>(start),
                      octets.begin() + static_cast<std::ptrdiff_t>(at));
    return node;
}
inline Node nodeOf(const Bytes& octets) {
    std::size_t at = 0;
    Node node = nodeAt(octets, at);
    EXPECT_EQ(at, octets.size());
    return node;
}
/// The octets of a string in segments, or of one without.
inline Bytes joined(const Node& string) {
    Bytes all = string.content;
    for (const Node& segment : string.parts) {
        EXPECT_EQ(segment.tag, 0x04);
        all.insert(all.end(), segment.content.begin(), segment.content.end());
    }
    return all;
}

} // namespace cmstest
