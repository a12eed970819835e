// The decrypting stream.
#include "failures/Events.h"
#include "failures/Raise.h"
#include "openssl/Pkcs7.h"
#include "openssl/StreamExceptions.h"

#include <norvcrypto/CMSEncryptionMedia.h>

#include <optional>
#include <sstream>

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

/// The record of a recipient, or nothing when its serial number is negative, which no `Integer` holds.
std::optional<DecrypterMediaIn::DecryptedOutput> recordOf(const IssuerAndSerialNumber& recipient) {
    try {
        return DecrypterMediaIn::DecryptedOutput(recipient);
    } catch (const Exception&) {
        return std::nullopt;
    }
}

/// A public key in its place would not be refused by OpenSSL: it goes on with a random content key, and one time in 256
/// the result looks right.
bool hasPrivateKey(const NVX509::KeyCertificatePair& pair) {
    return pair && !pair->key.isNull() && dynamic_cast<const PublicKey*>(pair->key.operator->()) == nullptr &&
           static_cast<EVP_PKEY*>(pair->key) != nullptr;
}

/// Decrypts with a pair whose certificate names the recipient only for that recipient, and not at all with a key of
/// another certificate, which would come to an answer by chance. A pair of another name (a renewed certificate, a plug-in
/// that knows one key) is taken at its key, which is tried on every recipient.
bool decrypted(PKCS7* structure, const RecipientInfo& recipient, const NVX509::_KeyCertificatePair& pair, BIO* out) {
    X509* certificate = pair.certificate;
    const bool named = openssl::namesRecipient(certificate, recipient);
    if (named) {
        const openssl::ErrorMark mark;
        if (X509_check_private_key(certificate, pair.key) != 1) {
            return false;
        }
    }
    PKCS7_RECIP_INFO* only = recipient;
    return openssl::decryptFor(structure, named ? only : nullptr, pair.key, out);
}

} // namespace

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
    if (m_contentInfo.isNull()) {
        return out;
    }
    if (m_contentInfo->typeAsEnum() != ContentInfo::EnvelopedData) {
        failures::logEvent(Event::notEnveloped, " ");
        return out;
    }
    if (openssl::encryptedContent(m_contentInfo) == nullptr) {
        failures::logEvent(Event::encryptedContentMissing, "CMSEncryptionMedia.cpp", 250);
        return out;
    }
    const EnvelopedData envelope = envelopedData(m_contentInfo);
    for (const RecipientInfo& recipient : envelope.recipientInfo()) {
        if (decryptedFor(recipient, out)) {
            break;
        }
    }
    return out;
}

/// Tries one recipient and records how that went.
bool DecrypterMediaInImpl::decryptedFor(const RecipientInfo& recipient, MediaOut& out) {
    const IssuerAndSerialNumber& name = recipient.issuerAndSerialNumber();
    const auto record = recordOf(name);
    if (!record) {
        failures::logEvent(Event::recipientFailed, " ");
        return false;
    }
    const NVX509::KeyCertificatePair pair = m_keys->find(name.issuer(), name.serialNumber());
    if (!hasPrivateKey(pair)) {
        m_failed.push_back(record->identifier());
        failures::logEvent(Event::recipientKeyMissing, name.issuer().asString(), textOf(name.serialNumber()));
        return false;
    }
    BIOMediaOut adapter(out);
    BIO* sink = adapter;
    const bool good =
        openssl::rethrowingStreamErrors(adapter, [&] { return decrypted(m_contentInfo, recipient, *pair, sink); });
    if (!good) {
        m_failed.push_back(record->identifier());
        failures::logEvent(Event::recipientFailed, " ");
        return false;
    }
    m_succeeded.push_back(*record);
    return true;
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
