#include <norvcrypto/SSLSocket.h>

#include <sys/socket.h>

namespace Norvane::Crypto::NVSSL {

namespace {

RefCounted<SocketImpl>* shared(SSLSocketImpl* body) {
    return body == nullptr ? nullptr : new RefCounted<SocketImpl>(body, true);
}

} // namespace

SSLSocket::SSLSocket(RefContext& context, int family) : Socket(false) {
    reset(makeReference<SSLSocketImpl, SocketImpl>(context, family));
    set(STREAM, false, true, family);
}

SSLSocket::SSLSocket(RefContext& context, const SocketAddress& address) : Socket(false) {
    reset(makeReference<SSLSocketImpl, SocketImpl>(context, address));
    set(STREAM, false, true, address.asINET().ipAddress().isV4() ? AF_INET : AF_INET6);
}

SSLSocket::SSLSocket(const Socket& socket) : Socket(false) {
    reset(shared(socket.isNull() ? nullptr : dynamic_cast<SSLSocketImpl*>(socket.operator->())));
}

SSLSocket::SSLSocket(const SSLSocket& other) = default;
SSLSocket& SSLSocket::operator=(const SSLSocket& other) = default;
SSLSocket::~SSLSocket() = default;

SSLSocket::operator ssl_st*() const {
    const auto* body = dynamic_cast<SSLSocketImpl*>(bodyOrNull());
    return body == nullptr ? nullptr : body->ssl();
}

} // namespace Norvane::Crypto::NVSSL
