#pragma once

/// \file
/// Mails for the tests of the reader, made by OpenSSL's own S/MIME functions, and what became of them.

#include "support/Keys.h"
#include "support/Started.h"
#include "support/Workspace.h"
#include "support/X509Testing.h"

#include <norvcmsg/Media.h>
#include <norvcrypto-smime/SMimeReader.h>

#include <openssl/cms.h>
#include <openssl/err.h>
#include <openssl/pkcs7.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace smimetest {

namespace SMime = Norvane::Crypto::SMime;
namespace CMS = Norvane::Crypto::CMS;
namespace NVX509 = Norvane::Crypto::NVX509;
using norvauthority::Identity;
using SMime::Answer;
using SMime::LayerKind;
using SMime::LayerStatus;
using SMime::Verdict;

struct Freeing {
    void operator()(BIO* bio) const { BIO_free_all(bio); }
    void operator()(CMS_ContentInfo* structure) const { CMS_ContentInfo_free(structure); }
    void operator()(STACK_OF(X509) * stack) const { sk_X509_free(stack); }
};
using Bio = std::unique_ptr<BIO, Freeing>;
using Structure = std::unique_ptr<CMS_ContentInfo, Freeing>;

inline Bio sourceOf(const std::string& text) {
    return Bio(BIO_new_mem_buf(text.empty() ? "" : text.data(), static_cast<int>(text.size())));
}

inline std::string textOf(BIO* bio) {
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio, &data);
    return {data, static_cast<std::size_t>(length)};
}

/// An entity as `openssl cms` writes it: multipart/signed with CMS_DETACHED, application/pkcs7-mime without.
/// \param flags CMS_CRLFEOL for line ends as they are on the wire; CMS_BINARY digests `entity` as it stands
inline std::string signedBy(const std::vector<const Identity*>& signers, const std::string& entity,
                            unsigned int flags) {
    flags |= CMS_PARTIAL | CMS_STREAM; // signed while it is written
    const Structure structure(CMS_sign(nullptr, nullptr, nullptr, nullptr, flags));
    for (const Identity* signer : signers)
        EXPECT_NE(
            CMS_add1_signer(structure.get(), signer->certificate.x509().get(), signer->key.get(), EVP_sha256(), flags),
            nullptr);
    const Bio out(BIO_new(BIO_s_mem()));
    const Bio content = sourceOf(entity);
    EXPECT_EQ(SMIME_write_CMS(out.get(), structure.get(), content.get(), static_cast<int>(flags)), 1);
    ERR_clear_error();
    return textOf(out.get());
}
inline std::string signedBy(const Identity& signer, const std::string& entity, unsigned int flags) {
    return signedBy(std::vector<const Identity*>{&signer}, entity, flags);
}

inline std::string encryptedFor(const std::vector<const Identity*>& recipients, const std::string& entity,
                                const EVP_CIPHER* cipher = EVP_aes_256_cbc()) {
    const Bio content = sourceOf(entity);
    const std::unique_ptr<STACK_OF(X509), Freeing> certificates(sk_X509_new_null());
    std::list<norvauthority::X509Ptr> kept;
    for (const Identity* recipient : recipients) {
        kept.push_back(recipient->certificate.x509());
        sk_X509_push(certificates.get(), kept.back().get());
    }
    const unsigned int flags = CMS_BINARY | CMS_CRLFEOL;
    const Structure structure(CMS_encrypt(certificates.get(), content.get(), cipher, flags));
    const Bio out(BIO_new(BIO_s_mem()));
    EXPECT_EQ(SMIME_write_CMS(out.get(), structure.get(), nullptr, static_cast<int>(flags)), 1);
    ERR_clear_error();
    return textOf(out.get());
}

inline std::string replaced(std::string text, const std::string& what, const std::string& with) {
    const std::size_t at = text.find(what);
    EXPECT_NE(at, std::string::npos) << what << " in\n" << text.substr(0, 1000);
    return at == std::string::npos ? text : text.replace(at, what.size(), with);
}

inline std::string withLf(const std::string& text) {
    std::string result;
    for (const char c : text) {
        if (c != '\r')
            result += c;
    }
    return result;
}

/// The fields that a mail has beside those of its entity.
inline const std::string fieldsOfAlice =
    "From: Alice <alice@example.org>\r\nTo: bob@example.org\r\nSubject: outside\r\n";

inline const std::string plainEntity = "Content-Type: text/plain; charset=utf-8\r\n\r\nHello Bob,\r\n\r\nyours\r\n";

/// Keys of people.
class Keys : public CMS::KeyListLookup {
public:
    explicit Keys(const std::vector<const Identity*>& people) : KeyListLookup(pairsOf(people)) {}

private:
    static std::list<NVX509::KeyCertificatePair> pairsOf(const std::vector<const Identity*>& people) {
        std::list<NVX509::KeyCertificatePair> pairs;
        for (const Identity* person : people)
            pairs.push_back(
                NVX509::KeyCertificatePair(norvtest::privateKeyOf(person->key), x509testing::read(*person), {}));
        return pairs;
    }
};

struct Outcome {
    Answer answer;
    std::string content;
};

inline Outcome outcomeOf(const std::string& mail, const SMime::ReadOptions& options) {
    Norvane::MemoryMediaOut content;
    Outcome outcome;
    outcome.answer = SMime::read(Norvane::MemoryMediaIn(mail), content, options);
    outcome.content = {reinterpret_cast<const char*>(content.content().data()), content.content().length()};
    EXPECT_EQ(ERR_peek_error(), 0U);
    return outcome;
}

/// With the keys of bob.
inline Outcome outcomeOf(const std::string& mail) {
    static const Keys keys({&interop::bob()});
    SMime::ReadOptions options;
    options.keys = &keys;
    return outcomeOf(mail, options);
}

/// Breaks once in the middle, and is at its end behind that.
class FailingIn : public Norvane::MediaInImpl {
public:
    explicit FailingIn(const std::string& text) : m_in(text), m_left(static_cast<unsigned int>(text.size() / 2)) {}
    using MediaInImpl::read;
    [[nodiscard]] bool atEnd() const override { return m_isBroken; }
    [[nodiscard]] int peek() const override { return m_isBroken ? -1 : m_in.peek(); }
    int read(unsigned char* out, unsigned int length) override {
        if (m_left == 0 && !std::exchange(m_isBroken, true))
            throw Norvane::MediaException("the line broke", 4, "Test", 1);
        const int count = m_in.read(out, std::min(length, m_left));
        m_left -= static_cast<unsigned int>(count);
        return count;
    }

private:
    Norvane::MemoryMediaIn m_in;
    unsigned int m_left;
    bool m_isBroken = false;
};

inline std::vector<std::string> pathsOf(const std::vector<SMime::UncoveredPart>& parts) {
    std::vector<std::string> paths;
    for (const auto& part : parts)
        paths.push_back(part.path);
    return paths;
}

/// Kind, path and status of the layers, one a line.
inline std::vector<std::string> layersOf(const Answer& answer) {
    std::vector<std::string> lines;
    for (const SMime::Layer& layer : answer.layers)
        lines.push_back(std::string(nameOf(layer.kind)) + " " + layer.path + " " + nameOf(layer.status));
    return lines;
}

/// Path, type, name, encoding and size of the parts that hold no others.
inline std::vector<std::string> leavesOf(const Answer& answer) {
    std::vector<std::string> lines;
    for (const SMime::LeafPart& part : answer.parts)
        lines.push_back(part.path + ' ' + part.type + " \"" + part.name + "\" " + part.transferEncoding + ' ' +
                        std::to_string(part.octets));
    return lines;
}

} // namespace smimetest
