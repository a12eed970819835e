#include <norvcmsg/Socket.h>

namespace Norvane {

Socket::Socket() = default;

Socket::Socket(bool plain) : Ref(plain ? makeReference<SocketImpl>() : nullptr) {}

Socket::Socket(RefCounted<SocketImpl>* reference) : Ref(reference) {}

Socket::Socket(const Socket& other) = default;

Socket& Socket::operator=(const Socket& other) = default;

Socket::~Socket() = default;

void Socket::set(Type type, bool nonBlocking, bool reuseAddress, int family) {
    (*this)->set(type, nonBlocking, reuseAddress, family);
}

void Socket::connect(const SocketAddress& address) {
    (*this)->connect(address);
}

void Socket::bind(const SocketAddress& address) {
    (*this)->bind(address);
}

void Socket::listen(int backlog) {
    (*this)->listen(backlog);
}

Socket Socket::accept() {
    return (*this)->accept();
}

int Socket::send(const uchar_t* data, uint_t length) {
    return (*this)->send(data, length);
}

int Socket::receive(uchar_t* buffer, uint_t length) {
    return (*this)->receive(buffer, length);
}

bool Socket::readable() {
    return (*this)->readable();
}

bool Socket::writable() {
    return (*this)->writable();
}

bool Socket::connected() {
    return (*this)->connected();
}

void Socket::shutdown(bool receiving, bool sending) {
    (*this)->shutdown(receiving, sending);
}

void Socket::close() noexcept {
    reset(nullptr);
}

void Socket::blocking(bool wait) {
    (*this)->blocking(wait);
}

bool Socket::isBlocking() const {
    return (*this)->isBlocking();
}

void Socket::timeLimit(uint_t milliseconds) {
    (*this)->timeLimit(milliseconds);
}

uint_t Socket::timeLimit() const {
    return (*this)->timeLimit();
}

void Socket::noDelay(bool on) {
    (*this)->noDelay(on);
}

SocketAddress Socket::localAddress() const {
    return (*this)->localAddress();
}

SocketAddress Socket::remoteAddress() const {
    return (*this)->remoteAddress();
}

int Socket::descriptor() const {
    return (*this)->descriptor();
}

} // namespace Norvane
