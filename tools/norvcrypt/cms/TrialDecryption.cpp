#include "cms/TrialDecryption.h"
#include "base/Failure.h"
#include "openssl/CertificateDetails.h"
#include "openssl/OpenSsl.h"

#include <norvcmsg/Logger.h>
#include <norvcrypto/CMSEnvelopeOutline.h>
#include <norvcrypto/KeyStore.h>

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <map>
#include <utility>

namespace norvcrypt {

namespace NVX509 = Norvane::Crypto::NVX509;
namespace CMS = Norvane::Crypto::CMS;
namespace ASN1 = Norvane::Crypto::ASN1;

namespace {

using Attempt = CMS::DecrypterMediaIn::Attempt;

constexpr unsigned int keptInMemory = 1U << 20U;
constexpr unsigned long largestSecondLook = 256UL << 20U;

Norvane::SwapBufferMediaOut emptySpill() {
    const char* const directory = std::getenv("TMPDIR"); // NOLINT(concurrency-mt-unsafe): one thread
    const std::string place = directory == nullptr || *directory == '\0' ? "/tmp" : directory;
    return {keptInMemory, (place + "/norvcrypt-XXXXXX").c_str()};
}

/// Whose key the library asked for, and the answer.
struct Question {
    std::string recipient;
    const OwnIdentity* identity = nullptr;
};

bool belongsTogether(const OwnIdentity& identity) {
    const QuietQuestion quiet;
    return X509_check_private_key(identity.certificate, identity.key) == 1;
}

bool isNamed(const OwnIdentity& identity, const NVX509::DistinguishedName& issuer, const ASN1::Integer& serial) {
    // Not through the certificate's own accessor, which refuses negative numbers.
    const X509* const certificate = identity.certificate;
    return serial.object() != nullptr && ASN1_INTEGER_cmp(X509_get0_serialNumber(certificate), serial.object()) == 0 &&
           identity.certificate->issuer() == issuer;
}

std::string resultOf(const Attempt& attempt, const Question& question) {
    const OwnIdentity* const identity = question.identity;
    switch (attempt.outcome()) {
    case Attempt::NegativeSerialNumber:
        return "its serial number is negative, no key can be asked for (event 0x300005B)";
    case Attempt::NotTried:
        return "not tried, the message has more recipients than a message may cost (event 0x300005F)";
    case Attempt::UnsupportedAlgorithm:
        return attempt.algorithm() + " is not supported (event 0x300005B)";
    default:
        break;
    }
    if (identity == nullptr || attempt.outcome() == Attempt::NoKey)
        return "no key for it (event 0x300005A)";
    if (attempt.outcome() == Attempt::Succeeded)
        return "decrypted with the key in " + identity->keyFile + ", certificate SHA-256 " +
               fingerprint(identity->certificate);
    if (attempt.outcome() == Attempt::KeyOfAnotherCertificate)
        return "the private key in " + identity->keyFile + " does not belong to its certificate (event 0x300005B)";
    if (EVP_PKEY_get_base_id(identity->key) != EVP_PKEY_RSA)
        return "the private key in " + identity->keyFile + " is no RSA key (event 0x300005B)";
    return "decryption with the key in " + identity->keyFile + " failed, the message is damaged (event 0x300005B)";
}

std::string listed(const std::list<std::string>& names) {
    std::string text;
    for (const std::string& name : names)
        text += (text.empty() ? "" : ", ") + name;
    return text;
}

/// Delivers the bytes of a source and keeps a copy of them, as long as there is room for it.
class CopyingSource : public Norvane::MediaInImpl {
public:
    CopyingSource(const Norvane::MediaIn& source, const Norvane::SwapBufferMediaOut& copy)
        : m_source(source),
          m_copy(copy) {}

    using MediaInImpl::read;
    [[nodiscard]] bool atEnd() const override { return m_source.atEnd(); }
    [[nodiscard]] int peek() const override { return m_source.peek(); }
    int read(unsigned char* out, unsigned int length) override {
        const int count = m_source.read(out, length);
        try {
            if (m_complete && count > 0)
                m_copy.write(out, static_cast<unsigned int>(count));
        } catch (const Norvane::Exception&) {
            m_complete = false;
            m_copy.clear();
        }
        return count;
    }

private:
    Norvane::MediaIn m_source;
    Norvane::SwapBufferMediaOut m_copy;
    bool m_complete = true;
};

} // namespace

/// What the key store and the log know of one run; the library drives them in turn, recipient by recipient.
struct TrialDecryption::State {
    std::vector<OwnIdentity> identities;
    std::map<std::size_t, Question> questions; ///< by the recipient's place among the attempts
    const CMS::DecrypterMediaIn* decrypter = nullptr;
    bool notEnveloped = false;
    std::string unknownType;
    bool contentMissing = false;

    const OwnIdentity* find(const NVX509::DistinguishedName& issuer, const ASN1::Integer& serial) const {
        const OwnIdentity* found = nullptr;
        for (const OwnIdentity& identity : identities) {
            if (!isNamed(identity, issuer, serial))
                continue;
            if (belongsTogether(identity))
                return &identity;
            found = found == nullptr ? &identity : found;
        }
        return found;
    }
};

namespace {

/// Answers with the identities, and notes who was asked for.
class IdentityPlugin : public NVX509::KeyStorePlugin {
public:
    explicit IdentityPlugin(std::shared_ptr<TrialDecryption::State> state) : m_state(std::move(state)) {}

    NVX509::KeyCertificatePair find(const NVX509::DistinguishedName& issuer, const ASN1::Integer& serial) override {
        const OwnIdentity* const identity = m_state->find(issuer, serial);
        m_state->questions[m_state->decrypter->attempts().size()] = {
            "issuer " + issuer.asString() + " serial number " + serial.hex(), identity};
        return identity == nullptr ? NVX509::KeyCertificatePair(true)
                                   : NVX509::KeyCertificatePair(identity->key, identity->certificate);
    }
    NVX509::RefCertificate findEncryptionCertificate(const Norvane::EmailAddress&) override { return {}; }
    NVX509::KeyCertificatePair findSigningKey(const Norvane::EmailAddress&) override { return none(); }
    NVX509::KeyCertificatePair findDecryptionKey(const Norvane::EmailAddress&) override { return none(); }

private:
    static NVX509::KeyCertificatePair none() { return NVX509::KeyCertificatePair(true); }
    std::shared_ptr<TrialDecryption::State> m_state;
};

/// Takes from the log what the library's lists do not tell.
class StructureSink : public Norvane::LogSink {
public:
    explicit StructureSink(std::shared_ptr<TrialDecryption::State> state) : m_state(std::move(state)) {}

    void record(const Norvane::LogRecord& record) override {
        switch (record.event) {
        case 0x300005D:
            m_state->unknownType = record.fields.empty() ? "" : record.fields.front();
            break;
        case 0x3000058:
            m_state->notEnveloped = true;
            break;
        case 0x3000059:
            m_state->contentMissing = true;
            break;
        default:
            break;
        }
    }

private:
    std::shared_ptr<TrialDecryption::State> m_state;
};

/// The log goes to a sink while this lives, and nowhere afterwards.
class Listening {
public:
    explicit Listening(const std::shared_ptr<Norvane::LogSink>& sink) { Norvane::Logger::instance(false).sink(sink); }
    ~Listening() { Norvane::Logger::instance(false).sink(std::make_shared<Norvane::RecordingLogSink>()); }
    Listening(const Listening&) = delete;
    Listening& operator=(const Listening&) = delete;
};

} // namespace

TrialDecryption::TrialDecryption(std::vector<OwnIdentity> identities)
    : m_state(std::make_shared<State>()),
      m_copy(emptySpill()),
      m_body(emptySpill()) {
    m_state->identities = std::move(identities);
}

TrialDecryption::~TrialDecryption() = default;

void TrialDecryption::decode(Norvane::MediaIn& structure) {
    const NVX509::RefKeyStore keys(true);
    keys->add(NVX509::RefKeyStorePlugin(new IdentityPlugin(m_state)));
    m_decrypter.emplace(structure, keys);
    m_state->decrypter = &*m_decrypter;
}

void TrialDecryption::open(Norvane::MediaIn& structure, const std::string& name) {
    try {
        Norvane::MediaIn copying(Norvane::makeReference<CopyingSource, Norvane::MediaInImpl>(structure, m_copy));
        decode(copying);
    } catch (const Norvane::Exception&) {
        // A sound message of a newer sender is not to pass for a damaged one.
        const Norvane::Buffer message = copied();
        const CMS::EnvelopeOutline outline(message);
        m_unsupported = outline.unsupported();
        if (!outline.isReadable()) {
            refuseUnsupported(name);
            throw;
        }
        Norvane::MemoryMediaIn readable(outline.readable(message));
        decode(readable);
    }
}

/// The message as it was read; empty when there was no room for it.
Norvane::Buffer TrialDecryption::copied() const {
    Norvane::Buffer message;
    if (m_copy.length() <= largestSecondLook) {
        Norvane::MediaIn in = m_copy.in();
        in.read(message, 0);
    }
    return message;
}

void TrialDecryption::refuseUnsupported(const std::string& name) const {
    if (!m_unsupported.empty())
        throw Failure(name + " needs what is not supported: " + listed(m_unsupported));
}

Exit TrialDecryption::run(const std::string& name) {
    const Listening listening(std::make_shared<StructureSink>(m_state));
    const bool decrypted = m_decrypter->decrypt(m_body);
    if (m_state->notEnveloped) {
        m_unsupported = CMS::EnvelopeOutline(copied()).unsupported();
        refuseUnsupported(name);
        throw Failure(name + " holds no encrypted body" +
                      (m_state->unknownType.empty() ? "" : " but the unknown type " + m_state->unknownType));
    }
    if (decrypted)
        return Exit::good;
    const auto& attempts = m_decrypter->attempts();
    const bool supported =
        m_unsupported.empty() && std::none_of(attempts.begin(), attempts.end(), [](const Attempt& one) {
            return one.outcome() == Attempt::UnsupportedAlgorithm;
        });
    return supported ? Exit::refused : Exit::failed;
}

std::vector<std::string> TrialDecryption::report() const {
    if (m_state->contentMissing)
        return {"the encrypted body is not in the structure (event 0x3000059)"};
    const auto& attempts = m_decrypter->attempts();
    if (attempts.empty())
        return {"the structure names no recipient"};
    std::vector<std::string> lines;
    std::size_t number = 0;
    for (auto attempt = attempts.begin(); attempt != attempts.end(); ++attempt, ++number) {
        const auto asked = m_state->questions.find(number);
        const Question question = asked == m_state->questions.end() ? Question() : asked->second;
        std::string who = "recipient " + std::to_string(number + 1) + ", ";
        // Those that were not tried are as many as the sender likes.
        const auto next = std::find_if(attempt, attempts.end(),
                                       [](const Attempt& one) { return one.outcome() != Attempt::NotTried; });
        const auto untried = static_cast<std::size_t>(std::distance(attempt, next));
        if (untried > 1) {
            who = "recipients " + std::to_string(number + 1) + " to " + std::to_string(number + untried) + ": ";
            std::advance(attempt, untried - 1);
            number += untried - 1;
        } else if (!question.recipient.empty()) {
            who += question.recipient + ": ";
        }
        lines.push_back(who + resultOf(*attempt, question));
    }
    if (!m_unsupported.empty())
        lines.push_back("not supported, and left out: " + listed(m_unsupported));
    return lines;
}

Norvane::MediaIn TrialDecryption::body() const {
    return m_body.in();
}

} // namespace norvcrypt
