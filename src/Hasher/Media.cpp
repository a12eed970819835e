#include "failures/Raise.h"

#include <norvcrypto/Hasher.h>

namespace Norvane::Crypto {

HasherMediaOutImpl::HasherMediaOutImpl(Hasher::Type type) : m_hasher(type) {}

HasherMediaOutImpl::~HasherMediaOutImpl() = default;

void HasherMediaOutImpl::write(const Buffer& data) {
    m_hasher->update(data);
}

void HasherMediaOutImpl::write(const unsigned char* data, unsigned int length) {
    m_hasher->update(data, length);
}

void HasherMediaOutImpl::end() {
    m_hasher->finalize();
}

const RefHasher& HasherMediaOutImpl::hasher() const noexcept {
    return m_hasher;
}

HasherMediaOut::HasherMediaOut(Hasher::Type type) : MediaOut(makeReference<HasherMediaOutImpl, MediaOutImpl>(type)) {}

HasherMediaOut::HasherMediaOut(const HasherMediaOut& other) = default;
HasherMediaOut& HasherMediaOut::operator=(const HasherMediaOut& other) = default;
HasherMediaOut::~HasherMediaOut() = default;

const RefHasher& HasherMediaOut::hasher() const {
    if (isNull()) {
        failures::raise(failures::hasherWithoutBody);
    }
    return static_cast<const HasherMediaOutImpl*>(bodyOrNull())->hasher();
}

VerifierMediaOutImpl::VerifierMediaOutImpl(Hasher::Type type) : m_verifier(type) {}

VerifierMediaOutImpl::~VerifierMediaOutImpl() = default;

void VerifierMediaOutImpl::write(const Buffer& data) {
    m_verifier->update(data);
}

void VerifierMediaOutImpl::write(const unsigned char* data, unsigned int length) {
    m_verifier->update(data, length);
}

void VerifierMediaOutImpl::end() {
    m_verifier->finalize();
}

const RefVerifier& VerifierMediaOutImpl::verifier() const noexcept {
    return m_verifier;
}

VerifierMediaOut::VerifierMediaOut(Hasher::Type type)
    : MediaOut(makeReference<VerifierMediaOutImpl, MediaOutImpl>(type)) {}

VerifierMediaOut::VerifierMediaOut(const VerifierMediaOut& other) = default;
VerifierMediaOut& VerifierMediaOut::operator=(const VerifierMediaOut& other) = default;
VerifierMediaOut::~VerifierMediaOut() = default;

const RefVerifier& VerifierMediaOut::verifier() const {
    if (isNull()) {
        failures::raise(failures::verifierWithoutBody);
    }
    return static_cast<const VerifierMediaOutImpl*>(bodyOrNull())->verifier();
}

} // namespace Norvane::Crypto
