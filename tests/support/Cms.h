#pragma once

/// \file
/// What the tests of CMS structures share: identities, streams that misbehave, recorded logs, signatures made by
/// OpenSSL without this library.

#include "support/Keys.h"
#include "support/Started.h"
#include "support/X509Testing.h"

#include <authority/Authority.h>
#include <norvcmsg/Exception.h>
#include <norvcmsg/Media.h>
#include <norvcrypto/CMSSignerMedia.h>
#include <norvcrypto/Crypto.h>

#include <openssl/cms.h>
#include <openssl/err.h>
#include <openssl/pkcs7.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace cmstest {

using Norvane::Buffer;
using norvauthority::Bytes;
using norvauthority::Identity;
using norvtest::RecordedLog;
namespace Crypto = Norvane::Crypto;
namespace CMS = Norvane::Crypto::CMS;
namespace NVX509 = Norvane::Crypto::NVX509;

struct Freeing {
    void operator()(BIO* bio) const { BIO_free_all(bio); }
    void operator()(PKCS7* structure) const { PKCS7_free(structure); }
    void operator()(CMS_ContentInfo* structure) const { CMS_ContentInfo_free(structure); }
    void operator()(X509* certificate) const { X509_free(certificate); }
    void operator()(STACK_OF(X509) * stack) const { sk_X509_free(stack); }
};
using Bio = std::unique_ptr<BIO, Freeing>;
using Pkcs7 = std::unique_ptr<PKCS7, Freeing>;
using CmsStructure = std::unique_ptr<CMS_ContentInfo, Freeing>;
using X509Stack = std::unique_ptr<STACK_OF(X509), Freeing>;

/// What a failure said.
struct Caught {
    std::string where;
    int code = 0;
    std::string file;
    unsigned int line = 0;
    std::vector<std::string> details;
};

/// Runs `work`, which must throw an Exception, and answers it.
template <class Work> Caught caught(Work work) {
    try {
        work();
    } catch (const Norvane::Exception& failure) {
        Caught answer{failure.where(), failure.code(), failure.fileName(), failure.lineNumber(), {}};
        for (const auto& parameter : failure.parameters()) {
            if (const auto* text = std::get_if<std::string>(&parameter)) {
                answer.details.push_back(*text);
            }
        }
        return answer;
    }
    ADD_FAILURE() << "nothing was thrown";
    return {};
}

/// A source that delivers at most `piece` bytes a call, and throws once `failAt` bytes were delivered.
class PiecewiseInImpl : public Norvane::MediaInImpl {
public:
    static constexpr std::size_t never = static_cast<std::size_t>(-1);

    PiecewiseInImpl(Bytes content, std::size_t piece, std::size_t failAt = never)
        : m_content(std::move(content)),
          m_piece(piece),
          m_failAt(failAt) {}
    using MediaInImpl::read;
    bool atEnd() const override { return m_position == m_content.size(); }
    int peek() const override { return atEnd() ? -1 : m_content[m_position]; }
    int read(unsigned char* out, unsigned int length) override {
        ++m_reads;
        if (m_position >= m_failAt) {
            throw std::runtime_error("the line went dead");
        }
        const std::size_t end = std::min(m_content.size(), m_failAt);
        const std::size_t count = std::min({static_cast<std::size_t>(length), m_piece, end - m_position});
        if (count != 0) {
            std::memcpy(out, m_content.data() + m_position, count);
        }
        m_position += count;
        return static_cast<int>(count);
    }
    [[nodiscard]] unsigned int reads() const { return m_reads; }
    [[nodiscard]] std::size_t position() const { return m_position; }

private:
    Bytes m_content;
    std::size_t m_piece;
    std::size_t m_failAt;
    std::size_t m_position = 0;
    unsigned int m_reads = 0;
};

class PiecewiseIn : public Norvane::MediaIn {
public:
    explicit PiecewiseIn(Bytes content, std::size_t piece = 4096, std::size_t failAt = PiecewiseInImpl::never)
        : MediaIn(Norvane::makeReference<PiecewiseInImpl, Norvane::MediaInImpl>(std::move(content), piece, failAt)) {}
    [[nodiscard]] const PiecewiseInImpl& body() const { return dynamic_cast<const PiecewiseInImpl&>(**this); }
};

/// A target that throws: when it is written to, or when it is ended.
class FailingOutImpl : public Norvane::MediaOutImpl {
public:
    explicit FailingOutImpl(bool failOnEnd) : m_failOnEnd(failOnEnd) {}
    using MediaOutImpl::write;
    void write(const unsigned char* /*data*/, unsigned int /*length*/) override {
        if (!m_failOnEnd) {
            throw std::runtime_error("the disk is full");
        }
    }
    void end() override {
        if (m_failOnEnd) {
            throw std::runtime_error("the close failed");
        }
    }

private:
    bool m_failOnEnd;
};

class FailingOut : public Norvane::MediaOut {
public:
    explicit FailingOut(bool failOnEnd)
        : MediaOut(Norvane::makeReference<FailingOutImpl, Norvane::MediaOutImpl>(failOnEnd)) {}
};

inline Bytes bytesOf(const Buffer& buffer) {
    return {buffer.data(), buffer.data() + buffer.length()};
}
inline Buffer bufferOf(const Bytes& content) {
    return Buffer(content.data(), static_cast<unsigned int>(content.size()), false);
}
inline Bytes bytesOf(const std::string& text) {
    return {text.begin(), text.end()};
}

/// A body of `length` bytes in which no piece repeats.
inline Bytes bodyOf(std::size_t length) {
    Bytes body(length);
    std::uint32_t state = 0x9E3779B9U;
    for (unsigned char& byte : body) {
        state = state * 1664525U + 1013904223U;
        byte = static_cast<unsigned char>(state >> 24U);
    }
    return body;
}

/// A key of tests/data/keys.
inline norvauthority::Key storedKey(const std::string& name) {
    return norvauthority::Key::fromPem(norvtest::storedKeyPem(name));
}

/// Identities under one authority, issued once in a process. Their keys are of the algorithm that their name tells.
struct Identities {
    Identity authority;
    Identity rsa;
    Identity otherRsa;
    Identity dsa;
    Identity ec;
};
inline const Identities& identities() {
    using namespace norvauthority;
    static const Identities all = [] {
        Identities made;
        made.authority = issue({.subject = {{"CN", "Test Authority"}, {"O", "Mail"}},
                                .key = storedKey("authority"),
                                .ca = true,
                                .keyUsage = 0x06});
        const auto person = [&](const char* name, const char* serial, unsigned int keyUsage) {
            return issue({.subject = {{"CN", name}, {"O", "Mail"}},
                          .key = storedKey(name),
                          .issuer = &made.authority,
                          .serial = serial,
                          .keyUsage = keyUsage,
                          .extendedKeyUsage = {"emailProtection"},
                          .alternativeNames = {GeneralName::email(std::string(name) + "@example.org")}});
        };
        made.rsa = person("alice", "a11ce", 0xA0);
        made.otherRsa = person("bob", "b0b", 0xA0);
        made.dsa = person("dora", "d05a", 0x80);
        made.ec = person("eve", "e7e", 0x80);
        return made;
    }();
    return all;
}

/// The one whose key is of that algorithm: "rsa", "dsa" or "ec".
inline const Identity& identityOf(const std::string& algorithm) {
    const Identities& all = identities();
    return algorithm == "rsa" ? all.rsa : algorithm == "dsa" ? all.dsa : all.ec;
}

inline NVX509::RefCertificate certificateOf(const Identity& identity) {
    return NVX509::CertificateFactory().readDER(bufferOf(identity.certificate.der));
}
inline Crypto::RefKey keyOf(const Identity& identity) {
    return norvtest::privateKeyOf(identity.key);
}
inline NVX509::KeyCertificatePair pairOf(const Identity& identity,
                                         const std::list<NVX509::RefCertificate>& chain = {}) {
    return NVX509::KeyCertificatePair(keyOf(identity), certificateOf(identity), chain);
}

/// Writes a body in pieces of `piece` bytes (0: at once).
inline void writeInPieces(Norvane::MediaOut& out, const Bytes& body, std::size_t piece = 0) {
    if (piece == 0) {
        out.write(body.data(), static_cast<unsigned int>(body.size()));
        return;
    }
    for (std::size_t at = 0; at < body.size(); at += piece) {
        out.write(body.data() + at, static_cast<unsigned int>(std::min(piece, body.size() - at)));
    }
}

/// Writes a body in pieces of many sizes, some of them as buffers.
inline void writeMixed(Norvane::MediaOut& out, const Bytes& body) {
    std::size_t at = 0;
    for (std::size_t turn = 0; at < body.size(); ++turn) {
        static constexpr std::size_t sizes[]{4095, 0, 1, 4096, 4097, 3, 50000, 2, 9999};
        const std::size_t length = std::min(sizes[turn % std::size(sizes)], body.size() - at);
        if (turn % 2 == 0) {
            out.write(body.data() + at, static_cast<unsigned int>(length));
        } else {
            out.write(Buffer(body.data() + at, static_cast<unsigned int>(length), false));
        }
        at += length;
    }
}

/// What the library's signing stream makes of a body that is written in pieces of `piece` bytes (0: at once).
inline Bytes signedByStream(const Identity& identity, const Bytes& body, std::size_t piece = 0,
                            Crypto::Hasher::Type type = Crypto::Hasher::SHA256,
                            const std::list<NVX509::RefCertificate>& chain = {}) {
    Norvane::MemoryMediaOut target;
    CMS::SignerMediaOut signer(type, pairOf(identity, chain));
    signer.attach(target);
    writeInPieces(signer, body, piece);
    signer.end();
    return bytesOf(target.content());
}

inline Bytes derOf(PKCS7* structure) {
    unsigned char* der = nullptr;
    const int length = i2d_PKCS7(structure, &der);
    Bytes answer(der, der + std::max(length, 0));
    OPENSSL_free(der);
    return answer;
}

/// The structure of a signing stream, made with OpenSSL alone in the plainest way: the whole body in its memory sink.
inline Bytes signedPlainly(const Identity& identity, const Bytes& body, const EVP_MD* digest,
                           const std::vector<const Identity*>& chain = {}) {
    const Pkcs7 structure(PKCS7_new());
    const auto certificate = identity.certificate.x509();
    EXPECT_EQ(PKCS7_set_type(structure.get(), NID_pkcs7_signed), 1);
    EXPECT_NE(PKCS7_add_signature(structure.get(), certificate.get(), identity.key.get(), digest), nullptr);
    EXPECT_EQ(PKCS7_add_certificate(structure.get(), certificate.get()), 1);
    for (const Identity* link : chain) {
        EXPECT_EQ(PKCS7_add_certificate(structure.get(), link->certificate.x509().get()), 1);
    }
    EXPECT_EQ(PKCS7_content_new(structure.get(), NID_pkcs7_data), 1);
    const Bio content(PKCS7_dataInit(structure.get(), nullptr));
    EXPECT_EQ(BIO_write(content.get(), body.data(), static_cast<int>(body.size())), static_cast<int>(body.size()));
    EXPECT_EQ(BIO_flush(content.get()), 1);
    EXPECT_EQ(PKCS7_set_detached(structure.get(), 1), 1);
    EXPECT_EQ(PKCS7_dataFinal(structure.get(), content.get()), 1);
    return derOf(structure.get());
}

inline Bytes contentOf(BIO* memory) {
    char* data = nullptr;
    const long length = BIO_get_mem_data(memory, &data);
    return {data, data + length};
}

/// A CMS structure made by OpenSSL's own signing call. `flags` are those of CMS_sign (CMS_DETACHED, CMS_NOATTR,
/// CMS_STREAM for indefinite lengths).
inline Bytes signedByOpenssl(const Identity& identity, const Bytes& body, const char* digest, unsigned int flags) {
    const auto certificate = identity.certificate.x509();
    Bio content(
        BIO_new_mem_buf(body.empty() ? "" : static_cast<const void*>(body.data()), static_cast<int>(body.size())));
    flags |= CMS_BINARY;
    CmsStructure structure(CMS_sign(nullptr, nullptr, nullptr, nullptr, flags | CMS_PARTIAL));
    if (structure == nullptr || CMS_add1_signer(structure.get(), certificate.get(), identity.key.get(),
                                                EVP_get_digestbyname(digest), flags) == nullptr) {
        throw std::runtime_error("CMS_sign");
    }
    Bio out(BIO_new(BIO_s_mem()));
    if ((flags & CMS_STREAM) != 0) {
        if (i2d_CMS_bio_stream(out.get(), structure.get(), content.get(), static_cast<int>(flags)) != 1) {
            throw std::runtime_error("i2d_CMS_bio_stream");
        }
    } else if (CMS_final(structure.get(), content.get(), nullptr, flags) != 1 ||
               i2d_CMS_bio(out.get(), structure.get()) != 1) {
        throw std::runtime_error("CMS_final");
    }
    return contentOf(out.get());
}

/// One structure, decoded by the library, with its first signer.
struct Received {
    explicit Received(const Bytes& structure) : source(structure), verifier(source) {}
    [[nodiscard]] CMS::SignerInfo signer() const {
        return CMS::signedData(verifier.contentInfo()).signerInfo().front();
    }
    [[nodiscard]] bool accepts(const Bytes& body, const NVX509::RefCertificate& certificate) const {
        PiecewiseIn in(body);
        return verifier.isValid(in, signer(), certificate);
    }
    PiecewiseIn source;
    CMS::CMSVerifier verifier;
};

} // namespace cmstest
