#include "cms/TrialDecryption.h"
#include "base/Failure.h"
#include "openssl/CertificateDetails.h"

#include <norvcmsg/Logger.h>
#include <norvcmsg/SwapBufferMediaOut.h>
#include <norvcrypto-keystore/KeyFiles.h>
#include <norvcrypto/KeyStore.h>

#include <cstdlib>
#include <utility>

namespace norvcrypt {

namespace NVX509 = Norvane::Crypto::NVX509;
namespace CMS = Norvane::Crypto::CMS;
namespace ASN1 = Norvane::Crypto::ASN1;

namespace {

constexpr unsigned int keptInMemory = 1U << 20U;

Norvane::SwapBufferMediaOut emptySpill() {
    const char* const directory = std::getenv("TMPDIR"); // NOLINT(concurrency-mt-unsafe): one thread
    const std::string place = directory == nullptr || *directory == '\0' ? "/tmp" : directory;
    return {keptInMemory, (place + "/norvcrypt-XXXXXX").c_str()};
}

/// A recipient while the library tries it.
struct Trial {
    std::string recipient;
    const OwnIdentity* identity = nullptr; ///< with the key that is tried
    bool failed = false;
};

bool belongsTogether(const OwnIdentity& identity) {
    return NVX509::belongTogether(identity.key, identity.certificate);
}

bool isNamed(const OwnIdentity& identity, const NVX509::DistinguishedName& issuer, const ASN1::Integer& serial) {
    // Not through the certificate's own accessor, which refuses negative numbers.
    return hasSerialNumber(identity.certificate, serial.object()) && identity.certificate->issuer() == issuer;
}

Attempt::Outcome outcomeOf(const Trial& trial) {
    using enum Attempt::Outcome;
    if (!trial.failed)
        return decrypted;
    if (trial.recipient.empty())
        return unnamed;
    if (trial.identity == nullptr)
        return noKey;
    if (!belongsTogether(*trial.identity))
        return foreignKey;
    return isRsa(trial.identity->key) ? failed : noRsaKey;
}

Attempt attemptOf(const Trial& trial) {
    return {trial.recipient, outcomeOf(trial),
            trial.identity == nullptr ? std::nullopt : std::optional<OwnIdentity>(*trial.identity)};
}

} // namespace

/// What the key store, the log and the target know of one run; the library drives them in turn, recipient by recipient.
struct TrialDecryption::State {
    std::vector<OwnIdentity> identities;
    std::vector<Trial> trials;
    Norvane::SwapBufferMediaOut spill = emptySpill();
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

/// Answers with the identities, and begins an attempt with each question.
class IdentityPlugin : public NVX509::KeyStorePlugin {
public:
    explicit IdentityPlugin(std::shared_ptr<TrialDecryption::State> state) : m_state(std::move(state)) {}

    NVX509::KeyCertificatePair find(const NVX509::DistinguishedName& issuer, const ASN1::Integer& serial) override {
        const OwnIdentity* const identity = m_state->find(issuer, serial);
        m_state->trials.push_back({"issuer " + displayName(issuer) + " serial number " + serial.hex(), identity});
        // What an earlier attempt wrote is no part of the body.
        m_state->spill = emptySpill();
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

/// Writes to the spill of the present attempt.
class SpillTarget : public Norvane::MediaOutImpl {
public:
    explicit SpillTarget(std::shared_ptr<TrialDecryption::State> state) : m_state(std::move(state)) {}

    using MediaOutImpl::write;
    void write(const unsigned char* data, unsigned int length) override { m_state->spill.write(data, length); }

private:
    std::shared_ptr<TrialDecryption::State> m_state;
};

/// Takes from the log what the library's lists do not tell.
class AttemptsSink : public Norvane::LogSink {
public:
    explicit AttemptsSink(std::shared_ptr<TrialDecryption::State> state) : m_state(std::move(state)) {}

    void record(const Norvane::LogRecord& record) override {
        auto& trials = m_state->trials;
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
        case 0x300005A:
        case 0x300005B:
            // The store was not asked: the library cannot name such a recipient.
            if (trials.empty() || trials.back().failed)
                trials.push_back({});
            trials.back().failed = true;
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

TrialDecryption::TrialDecryption(std::vector<OwnIdentity> identities) : m_state(std::make_shared<State>()) {
    m_state->identities = std::move(identities);
}

TrialDecryption::~TrialDecryption() = default;

void TrialDecryption::open(Norvane::MediaIn& structure) {
    const NVX509::RefKeyStore keys(true);
    keys->add(NVX509::RefKeyStorePlugin(new IdentityPlugin(m_state)));
    m_decrypter.emplace(structure, keys);
}

DecryptionResult TrialDecryption::run(const std::string& name) {
    const Listening listening(std::make_shared<AttemptsSink>(m_state));
    Norvane::MediaOut target(Norvane::makeReference<SpillTarget, Norvane::MediaOutImpl>(m_state));
    m_decrypter->write(target);
    if (m_state->notEnveloped)
        throw Failure(name + " holds no encrypted body" +
                      (m_state->unknownType.empty() ? "" : " but the unknown type " + m_state->unknownType));
    DecryptionResult result{m_decrypter->decryptionSucceeded(), m_state->contentMissing, {}};
    for (const Trial& trial : m_state->trials)
        result.attempts.push_back(attemptOf(trial));
    return result;
}

Norvane::MediaIn TrialDecryption::body() const {
    return m_state->spill.in();
}

} // namespace norvcrypt
