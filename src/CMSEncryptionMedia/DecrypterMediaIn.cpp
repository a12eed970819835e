// The decrypting stream.
#include "CMS/PairedKeys.h"
#include "CMS/StructureParts.h"
#include "CMSEncryptionMedia/TryLimits.h"
#include "failures/Events.h"
#include "failures/Raise.h"
#include "openssl/ContentDecryption.h"
#include "openssl/ErrorQueue.h"
#include "openssl/KeyComparison.h"
#include "openssl/Pkcs7.h"
#include "openssl/StreamExceptions.h"

#include <norvcrypto/CMSEncryptionMedia.h>

#include <map>
#include <new>
#include <string_view>
#include <utility>

namespace Norvane::Crypto::CMS {

using failures::Event;

namespace {

constexpr unsigned int s_spillLimit = 0x10000;
constexpr const char* s_spillTemplate = "/var/spool/tmp/swapXXXXXX";

/// The issuer of recipients, decoded and taken to text once however many name it, as those of one company do.
struct Issuer {
    openssl::NamePtr decoded;
    NVX509::DistinguishedName name;
    NVX509::RefDistinguishedName shared; ///< parsed anew from its text, see `Identifier`
};

class Issuers {
public:
    /// \param element a Name that OpenSSL is certain to decode
    const Issuer& of(framing::Octets element) {
        const std::string_view key(reinterpret_cast<const char*>(element.data()), element.size());
        const auto [entry, isNew] = m_issuers.try_emplace(key);
        Issuer& issuer = entry->second;
        if (!isNew) {
            // More than one record has this name from here on, and threads may have one each.
            static_cast<void>(issuer.shared->asString());
            static_cast<void>(issuer.shared->hash());
            return issuer;
        }
        const openssl::ErrorMark mark;
        const unsigned char* at = element.data();
        issuer.decoded.reset(d2i_X509_NAME(nullptr, &at, static_cast<long>(element.size())));
        if (issuer.decoded == nullptr) {
            throw std::bad_alloc();
        }
        issuer.name = NVX509::DistinguishedName(issuer.decoded.get());
        issuer.shared = NVX509::RefDistinguishedName(issuer.name.asString());
        return issuer;
    }

private:
    std::map<std::string_view, Issuer> m_issuers;
};

/// Who a recipient is, as a key store is asked.
class RecipientName {
public:
    RecipientName(openssl::LazyPkcs7& structure, std::size_t index, Issuers& issuers) {
        if (const openssl::AssuredName* name = structure.nameOfRecipient(index)) {
            const Issuer& known = issuers.of(name->issuer);
            m_issuer = &known.name;
            m_shared = known.shared;
            readSerial(
                [&] { return ASN1::RefInteger(name->serial.data(), static_cast<unsigned int>(name->serial.size())); });
            return;
        }
        const PKCS7_ISSUER_AND_SERIAL* name = structure.recipient(index)->issuer_and_serial;
        m_own = NVX509::DistinguishedName(name->issuer);
        m_issuer = &m_own;
        m_shared = NVX509::RefDistinguishedName(m_own.asString());
        readSerial([&] { return ASN1::RefInteger(ASN1::Integer(name->serial)); });
    }
    RecipientName(const RecipientName&) = delete;
    RecipientName& operator=(const RecipientName&) = delete;

    [[nodiscard]] const NVX509::DistinguishedName& issuer() const noexcept { return *m_issuer; }
    [[nodiscard]] const NVX509::RefDistinguishedName& sharedIssuer() const noexcept { return m_shared; }
    /// A null handle when the serial number is negative, which no `Integer` holds.
    [[nodiscard]] const ASN1::RefInteger& serialNumber() const noexcept { return m_serial; }

private:
    template <class Read> void readSerial(Read read) {
        try {
            m_serial = read();
        } catch (const Exception&) {
            m_serial = ASN1::RefInteger();
        }
    }

    const NVX509::DistinguishedName* m_issuer = nullptr;
    NVX509::DistinguishedName m_own;
    NVX509::RefDistinguishedName m_shared;
    ASN1::RefInteger m_serial;
};

bool hasPrivateKey(const NVX509::KeyCertificatePair& pair) {
    return pair && isPrivateKey(pair->key);
}

/// Tries a key of another name (a renewed certificate, a plug-in that knows one key) on the recipients. The one that was
/// asked for comes last, so that its content key is taken when it opens; the work does not tell which ones open.
void openAny(openssl::ContentDecryption& content, openssl::LazyPkcs7& structure, const PKCS7_RECIP_INFO* asked,
             EVP_PKEY* key, TryLimits& limits) {
    const bool forAsked = !openssl::isOtherKeyEncryption(asked) && limits.takeOperation();
    for (std::size_t at = 0; at != structure.recipients(); ++at) {
        const PKCS7_RECIP_INFO* one = structure.recipient(at);
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
    openssl::LazyPkcs7& structure;
    std::string unsupportedCipher;
    Issuers issuers;
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
    if (m_contentInfo->typeAsEnum() != ContentInfo::EnvelopedData) {
        failures::logEvent(Event::notEnveloped, " ");
        return false;
    }
    openssl::LazyPkcs7& structure = *StructureParts::of(m_contentInfo);
    if (!structure.encryptedOctets().isThere()) {
        failures::logEvent(Event::encryptedContentMissing, "CMSEncryptionMedia.cpp", 250);
        return false;
    }
    Round round{out, fresh, structure, openssl::unsupportedContentCipher(structure.structure()), {}, {}, 0};
    bool good = false;
    for (std::size_t recipient = 0; !good && recipient != structure.recipients(); ++recipient) {
        good = isDecryptedFor(recipient, round);
    }
    if (round.untried != 0) {
        failures::logEvent(Event::recipientsNotTried, "recipients not tried", round.untried);
    }
    return good;
}

/// Asks for one recipient's key and tries it.
bool DecrypterMediaInImpl::isDecryptedFor(std::size_t recipient, Round& round) {
    const RecipientName name(round.structure, recipient, round.issuers);
    const DecrypterMediaIn::Identifier identifier(name.sharedIssuer(), name.serialNumber());
    if (name.serialNumber().isNull()) {
        failures::logEvent(Event::recipientFailed, " ");
        m_attempts.emplace_back(identifier, Attempt::NegativeSerialNumber);
        return false;
    }
    const ASN1::Integer& serialNumber = *name.serialNumber();
    if (round.limits.hasTried() && round.limits.isNameUsedUp(round.structure.recipient(recipient))) {
        return recordUntried(identifier, round);
    }
    const NVX509::KeyCertificatePair pair = m_keys->find(name.issuer(), serialNumber);
    if (!hasPrivateKey(pair)) {
        m_failed.push_back(identifier);
        m_attempts.emplace_back(identifier, Attempt::NoKey);
        failures::logEvent(Event::recipientKeyMissing, name.issuer().asString(), serialNumber.hex());
        return false;
    }
    return isDecryptedWith(*pair, recipient, identifier, round);
}

bool DecrypterMediaInImpl::isDecryptedWith(const NVX509::_KeyCertificatePair& pair, std::size_t recipient,
                                           const DecrypterMediaIn::Identifier& identifier, Round& round) {
    const PKCS7_RECIP_INFO* asked = round.structure.recipient(recipient);
    X509* certificate = pair.certificate;
    EVP_PKEY* key = pair.key;
    const bool named = openssl::namesRecipient(certificate, asked);
    const std::string otherKeyEncryption = openssl::otherKeyEncryption(asked);
    // Its result would be one by chance.
    if (named && !openssl::keyMatchesCertificate(certificate, key)) {
        return recordFailure({identifier, Attempt::KeyOfAnotherCertificate});
    }
    if (!round.unsupportedCipher.empty()) {
        return recordFailure({identifier, Attempt::UnsupportedAlgorithm, round.unsupportedCipher});
    }
    if (openssl::isOtherKeyEncryption(asked)) {
        return recordFailure({identifier, Attempt::UnsupportedAlgorithm, otherKeyEncryption});
    }
    const auto failed = otherKeyEncryption.empty() ? Attempt::Failed : Attempt::UnsupportedAlgorithm;
    if (!openssl::isOfType(key, "RSA") || (!named && round.limits.wasTriedOnAll(key))) {
        return recordFailure({identifier, failed, otherKeyEncryption});
    }
    if (round.limits.isMessageUsedUp() || (!named && round.limits.areOperationsUsedUp())) {
        return recordUntried(identifier, round);
    }
    round.limits.countTry(asked);
    openssl::ContentDecryption content(round.structure);
    if (named) {
        content.open(asked, key);
    } else {
        round.limits.rememberOnAll(key);
        openAny(content, round.structure, asked, key, round.limits);
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
