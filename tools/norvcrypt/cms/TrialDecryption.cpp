#include "cms/TrialDecryption.h"
#include "base/Failure.h"
#include "openssl/CertificateDetails.h"

#include <norvcmsg/Logger.h>
#include <norvcrypto-keystore/KeyFiles.h>
#include <norvcrypto/CMSEnvelopeOutline.h>
#include <norvcrypto/KeyStore.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <utility>

namespace norvcrypt {

namespace NVX509 = Norvane::Crypto::NVX509;
namespace CMS = Norvane::Crypto::CMS;
namespace ASN1 = Norvane::Crypto::ASN1;

namespace {

using Told = CMS::DecrypterMediaIn::Attempt;

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
    return NVX509::belongTogether(identity.key, identity.certificate);
}

bool isNamed(const OwnIdentity& identity, const NVX509::DistinguishedName& issuer, const ASN1::Integer& serial) {
    // Not through the certificate's own accessor, which refuses negative numbers.
    return hasSerialNumber(identity.certificate, serial.object()) && identity.certificate->issuer() == issuer;
}

Attempt::Outcome outcomeOf(const Told& told, const Question& question) {
    using enum Attempt::Outcome;
    switch (told.outcome()) {
    case Told::Succeeded:
        return decrypted;
    case Told::NegativeSerialNumber:
        return unnamed;
    case Told::NotTried:
        return notTried;
    case Told::UnsupportedAlgorithm:
        return unsupported;
    case Told::KeyOfAnotherCertificate:
        return foreignKey;
    default:
        break;
    }
    if (question.identity == nullptr || told.outcome() == Told::NoKey)
        return noKey;
    return isRsa(question.identity->key) ? failed : noRsaKey;
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
            "issuer " + displayName(issuer) + " serial number " + serial.hex(), identity};
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

bool DecryptionResult::needsMore() const {
    const auto needs = [](const Attempt& one) { return one.outcome == Attempt::Outcome::unsupported; };
    return !decrypted && (!unsupported.empty() || std::any_of(attempts.begin(), attempts.end(), needs));
}

std::string inOneLine(const std::list<std::string>& names) {
    std::string text;
    for (const std::string& name : names)
        text += (text.empty() ? "" : ", ") + name;
    return text;
}

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
        throw Failure(name + " needs what is not supported: " + inOneLine(m_unsupported));
}

DecryptionResult TrialDecryption::run(const std::string& name) {
    const Listening listening(std::make_shared<StructureSink>(m_state));
    const bool decrypted = m_decrypter->decrypt(m_body);
    if (m_state->notEnveloped) {
        m_unsupported = CMS::EnvelopeOutline(copied()).unsupported();
        refuseUnsupported(name);
        throw Failure(name + " holds no encrypted body" +
                      (m_state->unknownType.empty() ? "" : " but the unknown type " + m_state->unknownType));
    }
    DecryptionResult result{decrypted, m_state->contentMissing, {}, m_unsupported};
    for (const Told& told : m_decrypter->attempts()) {
        const auto asked = m_state->questions.find(result.attempts.size());
        const Question question = asked == m_state->questions.end() ? Question() : asked->second;
        result.attempts.push_back(
            {question.recipient, outcomeOf(told, question),
             question.identity == nullptr ? std::nullopt : std::optional<OwnIdentity>(*question.identity),
             told.algorithm()});
    }
    return result;
}

Norvane::MediaIn TrialDecryption::body() const {
    return m_body.in();
}

} // namespace norvcrypt
