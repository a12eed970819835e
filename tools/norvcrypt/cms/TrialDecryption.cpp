#include "cms/TrialDecryption.h"
#include "base/Failure.h"
#include "files/Spill.h"
#include "openssl/CertificateDetails.h"
#include "openssl/CmsNames.h"

#include <norvcrypto-keystore/KeyFiles.h>
#include <norvcrypto/Key.h>
#include <norvcrypto/KeyStore.h>

#include <algorithm>
#include <utility>

namespace norvcrypt {

namespace NVX509 = Norvane::Crypto::NVX509;
namespace CMS = Norvane::Crypto::CMS;
using CMS::CertificateIdentifier;
using CMS::EnvelopeReader;
using CMS::NamedBy;
using Recipient = EnvelopeReader::Recipient;

namespace {

// What a message may cost: each try reads all of it. With one key for the many names that a recipient repeats, or with many.
constexpr int mostTriesForOneName = 3;
constexpr int mostTries = 12;

bool belongsTogether(const OwnIdentity& identity) {
    return NVX509::belongTogether(identity.key, identity.certificate);
}

/// What names of the same certificate have in common however they are encoded; nothing for a negative number.
std::optional<std::string> distinctive(const CertificateIdentifier& name) {
    if (name.namedBy() == NamedBy::subjectKeyIdentifier)
        return "identifier " + hexText(name.octets());
    return name.serialNumber().isNull() ? std::nullopt : std::optional("number " + name.serialNumber()->hex());
}

std::optional<CertificateIdentifier> nameFor(const OwnIdentity& identity, NamedBy namedBy) {
    try {
        return CertificateIdentifier(identity.certificate, namedBy);
    } catch (const Norvane::Exception&) {
        return std::nullopt; // it has no key identifier
    }
}

} // namespace

bool DecryptionResult::needsMore() const {
    const auto needs = [](const Attempt& one) {
        using enum Attempt::Outcome;
        return one.outcome == unsupported || one.outcome == tooCostly || one.outcome == notTried;
    };
    return !decrypted && std::any_of(attempts.begin(), attempts.end(), needs);
}

DecryptionKeys::DecryptionKeys(std::vector<OwnIdentity> identities, std::optional<StoreIdentities> store,
                               std::optional<SharedSecret> password, std::optional<SharedSecret> keyEncryptionKey)
    : m_identities(std::move(identities)),
      m_store(std::move(store)),
      m_password(std::move(password)),
      m_keyEncryptionKey(std::move(keyEncryptionKey)) {
    for (const OwnIdentity& identity : m_identities) {
        identity.certificate->warm(); // threads share it
        for (const NamedBy namedBy : {NamedBy::issuerAndSerialNumber, NamedBy::subjectKeyIdentifier})
            if (const auto name = nameFor(identity, namedBy))
                if (const auto key = distinctive(*name))
                    m_byName[*key].push_back(&identity);
    }
}

DecryptionKeys::~DecryptionKeys() = default;

TrialDecryption::TrialDecryption(const DecryptionKeys& keys) : m_keys(keys) {}

TrialDecryption::~TrialDecryption() = default;

void TrialDecryption::openReader(StructureFile& file) {
    const auto& type = file.contentType();
    try {
        m_reader.emplace(file.structure());
        m_reader->spillTo(spillTemplate());
        m_readerIsUsed = false;
    } catch (const Norvane::Exception& failure) {
        if (!type.name.empty() && type.name != "pkcs7-envelopedData" && type.name != "id-smime-ct-authEnvelopedData")
            throw Failure(file.name() + " holds no encrypted body" +
                          (!type.isKnown ? " but the unknown type " + type.name
                           : type.name == "pkcs7-signedData"
                               ? " but what norvcrypt verify reads: signatures or certificates"
                               : " but " + type.name));
        throw Failure("cannot read the encrypted message in " + file.name(), failure);
    }
}

/// What no key helps with.
void TrialDecryption::requireSupported(StructureFile& file) const {
    if (!m_reader->unsupported().empty())
        throw Failure(file.name() + " needs what is not supported: " + m_reader->unsupported());
}

void DecryptionKeys::find(const CertificateIdentifier& name, Attempt& attempt) const {
    using enum Attempt::Outcome;
    const auto take = [&attempt](const OwnIdentity& identity) {
        attempt.identity = identity;
        attempt.outcome = attempt.kind == Recipient::keyTransport && !isRsa(identity.key) ? unfitKey : failed;
    };
    const auto key = distinctive(name);
    const auto found = key ? m_byName.find(*key) : m_byName.end();
    static const std::vector<const OwnIdentity*> none;
    // cppcheck-suppress derefInvalidIterator ; the end is not looked at
    for (const OwnIdentity* const identity : found == m_byName.end() ? none : found->second) {
        if (!name.names(identity->certificate))
            continue;
        if (belongsTogether(*identity)) {
            take(*identity);
            return;
        }
        if (!attempt.identity) {
            attempt.identity = *identity;
            attempt.outcome = foreignKey;
        }
    }
    if (const auto stored = m_store && key ? m_store->find(name) : std::nullopt)
        take(*stored);
}

/// Whether there is something to try; the outcome is `failed` then, for now.
Attempt TrialDecryption::consider(const Recipient& recipient) const {
    using enum Attempt::Outcome;
    Attempt attempt;
    attempt.kind = recipient.kind();
    attempt.outcome = noKey;
    switch (recipient.kind()) {
    case Recipient::keyTransport:
    case Recipient::keyAgreement: {
        const auto name = recipient.identifier();
        if (!name)
            return attempt;
        if (name->namedBy() == NamedBy::issuerAndSerialNumber && name->serialNumber().isNull()) {
            attempt.outcome = unnamed;
            return attempt;
        }
        attempt.recipient = nameOf(*name);
        m_keys.find(*name, attempt);
        break;
    }
    case Recipient::keyEncryptionKey:
        attempt.recipient = "key-encryption key " + hexText(recipient.keyIdentifier());
        if (m_keys.keyEncryptionKey()) {
            attempt.outcome = failed;
            attempt.secretFile = m_keys.keyEncryptionKey()->file;
        }
        break;
    case Recipient::password:
        attempt.recipient = "password";
        if (m_keys.password()) {
            attempt.outcome = failed;
            attempt.secretFile = m_keys.password()->file;
        }
        break;
    case Recipient::other:
        attempt.outcome = failed; // for whom it is nobody knows
        break;
    }
    if (attempt.outcome != failed)
        return attempt;
    attempt.algorithm = recipient.unsupported();
    if (!attempt.algorithm.empty())
        attempt.outcome = unsupported;
    else if (recipient.kind() == Recipient::other)
        attempt.outcome = noKey;
    return attempt;
}

bool TrialDecryption::openWith(std::size_t number, const Attempt& attempt) {
    const Recipient& recipient = m_reader->recipients().at(number);
    m_readerIsUsed = true;
    switch (attempt.kind) {
    case Recipient::keyEncryptionKey:
        return m_reader->open(recipient, m_keys.keyEncryptionKey()->octets);
    case Recipient::password:
        return m_reader->openWithPassword(recipient, m_keys.password()->octets);
    default:
        return m_reader->open(recipient,
                              NVX509::KeyCertificatePair(attempt.identity->key, attempt.identity->certificate));
    }
}

/// False for a message that does not decrypt.
bool TrialDecryption::decryptInto(StructureFile& file, HeldBody& body) {
    try {
        if (m_reader->isAuthenticated())
            static_cast<void>(m_reader->peek()); // all of it is verified before there is a first byte
        else
            m_reader->write(body.sink());
        return true;
    } catch (const Norvane::Crypto::TooCostlyException& failure) {
        throw Failure("cannot read the encrypted message in " + file.name(), failure);
    } catch (const Norvane::Exception&) {
        if (m_reader->verdict() != EnvelopeReader::Damaged)
            throw; // of where it goes
    }
    if (file.endedEarly())
        throw Failure("cannot read the encrypted message in " + file.name() + ": it ends before its end");
    return false;
}

bool TrialDecryption::tryKey(StructureFile& file, std::size_t number, Attempt& attempt, HeldBody& body) {
    if (m_readerIsUsed) {
        body.restart();
        openReader(file);
    }
    try {
        if (!openWith(number, attempt)) {
            attempt.outcome = Attempt::Outcome::unfitKey;
            return false;
        }
    } catch (const Norvane::Crypto::TooCostlyException& failure) {
        attempt.outcome = Attempt::Outcome::tooCostly;
        attempt.algorithm = inPlainWords(failure);
        return false;
    }
    if (!decryptInto(file, body))
        return false;
    file.requireEnd();
    attempt.outcome = Attempt::Outcome::decrypted;
    return true;
}

DecryptionResult TrialDecryption::run(StructureFile& file, HeldBody& body) {
    openReader(file);
    requireSupported(file);
    DecryptionResult result;
    result.contentMissing = !m_reader->hasContent();
    if (result.contentMissing)
        return result;
    for (const Recipient& recipient : m_reader->recipients())
        result.attempts.push_back(consider(recipient));

    std::map<std::string, int> tries;
    int allTries = 0;
    auto toTry = std::count_if(result.attempts.begin(), result.attempts.end(),
                               [](const Attempt& one) { return one.outcome == Attempt::Outcome::failed; });
    for (std::size_t number = 0; number != result.attempts.size(); ++number) {
        Attempt& attempt = result.attempts[number];
        if (attempt.outcome != Attempt::Outcome::failed)
            continue;
        if (--toTry == 0)
            file.readOnce();
        if (allTries == mostTries || tries[attempt.recipient] == mostTriesForOneName) {
            attempt.outcome = Attempt::Outcome::notTried;
            continue;
        }
        ++allTries;
        ++tries[attempt.recipient];
        result.decrypted = tryKey(file, number, attempt, body);
        if (result.decrypted) {
            result.attempts.resize(number + 1);
            break;
        }
    }
    return result;
}

void TrialDecryption::deliver(HeldBody& body) {
    body.release();
    if (m_reader->isAuthenticated())
        m_reader->write(body.sink());
}

} // namespace norvcrypt
