// The decrypting stream.
#include "CMS/PairedKeys.h"
#include "CMSEncryptionMedia/TryLimits.h"
#include "failures/Events.h"
#include "failures/Raise.h"
#include "openssl/ContentDecryption.h"
#include "openssl/ErrorQueue.h"
#include "openssl/Pkcs7.h"
#include "openssl/StreamExceptions.h"

#include <norvcrypto/CMSEncryptionMedia.h>

#include <optional>
#include <sstream>
#include <utility>

namespace Norvane::Crypto::CMS {

using failures::Event;

namespace {

constexpr unsigned int s_spillLimit = 0x10000;
constexpr const char* s_spillTemplate = "/var/spool/tmp/swapXXXXXX";

std::string textOf(const ASN1::Integer& serial) {
    std::ostringstream text;
    text << serial;
    return text.str();
}

/// Who a recipient is, or nothing when its serial number is negative, which no `Integer` holds.
std::optional<DecrypterMediaIn::Identifier> identifierOf(const IssuerAndSerialNumber& recipient) {
    try {
        return DecrypterMediaIn::Identifier(recipient);
    } catch (const Exception&) {
        return std::nullopt;
    }
}

bool hasPrivateKey(const NVX509::KeyCertificatePair& pair) {
    return pair && isPrivateKey(pair->key);
}

/// Tries a key of another name (a renewed certificate, a plug-in that knows one key) on the recipients. The one that was
/// asked for comes last, so that its content key is taken when it opens; the work does not tell which ones open.
void openAny(openssl::ContentDecryption& content, const std::list<RecipientInfo>& recipients,
             const PKCS7_RECIP_INFO* asked, EVP_PKEY* key, TryLimits& limits) {
    const bool forAsked = !openssl::isOtherKeyEncryption(asked) && limits.takeOperation();
    for (const RecipientInfo& other : recipients) {
        const PKCS7_RECIP_INFO* one = other;
        if (one != asked && !openssl::isOtherKeyEncryption(one)) {
            if (!limits.takeOperation()) {
                break;
            }
            content.open(one, key);
        }
    }
    if (forAsked) {
        content.open(asked, key);
    }
}

} // namespace

/// One walk over the recipients.
struct DecrypterMediaInImpl::Round {
    MediaOut& out;
    SwapBufferMediaOut* fresh; ///< `out`, when each try starts afresh
    const std::list<RecipientInfo>& recipients;
    std::string unsupportedCipher;
    TryLimits limits;
    int untried;
};

DecrypterMediaIn::Identifier::Identifier(const IssuerAndSerialNumber& recipient)
    : m_issuer(recipient.issuer().asString()),
      m_serialNumber(recipient.serialNumber()) {}

DecrypterMediaIn::Identifier::Identifier(const NVX509::RefDistinguishedName& issuer,
                                         const ASN1::RefInteger& serialNumber)
    : m_issuer(issuer),
      m_serialNumber(serialNumber) {}

DecrypterMediaIn::DecryptedOutput::DecryptedOutput(const IssuerAndSerialNumber& recipient)
    : m_identifier(recipient),
      m_output(s_spillLimit, s_spillTemplate) {}

DecrypterMediaIn::DecryptedOutput::DecryptedOutput(const NVX509::RefDistinguishedName& issuer,
                                                   const ASN1::RefInteger& serialNumber)
    : m_identifier(issuer, serialNumber),
      m_output(s_spillLimit, s_spillTemplate) {}

DecrypterMediaIn::Attempt::Attempt(Identifier recipient, Outcome outcome, std::string algorithm,
                                   unsigned long bytesWritten)
    : m_recipient(std::move(recipient)),
      m_outcome(outcome),
      m_algorithm(std::move(algorithm)),
      m_bytesWritten(bytesWritten) {}

DecrypterMediaInImpl::DecrypterMediaInImpl(MediaIn& in, const NVX509::RefKeyStore& keys)
    : m_contentInfo(in),
      m_keys(keys) {}

DecrypterMediaInImpl::~DecrypterMediaInImpl() = default;

bool DecrypterMediaInImpl::atEnd() const {
    return false;
}

int DecrypterMediaInImpl::peek() const {
    return 0;
}

int DecrypterMediaInImpl::read(unsigned char* /*out*/, unsigned int /*length*/) {
    failures::logEvent(Event::encryptedBytesRead,
                       "virtual int Norvane::Crypto::CMS::DecrypterMediaInImpl::read(Norvane::uchar_t*, "
                       "Norvane::uint_t)");
    return 0;
}

MediaOut& DecrypterMediaInImpl::write(MediaOut& out) {
    tryRecipients(out, nullptr);
    return out;
}

bool DecrypterMediaInImpl::decrypt(SwapBufferMediaOut& out) {
    out.clear();
    bool good = false;
    try {
        good = tryRecipients(out, &out);
    } catch (...) {
        out.clear();
        throw;
    }
    if (!good) {
        out.clear();
    }
    return good;
}

/// Tries the recipients in their order; `fresh` is emptied before each that is decrypted for.
bool DecrypterMediaInImpl::tryRecipients(MediaOut& out, SwapBufferMediaOut* fresh) {
    if (m_contentInfo.isNull()) {
        return false;
    }
    if (m_contentInfo->typeAsEnum() != ContentInfo::EnvelopedData) {
        failures::logEvent(Event::notEnveloped, " ");
        return false;
    }
    if (openssl::encryptedContent(m_contentInfo) == nullptr) {
        failures::logEvent(Event::encryptedContentMissing, "CMSEncryptionMedia.cpp", 250);
        return false;
    }
    const EnvelopedData envelope = envelopedData(m_contentInfo);
    const std::list<RecipientInfo>& recipients = envelope.recipientInfo();
    Round round{out, fresh, recipients, openssl::unsupportedContentCipher(m_contentInfo), {}, 0};
    bool good = false;
    for (auto recipient = recipients.begin(); !good && recipient != recipients.end(); ++recipient) {
        good = isDecryptedFor(*recipient, round);
    }
    if (round.untried != 0) {
        failures::logEvent(Event::recipientsNotTried, "recipients not tried", round.untried);
    }
    return good;
}

/// Asks for one recipient's key and tries it.
bool DecrypterMediaInImpl::isDecryptedFor(const RecipientInfo& recipient, Round& round) {
    const IssuerAndSerialNumber& name = recipient.issuerAndSerialNumber();
    const auto identifier = identifierOf(name);
    if (!identifier) {
        failures::logEvent(Event::recipientFailed, " ");
        const NVX509::RefDistinguishedName issuer(name.issuer().asString());
        m_attempts.emplace_back(DecrypterMediaIn::Identifier(issuer, ASN1::RefInteger()),
                                Attempt::NegativeSerialNumber);
        return false;
    }
    if (round.limits.isNameUsedUp(recipient)) {
        return recordUntried(*identifier, round);
    }
    const NVX509::KeyCertificatePair pair = m_keys->find(name.issuer(), name.serialNumber());
    if (!hasPrivateKey(pair)) {
        m_failed.push_back(*identifier);
        m_attempts.emplace_back(*identifier, Attempt::NoKey);
        failures::logEvent(Event::recipientKeyMissing, name.issuer().asString(), textOf(name.serialNumber()));
        return false;
    }
    return isDecryptedWith(*pair, recipient, *identifier, round);
}

bool DecrypterMediaInImpl::isDecryptedWith(const NVX509::_KeyCertificatePair& pair, const RecipientInfo& recipient,
                                           const DecrypterMediaIn::Identifier& identifier, Round& round) {
    const PKCS7_RECIP_INFO* asked = recipient;
    X509* certificate = pair.certificate;
    EVP_PKEY* key = pair.key;
    const bool named = openssl::namesRecipient(certificate, asked);
    const std::string otherKeyEncryption = openssl::otherKeyEncryption(asked);
    // Its result would be one by chance.
    if (named && !belongTogether(certificate, key)) {
        return recordFailure({identifier, Attempt::KeyOfAnotherCertificate});
    }
    if (!round.unsupportedCipher.empty()) {
        return recordFailure({identifier, Attempt::UnsupportedAlgorithm, round.unsupportedCipher});
    }
    if (openssl::isOtherKeyEncryption(asked)) {
        return recordFailure({identifier, Attempt::UnsupportedAlgorithm, otherKeyEncryption});
    }
    const auto failed = otherKeyEncryption.empty() ? Attempt::Failed : Attempt::UnsupportedAlgorithm;
    if (EVP_PKEY_is_a(key, "RSA") != 1 || (!named && round.limits.wasTriedOnAll(key))) {
        return recordFailure({identifier, failed, otherKeyEncryption});
    }
    if (round.limits.isMessageUsedUp() || (!named && round.limits.areOperationsUsedUp())) {
        return recordUntried(identifier, round);
    }
    round.limits.countTry(asked);
    openssl::ContentDecryption content(m_contentInfo);
    if (named) {
        content.open(asked, key);
    } else {
        round.limits.rememberOnAll(key);
        openAny(content, round.recipients, asked, key, round.limits);
    }
    if (round.fresh != nullptr) {
        round.fresh->clear();
    }
    BIOMediaOut adapter(round.out);
    BIO* sink = adapter;
    const bool good = openssl::rethrowingStreamErrors(adapter, [&] { return content.write(sink); });
    const auto written = static_cast<unsigned long>(BIO_number_written(sink));
    if (!good) {
        return recordFailure({identifier, failed, otherKeyEncryption, written});
    }
    m_succeeded.emplace_back(identifier.issuer(), identifier.serialNumber());
    m_attempts.emplace_back(identifier, Attempt::Succeeded, std::string(), written);
    return true;
}

/// False, always.
bool DecrypterMediaInImpl::recordFailure(const Attempt& attempt) {
    m_failed.push_back(attempt.recipient());
    m_attempts.push_back(attempt);
    failures::logEvent(Event::recipientFailed, " ");
    return false;
}

/// False, always. Logged in sum.
bool DecrypterMediaInImpl::recordUntried(const DecrypterMediaIn::Identifier& identifier, Round& round) {
    m_failed.push_back(identifier);
    m_attempts.emplace_back(identifier, Attempt::NotTried);
    ++round.untried;
    return false;
}

DecrypterMediaIn::DecrypterMediaIn(MediaIn& in, const NVX509::RefKeyStore& keys)
    : MediaIn(makeReference<DecrypterMediaInImpl, MediaInImpl>(in, keys)) {}

DecrypterMediaIn::~DecrypterMediaIn() = default;

/// The body, which assigning through the base class can replace.
DecrypterMediaInImpl& DecrypterMediaIn::body() const {
    auto* body = dynamic_cast<DecrypterMediaInImpl*>(operator->());
    if (body == nullptr) {
        failures::raise(failures::decrypterBody);
    }
    return *body;
}

MediaOut& DecrypterMediaIn::write(MediaOut& out) {
    return body().write(out);
}

bool DecrypterMediaIn::decrypt(SwapBufferMediaOut& out) {
    return body().decrypt(out);
}

const std::list<DecrypterMediaIn::Attempt>& DecrypterMediaIn::attempts() const {
    return body().attempts();
}

const std::list<DecrypterMediaIn::DecryptedOutput>& DecrypterMediaIn::succeeded() const {
    return body().succeeded();
}

const std::list<DecrypterMediaIn::Identifier>& DecrypterMediaIn::failed() const {
    return body().failed();
}

bool DecrypterMediaIn::decryptionSucceeded() const {
    return !succeeded().empty();
}

} // namespace Norvane::Crypto::CMS
