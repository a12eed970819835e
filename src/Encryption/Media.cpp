// The encrypting and the decrypting stream.
#include "Encryption/CipherStream.h"

#include <locale>
#include <typeinfo>

namespace Norvane::Crypto {

std::string unrecognizedCipher(Cipher cipher) {
    std::ostringstream detail;
    detail.imbue(std::locale::classic()); // the host's locale must not group the digits
    detail << "Unrecognized Cipher 0x" << std::hex << static_cast<unsigned int>(cipher);
    return detail.str();
}

void checkLength(const failures::Failure& failure, const char* what, const Buffer& given, int needed,
                 const EVP_CIPHER* cipher) {
    if (given.length() < static_cast<unsigned int>(needed)) {
        failures::raise(failure, std::string("The ") + what + " has " + std::to_string(given.length()) + " bytes, " +
                                     EVP_CIPHER_get0_name(cipher) + " takes " + std::to_string(needed));
    }
}

EncrypterMediaOutImpl::EncrypterMediaOutImpl(Cipher cipher, const Buffer& key, const Buffer& iv)
    : m_stream(std::make_unique<CipherStream<Encrypting>>(cipher, key, iv)) {}

EncrypterMediaOutImpl::~EncrypterMediaOutImpl() = default;

void EncrypterMediaOutImpl::write(const unsigned char* data, unsigned int length) {
    m_stream->write(target(), data, length);
}

void EncrypterMediaOutImpl::end() {
    m_stream->end(target());
}

DecrypterMediaOutImpl::DecrypterMediaOutImpl(Cipher cipher, const Buffer& key, const Buffer& iv)
    : m_stream(std::make_unique<CipherStream<Decrypting>>(cipher, key, iv)) {}

DecrypterMediaOutImpl::~DecrypterMediaOutImpl() = default;

void DecrypterMediaOutImpl::write(const unsigned char* data, unsigned int length) {
    m_stream->write(target(), data, length);
}

void DecrypterMediaOutImpl::end() {
    m_stream->end(target());
}

namespace {

/// The stream of that very type that a handle refers to, or null. A cast from a virtual base walks through the classes and
/// compares their names, which counts beside a short text; here one look at the type is enough.
template <class Stream> Stream* exactly(MediaOutImpl* body) noexcept {
    return body != nullptr && typeid(*body) == typeid(Stream) ? static_cast<Stream*>(dynamic_cast<void*>(body))
                                                              : nullptr;
}

/// Whether the target was attached.
template <class Stream> bool attachTo(MediaOutImpl* body, const MediaOut& target) {
    auto* stream = exactly<Stream>(body);
    if (stream == nullptr || (!target.isNull() && target.operator->() == body)) {
        return false;
    }
    stream->attach(target);
    return true;
}

} // namespace

// The handle's reference is a virtual base, which the most derived class makes.
EncrypterMediaOut::EncrypterMediaOut(Cipher cipher, const Buffer& key, const Buffer& iv)
    : MediaOut(makeReference<EncrypterMediaOutImpl, MediaOutImpl>(cipher, key, iv)) {}

EncrypterMediaOut::EncrypterMediaOut(const EncrypterMediaOut& other) = default;

EncrypterMediaOut& EncrypterMediaOut::operator=(const EncrypterMediaOut& other) {
    MediaOut::operator=(other);
    return *this;
}

EncrypterMediaOut::~EncrypterMediaOut() = default;

void EncrypterMediaOut::attach(const MediaOut& target) {
    if (!attachTo<EncrypterMediaOutImpl>(bodyOrNull(), target)) {
        MediaOutDecorator::attach(target);
    }
}

DecrypterMediaOut::DecrypterMediaOut(Cipher cipher, const Buffer& key, const Buffer& iv)
    : MediaOut(makeReference<DecrypterMediaOutImpl, MediaOutImpl>(cipher, key, iv)) {}

DecrypterMediaOut::DecrypterMediaOut(const DecrypterMediaOut& other) = default;

DecrypterMediaOut& DecrypterMediaOut::operator=(const DecrypterMediaOut& other) {
    MediaOut::operator=(other);
    return *this;
}

DecrypterMediaOut::~DecrypterMediaOut() = default;

void DecrypterMediaOut::attach(const MediaOut& target) {
    if (!attachTo<DecrypterMediaOutImpl>(bodyOrNull(), target)) {
        MediaOutDecorator::attach(target);
    }
}

} // namespace Norvane::Crypto
