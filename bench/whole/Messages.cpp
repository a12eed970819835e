// Whole messages: a mail in, a mail out. See Mails.h for what they are; that those which are read were made by OpenSSL's
// S/MIME functions.
#include "Contestants.h"
#include "Mails.h"
#include "OurMedia.h"

#include <norvcmsg/Media.h>
#include <norvcrypto-smime/SMimeReader.h>
#include <norvcrypto-smime/SMimeWriter.h>
#include <norvcrypto/CMSEnvelopeReader.h>

#include <openssl/bio.h>

#include <list>
#include <memory>
#include <string>

namespace bench {

using namespace Norvane;
using namespace Norvane::Crypto;

namespace {

using BioPtr = std::unique_ptr<BIO, With<BIO_free_all>>;
using CmsPtr = std::unique_ptr<CMS_ContentInfo, With<CMS_ContentInfo_free>>;
struct FreeStack {
    void operator()(STACK_OF(X509) * stack) const noexcept { sk_X509_free(stack); }
};
using CertificatesPtr = std::unique_ptr<STACK_OF(X509), FreeStack>;

Buffer bufferOfText(const std::string& text) {
    return {reinterpret_cast<const unsigned char*>(text.data()), static_cast<unsigned int>(text.size()), true};
}

BioPtr sourceOf(const std::string& text) {
    return BioPtr(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
}

std::string textOf(BIO* bio) {
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio, &data);
    return {data, static_cast<std::size_t>(length)};
}

CertificatesPtr recipientOf(const Material& material) {
    CertificatesPtr certificates(sk_X509_new_null());
    sk_X509_push(certificates.get(), material.certificate.get());
    return certificates;
}

/// Line ends are right already; OpenSSL would look at each of them. The S/MIME headers get CRLF.
constexpr unsigned int signingFlags = CMS_BINARY | CMS_CRLFEOL | CMS_STREAM;

void opensslSigned(const Material& material, const std::string& entity, bool detached, BIO* out) {
    const unsigned int flags = signingFlags | (detached ? CMS_DETACHED : 0U);
    const BioPtr content = sourceOf(entity);
    const CmsPtr structure(CMS_sign(material.certificate.get(), material.key.get(), nullptr, content.get(), flags));
    require(structure != nullptr && SMIME_write_CMS(out, structure.get(), content.get(), static_cast<int>(flags)) == 1,
            "not signed");
}

void opensslEncrypted(const Material& material, const std::string& entity, BIO* out) {
    const CertificatesPtr recipients = recipientOf(material);
    const BioPtr content = sourceOf(entity);
    const CmsPtr structure(CMS_encrypt(recipients.get(), content.get(), EVP_aes_256_cbc(), signingFlags));
    require(structure != nullptr &&
                SMIME_write_CMS(out, structure.get(), content.get(), static_cast<int>(signingFlags)) == 1,
            "not encrypted");
}

std::string madeBy(const std::function<void(BIO*)>& make) {
    const BioPtr out(BIO_new(BIO_s_mem()));
    make(out.get());
    return textOf(out.get());
}

void opensslVerified(const Material& material, BIO* message) {
    BIO* detached = nullptr;
    const CmsPtr structure(SMIME_read_CMS(message, &detached));
    const BioPtr content(detached);
    const BioPtr nowhere(BIO_new(BIO_s_null()));
    const CertificatesPtr signer = recipientOf(material);
    require(structure != nullptr && CMS_verify(structure.get(), signer.get(), nullptr, content.get(), nowhere.get(),
                                               CMS_BINARY | CMS_NO_SIGNER_CERT_VERIFY) == 1,
            "not verified");
}

/// Into a memory BIO where a signed entity is to be read from it.
void opensslDecrypted(const Material& material, BIO* message, BIO* out) {
    const CmsPtr structure(SMIME_read_CMS(message, nullptr));
    require(structure != nullptr && CMS_decrypt(structure.get(), material.key.get(), material.certificate.get(),
                                                nullptr, out, CMS_BINARY) == 1,
            "not decrypted");
}

SMime::SignOptions signingOf(const Material& material, SMime::SigningForm form) {
    SMime::SignOptions options;
    options.signers.emplace_back(material.pair());
    options.digest = Hasher::SHA256;
    options.form = form;
    return options;
}

SMime::EncryptOptions encryptingOf(const Material& material) {
    SMime::EncryptOptions options;
    options.certificates.push_back(material.pair()->certificate);
    return options;
}

Run ourWrapping(std::size_t size, std::vector<SMime::Wrapping> shells) {
    const auto mail = std::make_shared<std::string>(mailOf(size));
    const auto source = std::make_shared<MemoryMediaIn>(bufferOfText(*mail));
    return [mail, source, shells = std::move(shells)] {
        MediaIn in(*source);
        in.setpos(0);
        NullMediaOut target;
        SMime::wrap(in, shells, target);
    };
}

Run ourReading(const Material& material, const std::string& message, SMime::Verdict expected) {
    const auto mail = std::make_shared<std::string>(std::string(mailFields) + message);
    const auto source = std::make_shared<MemoryMediaIn>(bufferOfText(*mail));
    const auto keys = std::make_shared<CMS::KeyStoreLookup>(material.store());
    return [mail, source, keys, expected] {
        MediaIn in(*source);
        in.setpos(0);
        NullMediaOut target;
        SMime::ReadOptions options;
        options.keys = keys.get();
        const SMime::Answer answer = SMime::read(in, target, options);
        require(answer.verdict == expected, answer.detail.c_str());
    };
}

/// What is made of an entity of a size by a function with a target.
template <class Make> Run opensslWriting(std::size_t size, Make make) {
    const auto entity = std::make_shared<std::string>(mailOf(size, false));
    return [entity, make] {
        const BioPtr nowhere(BIO_new(BIO_s_null()));
        make(*entity, nowhere.get());
    };
}

template <class Read> Run opensslReading(const std::string& message, Read read) {
    const auto kept = std::make_shared<std::string>(message);
    return [kept, read] {
        const BioPtr in = sourceOf(*kept);
        read(in.get());
    };
}

void addWriting(Contest& contest, const Material& material) {
    constexpr const char* ours = "SMime::wrap";
    constexpr const char* theirs = "OpenSSL CMS, S/MIME";
    const SMime::SignOptions clear = signingOf(material, SMime::SigningForm::multipartSigned);
    const SMime::SignOptions opaque = signingOf(material, SMime::SigningForm::opaque);
    const SMime::EncryptOptions encrypting = encryptingOf(material);
    contest.add("sign a message", ours, [clear](std::size_t size) { return ourWrapping(size, {clear}); });
    contest.add("sign a message opaquely", ours, [opaque](std::size_t size) { return ourWrapping(size, {opaque}); });
    contest.add("encrypt a message", ours, [encrypting](std::size_t size) { return ourWrapping(size, {encrypting}); });
    contest.add("sign and encrypt a message", ours, [clear, encrypting](std::size_t size) {
        return ourWrapping(size, {clear, encrypting});
    });

    for (const bool detached : {true, false}) {
        contest.add(detached ? "sign a message" : "sign a message opaquely", theirs,
                    [&material, detached](std::size_t size) {
                        return opensslWriting(size, [&material, detached](const std::string& entity, BIO* out) {
                            opensslSigned(material, entity, detached, out);
                        });
                    });
    }
    contest.add("encrypt a message", theirs, [&material](std::size_t size) {
        return opensslWriting(
            size, [&material](const std::string& entity, BIO* out) { opensslEncrypted(material, entity, out); });
    });
    contest.add("sign and encrypt a message", theirs, [&material](std::size_t size) {
        return opensslWriting(size, [&material](const std::string& entity, BIO* out) {
            const std::string inner = madeBy([&](BIO* to) { opensslSigned(material, entity, true, to); });
            opensslEncrypted(material, inner, out);
        });
    });
}

void addReading(Contest& contest, const Material& material) {
    constexpr const char* ours = "SMime::read";
    constexpr const char* theirs = "OpenSSL CMS, S/MIME";
    const auto signedMail = [&material](std::size_t size, bool detached) {
        const std::string entity = mailOf(size, false);
        return madeBy([&](BIO* out) { opensslSigned(material, entity, detached, out); });
    };
    const auto encryptedMail = [&material](const std::string& entity) {
        return madeBy([&](BIO* out) { opensslEncrypted(material, entity, out); });
    };
    for (const bool detached : {true, false}) {
        const char* task = detached ? "verify a message" : "verify an opaque message";
        contest.add(task, ours, [&material, signedMail, detached](std::size_t size) {
            return ourReading(material, signedMail(size, detached), SMime::Verdict::signatureGood);
        });
        contest.add(task, theirs, [&material, signedMail, detached](std::size_t size) {
            return opensslReading(signedMail(size, detached),
                                  [&material](BIO* message) { opensslVerified(material, message); });
        });
    }
    contest.add("decrypt a message", ours, [&material, encryptedMail](std::size_t size) {
        return ourReading(material, encryptedMail(mailOf(size, false)), SMime::Verdict::decrypted);
    });
    contest.add("decrypt a message", theirs, [&material, encryptedMail](std::size_t size) {
        return opensslReading(encryptedMail(mailOf(size, false)), [&material](BIO* message) {
            const BioPtr nowhere(BIO_new(BIO_s_null()));
            opensslDecrypted(material, message, nowhere.get());
        });
    });
    contest.add("decrypt and verify a message", ours, [&material, signedMail, encryptedMail](std::size_t size) {
        return ourReading(material, encryptedMail(signedMail(size, true)), SMime::Verdict::signatureGood);
    });
    contest.add("decrypt and verify a message", theirs, [&material, signedMail, encryptedMail](std::size_t size) {
        return opensslReading(encryptedMail(signedMail(size, true)), [&material](BIO* message) {
            const BioPtr inner(BIO_new(BIO_s_mem()));
            opensslDecrypted(material, message, inner.get());
            opensslVerified(material, inner.get());
        });
    });
}

} // namespace

void addMessages(Contest& contest, const Material& material) {
    addWriting(contest, material);
    addReading(contest, material);
}

} // namespace bench
