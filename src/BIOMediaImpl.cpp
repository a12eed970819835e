#include "failures/Raise.h"
#include "openssl/StreamBio.h"

#include <norvcrypto/BIOMediaImpl.h>

namespace Norvane::Crypto {

namespace {

void rethrow(const std::exception_ptr& kept) {
    if (kept) {
        std::rethrow_exception(kept);
    }
}

} // namespace

BIOMediaInImpl::BIOMediaInImpl() : m_bio(std::make_unique<openssl::StreamBio>(*this)) {}

BIOMediaInImpl::BIOMediaInImpl(MediaIn& source)
    : m_bio(std::make_unique<openssl::StreamBio>(*this)),
      m_source(&source) {}

BIOMediaInImpl::~BIOMediaInImpl() = default;

bool BIOMediaInImpl::atEnd() const {
    return m_source == nullptr || m_source->atEnd();
}

int BIOMediaInImpl::peek() const {
    return m_source == nullptr ? -1 : m_source->peek();
}

int BIOMediaInImpl::read(unsigned char* out, unsigned int length) {
    return m_source == nullptr ? 0 : m_source->read(out, length);
}

bio_st* BIOMediaInImpl::bio() const noexcept {
    return m_bio->get();
}

std::exception_ptr BIOMediaInImpl::takeStreamException() noexcept {
    return m_bio->takeException();
}

BIOMediaIn::BIOMediaIn() : MediaIn(makeReference<BIOMediaInImpl, MediaInImpl>()) {}

BIOMediaIn::BIOMediaIn(MediaIn& source) : MediaIn(makeReference<BIOMediaInImpl, MediaInImpl>(source)) {}

BIOMediaIn::BIOMediaIn(const BIOMediaIn& other) = default;
BIOMediaIn& BIOMediaIn::operator=(const BIOMediaIn& other) = default;
BIOMediaIn::~BIOMediaIn() = default;

BIOMediaIn::operator bio_st*() {
    if (isNull()) {
        failures::raise<MediaException>(failures::mediaWithoutBody);
    }
    auto* body = static_cast<BIOMediaInImpl*>(bodyOrNull());
    return body == nullptr ? nullptr : body->bio();
}

std::exception_ptr BIOMediaIn::takeStreamException() noexcept {
    auto* body = static_cast<BIOMediaInImpl*>(bodyOrNull());
    return body == nullptr ? nullptr : body->takeStreamException();
}

void BIOMediaIn::rethrowStreamException() {
    rethrow(takeStreamException());
}

BIOMediaOutImpl::BIOMediaOutImpl() : m_bio(std::make_unique<openssl::StreamBio>(*this, m_pending)) {}

BIOMediaOutImpl::BIOMediaOutImpl(const MediaOut& target)
    : MediaOutDecoratorImpl(target),
      m_bio(std::make_unique<openssl::StreamBio>(*this, m_pending)) {}

BIOMediaOutImpl::~BIOMediaOutImpl() = default;

void BIOMediaOutImpl::write(const unsigned char* data, unsigned int length) {
    target().write(data, length);
}

bio_st* BIOMediaOutImpl::bio() const noexcept {
    return m_bio->get();
}

Buffer& BIOMediaOutImpl::pending() noexcept {
    return m_pending;
}

std::exception_ptr BIOMediaOutImpl::takeStreamException() noexcept {
    return m_bio->takeException();
}

// The handle's reference is a virtual base, which the most derived class makes.
BIOMediaOut::BIOMediaOut() : MediaOut(makeReference<BIOMediaOutImpl, MediaOutImpl>()) {}

BIOMediaOut::BIOMediaOut(const MediaOut& target) : MediaOut(makeReference<BIOMediaOutImpl, MediaOutImpl>(target)) {}

BIOMediaOut::BIOMediaOut(const BIOMediaOut& other) = default;

BIOMediaOut& BIOMediaOut::operator=(const BIOMediaOut& other) {
    MediaOut::operator=(other);
    return *this;
}

BIOMediaOut::~BIOMediaOut() = default;

BIOMediaOut::operator bio_st*() {
    if (isNull()) {
        failures::raise<MediaException>(failures::mediaWithoutBody);
    }
    auto* body = dynamic_cast<BIOMediaOutImpl*>(bodyOrNull());
    return body == nullptr ? nullptr : body->bio();
}

std::exception_ptr BIOMediaOut::takeStreamException() noexcept {
    auto* body = dynamic_cast<BIOMediaOutImpl*>(bodyOrNull());
    return body == nullptr ? nullptr : body->takeStreamException();
}

void BIOMediaOut::rethrowStreamException() {
    rethrow(takeStreamException());
}

} // namespace Norvane::Crypto
