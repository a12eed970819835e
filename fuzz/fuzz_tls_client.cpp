// The client's side of a TLS handshake: a byte for how much of it was read already, as before STARTTLS, then what a server
// says before it closes. The answer is a failure of the handshake.
#include "Driver.h"

#include <norvcrypto/SSLSocket.h>

#include <algorithm>

using namespace Norvane;
using namespace Norvane::Crypto;

namespace {

/// Whoever connects here is told what the input holds.
Socket& listener() {
    static Socket socket = [] {
        Socket made(true);
        made.bind(SocketAddress("127.0.0.1:0"));
        made.listen();
        return made;
    }();
    return socket;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const unsigned int ahead = data[0];
    return fuzz::run(data + 1, size - 1, [ahead](const Buffer& input) {
        static NVSSL::RefContext context = NVSSL::ContextFactory().create(NVSSL::ContextFactory::SSL_V23, true);
        Socket client(true);
        client.connect(listener().localAddress());
        Socket stranger = listener().accept();
        const unsigned int unread = std::min(ahead, input.length());
        if (input.length() != unread) {
            stranger.send(input.data() + unread, input.length() - unread);
        }
        stranger.shutdown(false, true);
        NVSSL::ConnectionOptions options;
        options.handshakeLimit = 60000;
        options.hostName = "mail.example.org";
        static_cast<void>(
            NVSSL::SSLSocket::upgradeClient(context, client, Buffer(input.data(), unread, true), options));
        std::abort(); // nobody has the keys of a handshake that was written down before
    });
}
