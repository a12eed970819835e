#include "failures/Events.h"
#include "failures/Failures.h"

#include <norvcrypto/CertBinding.h>

#include <openssl/crypto.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <list>
#include <string>

namespace Norvane {

template class RefCounted<Crypto::CertBinding>;
template class Ref<Crypto::CertBinding>;

} // namespace Norvane

namespace Norvane::Crypto {

namespace {

/// A pass phrase as keys take it, wiped at the end.
class PassPhrase {
public:
    explicit PassPhrase(const char* text) : m_text(text == nullptr ? "" : text) {}
    ~PassPhrase() { OPENSSL_cleanse(m_text.data(), m_text.size()); }
    PassPhrase(const PassPhrase&) = delete;
    PassPhrase& operator=(const PassPhrase&) = delete;
    [[nodiscard]] const std::string& text() const noexcept { return m_text; }

private:
    std::string m_text;
};

/// Borrows a text. One that a buffer cannot count is cut, and still longer than what any reader takes.
Buffer borrowed(const char* text) {
    return {text, static_cast<unsigned int>(std::min<std::size_t>(std::strlen(text), UINT_MAX)), true};
}

/// Hands a text to its reader, unless there is none; a failure is logged and not passed on.
template <class Read> void readWhenGiven(const char* text, const failures::Failure& failure, Read read) {
    if (text == nullptr || *text == '\0') {
        return;
    }
    try {
        read(borrowed(text));
    } catch (const Exception& exception) {
        failures::logFailure(failures::Event::bindingUnreadable, failure, exception.asString());
    }
}

} // namespace

CertBinding::CertBinding() = default;

CertBinding::CertBinding(int id, const StringPattern& pattern, KeyType keyType, KeyUsage keyUsage,
                         unsigned int position, int status)
    : m_id(id),
      m_namePattern(pattern),
      m_keyType(keyType),
      m_keyUsage(keyUsage),
      m_position(position),
      m_status(status) {}

CertBinding::~CertBinding() = default;

CertBindingX509::CertBindingX509() = default;

CertBindingX509::CertBindingX509(int id, const StringPattern& pattern, KeyType keyType, KeyUsage keyUsage,
                                 unsigned int position, int status, const char* keyPem, const char* certificatePem,
                                 const char* passPhrase)
    : CertBinding(id, pattern, keyType, keyUsage, position, status) {
    readWhenGiven(certificatePem, failures::bindingCertificates, [&](const Buffer& pem) {
        std::list<NVX509::RefCertificate> certificates;
        NVX509::CertificateFactory().readPem(pem, certificates);
        if (!certificates.empty()) {
            m_pair->certificate = certificates.front();
            certificates.pop_front();
            m_pair->chain = certificates;
        }
    });
    readWhenGiven(keyPem, failures::bindingKey, [&](Buffer pem) {
        pem.protect();
        const PassPhrase opening(passPhrase);
        m_pair->key = RefKey(Key::PRIVATE_KEY); // stays, empty, when it cannot be read
        m_pair->key->readPEM(pem, opening.text());
    });
}

CertBindingX509::~CertBindingX509() = default;

NVX509::KeyCertificatePair CertBindingX509::keyPairX509() const {
    return m_pair;
}

RefCertBinding::RefCertBinding() = default;

RefCertBinding::RefCertBinding(int id, const StringPattern& pattern, CertBinding::KeyType keyType,
                               CertBinding::KeyUsage keyUsage, unsigned int position, int status, const char* keyPem,
                               const char* certificatePem, const char* passPhrase) {
    if (keyType == CertBinding::X509) {
        reset(makeReference<CertBindingX509, CertBinding>(id, pattern, keyType, keyUsage, position, status, keyPem,
                                                          certificatePem, passPhrase));
    }
}

RefCertBinding::RefCertBinding(CertBinding* binding) : Ref(adoptBody(binding)) {}
RefCertBinding::RefCertBinding(const RefCertBinding& other) = default;
RefCertBinding& RefCertBinding::operator=(const RefCertBinding& other) = default;
RefCertBinding::~RefCertBinding() = default;

bool RefCertBinding::operator<(const RefCertBinding& other) const {
    if (isNull() || other.isNull()) {
        return isNull() && !other.isNull();
    }
    return (**this).position() < (*other).position();
}

} // namespace Norvane::Crypto
