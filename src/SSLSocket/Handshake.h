#pragma once

/// \file
/// The handshake of an SSL socket: what is asked of it, how long it may take, and whether its outcome will do.

#include "openssl/Connection.h"
#include "openssl/HostName.h"

#include <norvcmsg/Types.h>
#include <norvcrypto/SSLConnection.h>

#include <optional>

namespace Norvane::Crypto::NVSSL {

/// How long a handshake may take.
struct Patience {
    int descriptor;
    bool blocking;      ///< the socket's mode
    uint_t eachWait;    ///< milliseconds, 0 for no limit
    uint_t altogether;  ///< the same
    bool waits = false; ///< for a non-blocking socket, too
};

/// One side's handshake over an `SSL` that stands on a descriptor.
class Handshake {
public:
    /// \throws Exception as `asciiHostName`
    Handshake(const ConnectionOptions& options, bool client);

    /// Has the connection ask for what the options say. False, with the reason in the queue, when there is no memory.
    [[nodiscard]] bool prepare(ssl_st* ssl) const;
    /// True when the handshake is through; the reason of a failure is in the queue.
    [[nodiscard]] bool run(ssl_st* ssl, const Patience& patience) const;
    /// Why the peer will not do; empty when it will, or nobody asked. To be asked after a failed handshake, too, whose
    /// reason it may be.
    [[nodiscard]] std::string distrust(const ssl_st* ssl, bool succeeded) const;

private:
    const ConnectionOptions& m_options;
    bool m_client;
    std::optional<openssl::Host> m_host;
};

} // namespace Norvane::Crypto::NVSSL
