#pragma once

// What the tests of the writer share: people with keys, and OpenSSL's own reader of S/MIME.

#include "support/Keys.h"
#include "support/MailAuthority.h"
#include "support/Places.h"
#include "support/Started.h"
#include "support/Streams.h"
#include "support/Thrown.h"

#include <authority/Authority.h>
#include <norvcrypto-smime/SMimeWriter.h>

#include <gmock/gmock.h>
#include <openssl/bio.h>
#include <openssl/cms.h>
#include <openssl/err.h>

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace smimetest {

using namespace Norvane;
using namespace Norvane::Crypto;
using norvauthority::Identity;
using norvtest::certificateOf;
using norvtest::pairOf;

inline const Identity& root() {
    return norvtest::mailAuthority();
}

/// Somebody with the stored key of that name, made once in a process.
inline const Identity& person(const std::string& name, norvauthority::CertificateRequest request = {}) {
    static std::map<std::string, Identity> made;
    const auto found = made.find(name);
    if (found != made.end()) {
        return found->second;
    }
    request.subject = {{"CN", name}};
    if (!request.key) {
        request.key = norvauthority::Key::fromPem(norvtest::storedKeyPem(name));
    }
    request.issuer = &root();
    request.serial = std::to_string(made.size() + 10);
    request.alternativeNames = {norvauthority::GeneralName::email(name + "@example.com")};
    return made.emplace(name, norvauthority::issue(request)).first->second;
}

inline SMime::SignOptions signedBy(const std::vector<const Identity*>& people) {
    SMime::SignOptions options;
    for (const Identity* const one : people) {
        options.signers.emplace_back(pairOf(*one));
    }
    return options;
}
inline SMime::SignOptions opaquelySignedBy(const Identity& identity) {
    SMime::SignOptions options = signedBy({&identity});
    options.form = SMime::SigningForm::opaque;
    return options;
}
inline SMime::EncryptOptions encryptedFor(const std::vector<const Identity*>& people) {
    SMime::EncryptOptions options;
    for (const Identity* const one : people) {
        options.certificates.push_back(certificateOf(*one));
    }
    return options;
}

/// What comes out, with CRLF unless said otherwise.
inline std::string wrapped(const std::string& mail, const std::vector<SMime::Wrapping>& shells,
                           const SMime::WriteOptions& how = {}) {
    MemoryMediaOut out;
    SMime::wrap(MemoryMediaIn(mail), shells, out, how);
    EXPECT_TRUE(out.ended());
    return norvtest::textOf(out.content());
}

/// The reason that the writer throws.
template <class Work> std::string refusal(Work work) {
    try {
        work();
    } catch (const Exception& failure) {
        EXPECT_EQ(failure.where(), "SMime::Writer");
        EXPECT_EQ(failure.code(), 4);
        EXPECT_EQ(failure.fileName(), "SMimeWriter");
        EXPECT_EQ(failure.parameters().size(), 1U);
        return failure.parameters().empty() ? "" : std::get<std::string>(failure.parameters().front());
    }
    ADD_FAILURE() << "nothing was thrown";
    return {};
}
inline std::string refusalOf(const std::string& mail, const std::vector<SMime::Wrapping>& shells,
                             const SMime::WriteOptions& how = {}) {
    return refusal([&] {
        norvtest::FailingMediaOut out(~std::size_t{0});
        try {
            SMime::wrap(MemoryMediaIn(mail), shells, out, how);
        } catch (const Exception&) {
            EXPECT_EQ(out.body().content, "") << "something was written first";
            throw;
        }
    });
}

struct Freeing {
    void operator()(BIO* bio) const { BIO_free_all(bio); }
    void operator()(CMS_ContentInfo* structure) const { CMS_ContentInfo_free(structure); }
    void operator()(X509_STORE* store) const { X509_STORE_free(store); }
};
using BioPtr = std::unique_ptr<BIO, Freeing>;
using CmsPtr = std::unique_ptr<CMS_ContentInfo, Freeing>;

inline BioPtr sourceOver(const std::string& text) {
    return BioPtr(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
}
inline std::string allOf(BIO* bio) {
    char* bytes = nullptr;
    const long length = BIO_get_mem_data(bio, &bytes);
    return {bytes, static_cast<std::size_t>(length)};
}

inline std::string opensslReason() {
    std::string text;
    while (const unsigned long error = ERR_get_error()) {
        text.append(ERR_error_string(error, nullptr)).append("; ");
    }
    return text;
}

/// The bytes between the first two delimiters of a multipart with this boundary.
inline std::string firstPart(const std::string& mail, const std::string& end = "\r\n") {
    const std::size_t name = mail.find("boundary=\"");
    const std::size_t from = name + 10;
    const std::string delimiter = "--" + mail.substr(from, mail.find('"', from) - from);
    const std::size_t first = mail.find(end + delimiter + end) + 2 * end.size() + delimiter.size();
    const std::size_t second = mail.find(end + delimiter + end, first);
    EXPECT_NE(second, std::string::npos) << mail;
    return mail.substr(first, second - first);
}

inline std::unique_ptr<X509_STORE, Freeing> trusted() {
    std::unique_ptr<X509_STORE, Freeing> store(X509_STORE_new());
    X509_STORE_add_cert(store.get(), root().certificate.x509().get());
    return store;
}

/// What OpenSSL's reader of S/MIME finds signed by somebody under `root()`; a failure of the test, and nothing, when it does
/// not verify. The detached bytes are checked exactly, too.
inline std::string verified(const std::string& mail) {
    const auto store = trusted();
    BIO* detached = nullptr;
    const BioPtr in = sourceOver(mail);
    const CmsPtr structure(SMIME_read_CMS(in.get(), &detached));
    const BioPtr content(detached);
    const BioPtr out(BIO_new(BIO_s_mem()));
    if (!structure || CMS_verify(structure.get(), nullptr, store.get(), detached, out.get(), 0) != 1) {
        ADD_FAILURE() << opensslReason() << "\n" << mail.substr(0, 4000);
        return {};
    }
    if (detached == nullptr) {
        return allOf(out.get());
    }
    if (mail.find("\r\n") == std::string::npos) {
        return allOf(out.get());
    }
    std::string exact = firstPart(mail);
    const BioPtr again = sourceOver(exact);
    const BioPtr sink(BIO_new(BIO_s_mem()));
    if (CMS_verify(structure.get(), nullptr, store.get(), again.get(), sink.get(), CMS_BINARY) != 1) {
        ADD_FAILURE() << "the exact bytes: " << opensslReason();
    }
    return exact;
}

inline std::string decrypted(const std::string& mail, const Identity& reader) {
    const BioPtr in = sourceOver(mail);
    const CmsPtr structure(SMIME_read_CMS(in.get(), nullptr));
    const BioPtr out(BIO_new(BIO_s_mem()));
    if (!structure || CMS_decrypt(structure.get(), reader.key.get(), reader.certificate.x509().get(), nullptr,
                                  out.get(), CMS_BINARY) != 1) {
        ADD_FAILURE() << opensslReason() << "\n" << mail.substr(0, 2000);
        return {};
    }
    return allOf(out.get());
}

/// Whether every line has that end, and is no longer; header fields included.
inline void expectLines(const std::string& mail, const std::string& end, std::size_t longest) {
    std::size_t from = 0;
    while (from < mail.size()) {
        const std::size_t at = mail.find('\n', from);
        ASSERT_NE(at, std::string::npos);
        std::string line = mail.substr(from, at - from);
        ASSERT_EQ(line.ends_with('\r'), end == "\r\n") << line;
        if (end == "\r\n") {
            line.pop_back();
        }
        EXPECT_EQ(line.find('\r'), std::string::npos) << line;
        EXPECT_LE(line.size(), longest) << line;
        from = at + 1;
    }
    const auto odd = std::ranges::find_if(mail, [](char byte) { return byte < 0 || byte == '\0'; });
    EXPECT_EQ(odd, mail.end()) << std::string(mail.begin() + std::max<std::ptrdiff_t>(0, odd - mail.begin() - 60), odd);
}

inline std::string withCrLf(const std::string& text) {
    std::string out;
    for (const char byte : text) {
        out += byte == '\n' ? "\r\n" : std::string(1, byte);
    }
    return out;
}
inline std::string withLf(std::string text) {
    std::erase(text, '\r');
    return text;
}

} // namespace smimetest
