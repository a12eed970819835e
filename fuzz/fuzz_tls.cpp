// The server's side of a TLS handshake: whatever a stranger sends before it closes its half, the answer is a failure of the
// handshake and the listener goes on.
#include "Driver.h"

#include <norvcrypto/SSLSocket.h>

#include <authority/Authority.h>

using namespace Norvane;
using namespace Norvane::Crypto;

namespace {

NVSSL::SSLSocket& listener() {
    static NVSSL::SSLSocket socket = [] {
        const auto identity = norvauthority::issue({.subject = {{"CN", "server"}}, .key = norvauthority::Key::ec()});
        NVSSL::RefContext context = NVSSL::ContextFactory().create(NVSSL::ContextFactory::SSL_V23, false);
        context->certificate(NVX509::CertificateFactory()(identity.certificate.x509().release(), true));
        context->privateKey(RefKey(new PrivateKey(identity.key.newReference())));
        NVSSL::SSLSocket made(context, 2);
        made.bind(SocketAddress("127.0.0.1:0"));
        made.listen();
        return made;
    }();
    return socket;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    return fuzz::run(data, size, [](const Buffer& input) {
        Socket stranger(true);
        stranger.connect(listener().localAddress());
        stranger.send(input.data(), input.length());
        stranger.shutdown(false, true);
        static_cast<void>(listener().accept());
        std::abort(); // nobody gets through without reading what the server says
    });
}
