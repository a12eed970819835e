#include <norvcrypto/SSLSocket.h>

#include <sys/socket.h>

#include <utility>

namespace Norvane::Crypto::NVSSL {

namespace {

RefCounted<SocketImpl>* shared(SSLSocketImpl* body) {
    return body == nullptr ? nullptr : new RefCounted<SocketImpl>(body, true);
}

/// The body of a handle that is not null, which has been one of ours since the handle was made.
SSLSocketImpl& bodyOf(const SSLSocket& socket) {
    return dynamic_cast<SSLSocketImpl&>(*socket);
}

SSLSocket upgraded(RefContext& context, Socket& plain, const Buffer& unread, const ConnectionOptions* options,
                   bool client) {
    SSLSocket socket(context, AF_INET);
    if (options != nullptr) {
        socket.options(*options);
    }
    bodyOf(socket).upgrade(plain, unread, client);
    return socket;
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

SSLSocket::SSLSocket(RefContext& context, const SocketAddress& address, const ConnectionOptions& options)
    : Socket(false) {
    reset(makeReference<SSLSocketImpl, SocketImpl>(context, address, options));
    set(STREAM, false, true, address.asINET().ipAddress().isV4() ? AF_INET : AF_INET6);
}

SSLSocket::SSLSocket(const Socket& socket) : Socket(false) {
    reset(shared(socket.isNull() ? nullptr : dynamic_cast<SSLSocketImpl*>(socket.operator->())));
}

SSLSocket::SSLSocket(const SSLSocket& other) = default;
SSLSocket& SSLSocket::operator=(const SSLSocket& other) = default;
SSLSocket::~SSLSocket() = default;

SSLSocket SSLSocket::upgradeClient(RefContext& context, Socket& plain, const Buffer& unread) {
    return upgraded(context, plain, unread, nullptr, true);
}

SSLSocket SSLSocket::upgradeClient(RefContext& context, Socket& plain, const Buffer& unread,
                                   const ConnectionOptions& options) {
    return upgraded(context, plain, unread, &options, true);
}

SSLSocket SSLSocket::upgradeServer(RefContext& context, Socket& plain, const Buffer& unread) {
    return upgraded(context, plain, unread, nullptr, false);
}

SSLSocket SSLSocket::upgradeServer(RefContext& context, Socket& plain, const Buffer& unread,
                                   const ConnectionOptions& options) {
    return upgraded(context, plain, unread, &options, false);
}

void SSLSocket::options(const ConnectionOptions& options) {
    bodyOf(*this).options(options);
}

const ConnectionOptions& SSLSocket::options() const {
    return std::as_const(bodyOf(*this)).options();
}

SessionFacts SSLSocket::session() const {
    return bodyOf(*this).session();
}

SSLSocket::operator ssl_st*() const {
    const auto* body = dynamic_cast<SSLSocketImpl*>(bodyOrNull());
    return body == nullptr ? nullptr : body->ssl();
}

} // namespace Norvane::Crypto::NVSSL
