#pragma once

/// \file
/// Signed messages for the tests of their reader: made by OpenSSL, or by hand where it makes none such.

#include "support/HandMadeSigners.h"

#include <norvcrypto/CMSSignedReader.h>

#include <openssl/ess.h>
#include <openssl/rsa.h>

#include <functional>

namespace cmstest {

namespace der = norvauthority::der;

/// A source of which every byte behind `structure` is another's: asking for one fails the test.
class StrictInImpl : public Norvane::MediaInImpl {
public:
    StrictInImpl(Bytes structure, std::size_t piece) : m_content(std::move(structure)), m_piece(piece) {}
    using MediaInImpl::read;
    bool atEnd() const override { return m_position == m_content.size(); }
    int peek() const override { return atEnd() ? -1 : m_content[m_position]; }
    int read(unsigned char* out, unsigned int length) override {
        if (length > m_content.size() - m_position) {
            ++overreads;
        }
        const std::size_t count = std::min({static_cast<std::size_t>(length), m_piece, m_content.size() - m_position});
        std::copy_n(m_content.data() + m_position, count, out);
        m_position += count;
        return static_cast<int>(count);
    }

    unsigned int overreads = 0;

private:
    Bytes m_content;
    std::size_t m_piece;
    std::size_t m_position = 0;
};

class StrictIn : public Norvane::MediaIn {
public:
    explicit StrictIn(Bytes structure, std::size_t piece = 1000)
        : MediaIn(Norvane::makeReference<StrictInImpl, Norvane::MediaInImpl>(std::move(structure), piece)) {}
    [[nodiscard]] unsigned int overreads() const { return dynamic_cast<StrictInImpl&>(**this).overreads; }
};

/// A message as OpenSSL makes it, with what `prepare` does to its signer before it signs.
using Prepare = std::function<void(CMS_SignerInfo*)>;
inline Bytes signedMessage(const std::vector<const Identity*>& identities, const std::vector<const char*>& digests,
                           const Bytes& body, unsigned int flags, const Prepare& prepare = nullptr,
                           const char* contentType = nullptr) {
    flags |= CMS_BINARY;
    const Bio content(
        BIO_new_mem_buf(body.empty() ? "" : static_cast<const void*>(body.data()), static_cast<int>(body.size())));
    const CmsStructure structure(CMS_sign(nullptr, nullptr, nullptr, nullptr, flags | CMS_PARTIAL));
    if (contentType != nullptr) {
        const std::unique_ptr<ASN1_OBJECT, decltype(&ASN1_OBJECT_free)> type(OBJ_txt2obj(contentType, 1),
                                                                             ASN1_OBJECT_free);
        EXPECT_EQ(CMS_set1_eContentType(structure.get(), type.get()), 1);
    }
    for (std::size_t i = 0; i != identities.size(); ++i) {
        CMS_SignerInfo* signer =
            CMS_add1_signer(structure.get(), identities[i]->certificate.x509().get(), identities[i]->key.get(),
                            EVP_get_digestbyname(digests[i % digests.size()]), flags | (prepare ? CMS_KEY_PARAM : 0U));
        EXPECT_NE(signer, nullptr);
        if (prepare && signer != nullptr) {
            prepare(signer);
        }
    }
    const Bio out(BIO_new(BIO_s_mem()));
    if ((flags & CMS_STREAM) != 0) {
        EXPECT_EQ(i2d_CMS_bio_stream(out.get(), structure.get(), content.get(), static_cast<int>(flags)), 1);
    } else {
        EXPECT_EQ(CMS_final(structure.get(), content.get(), nullptr, flags), 1);
        EXPECT_EQ(i2d_CMS_bio(out.get(), structure.get()), 1);
    }
    ERR_clear_error();
    return contentOf(out.get());
}

/// Parts of a message that is put together by hand.
struct HandMade {
    std::vector<Bytes> digestAlgorithms{};
    Bytes contentType = der::oid("1.2.840.113549.1.7.1");
    std::optional<Bytes> content{}; ///< what stands in the [0]
    std::vector<Bytes> certificates{};
    std::vector<Bytes> lists{};
    std::vector<Bytes> signers{};

    [[nodiscard]] Bytes made() const {
        std::vector<Bytes> encapsulated{contentType};
        if (content) {
            encapsulated.push_back(der::element(der::contextConstructed(0), *content));
        }
        std::vector<Bytes> parts{der::integer("1"), der::set(digestAlgorithms), der::sequence(encapsulated)};
        if (!certificates.empty()) {
            parts.push_back(der::element(der::contextConstructed(0), der::concat(certificates)));
        }
        if (!lists.empty()) {
            parts.push_back(der::element(der::contextConstructed(1), der::concat(lists)));
        }
        parts.push_back(der::set(signers));
        return der::sequence(
            {der::oid("1.2.840.113549.1.7.2"), der::element(der::contextConstructed(0), der::sequence(parts))});
    }
};

inline Bytes algorithm(const std::string& name, bool withNull = false) {
    return withNull ? der::sequence({der::oid(name), der::null()}) : der::sequence({der::oid(name)});
}

inline Bytes attribute(const std::string& type, const std::vector<Bytes>& values) {
    return der::sequence({der::oid(type), der::set(values)});
}
inline const char* const contentTypeAttribute = "1.2.840.113549.1.9.3";
inline const char* const messageDigestAttribute = "1.2.840.113549.1.9.4";
inline const char* const signingTimeAttribute = "1.2.840.113549.1.9.5";
inline const char* const countersignatureAttribute = "1.2.840.113549.1.9.6";

/// What a key says about octets, by OpenSSL's one-shot call.
inline Bytes signatureBy(const norvauthority::Key& key, const Bytes& octets, const EVP_MD* digest) {
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    EXPECT_EQ(EVP_DigestSignInit(context.get(), nullptr, digest, nullptr, key.get()), 1);
    std::size_t length = 0;
    EXPECT_EQ(EVP_DigestSign(context.get(), nullptr, &length, octets.data(), octets.size()), 1);
    Bytes signature(length);
    EXPECT_EQ(EVP_DigestSign(context.get(), signature.data(), &length, octets.data(), octets.size()), 1);
    signature.resize(length);
    return signature;
}

/// A SignerInfo that is put together by hand; the signature is over what stands in it.
struct HandMadeSigner {
    const Identity* identity = &identities().rsa;
    Bytes digestAlgorithm = algorithm("SHA256", true);
    Bytes signatureAlgorithm = algorithm("rsaEncryption", true);
    const EVP_MD* digest = EVP_sha256(); ///< of the signature; null for Edwards curves
    std::optional<std::vector<Bytes>> attributes{};
    std::optional<Bytes> sentAttributes{}; ///< replaces the elements that are sent
    std::vector<Bytes> unsignedAttributes{};
    bool byKeyIdentifier = false;
    std::optional<Bytes> name{};

    [[nodiscard]] Bytes made(const Bytes& body) const {
        const Bytes defaultName =
            byKeyIdentifier ? der::element(der::context(0), identity->keyIdentifier)
                            : der::sequence({identities().authority.name.der(), der::integer(identity->serial)});
        std::vector<Bytes> parts{der::integer("1"), name.value_or(defaultName), digestAlgorithm};
        if (attributes) {
            parts.push_back(
                der::element(der::contextConstructed(0), sentAttributes.value_or(der::concat(*attributes))));
        }
        parts.push_back(signatureAlgorithm);
        parts.push_back(
            der::octetString(signatureBy(identity->key, attributes ? der::set(*attributes) : body, digest)));
        if (!unsignedAttributes.empty()) {
            parts.push_back(der::element(der::contextConstructed(1), der::concat(unsignedAttributes)));
        }
        return der::sequence(parts);
    }
};

/// The two attributes that every signer has, in DER's order.
inline std::vector<Bytes> usualAttributes(const Bytes& body, const EVP_MD* digest = EVP_sha256(),
                                          const std::string& contentType = "1.2.840.113549.1.7.1") {
    return {attribute(contentTypeAttribute, {der::oid(contentType)}),
            attribute(messageDigestAttribute, {der::octetString(digestOf(body, digest))})};
}

/// A message with one signer and its certificate; attached.
inline Bytes attachedBy(const HandMadeSigner& signer, const Bytes& body) {
    HandMade message;
    message.digestAlgorithms = {signer.digestAlgorithm};
    message.content = der::octetString(body);
    message.certificates = {signer.identity->certificate.der};
    message.signers = {signer.made(body)};
    return message.made();
}

/// A message that was read to its end.
struct Read {
    explicit Read(const Bytes& structure) : in(structure), message(in) {
        Norvane::NullMediaOut out;
        message.write(out);
    }
    [[nodiscard]] CMS::SignedReader::Signer signer() const { return message.signers().front(); }
    [[nodiscard]] CMS::SignatureResult verdict() const { return message.verdict(signer()); }
    StrictIn in;
    CMS::SignedReader message;
};

} // namespace cmstest
