#pragma once

/// \file
/// Keeps the SIGPIPE of a write to a closed connection from the process: OpenSSL writes with write().

#include <csignal>

namespace Norvane::Crypto::openssl {

/// Blocks SIGPIPE on the calling thread while it lives, and takes back the one that was raised meanwhile by a write of
/// this thread. One that was pending before, or that another process sent, stays. `errno` is left as it was.
class SigpipeGuard {
public:
    SigpipeGuard() noexcept;
    ~SigpipeGuard();
    SigpipeGuard(const SigpipeGuard&) = delete;
    SigpipeGuard& operator=(const SigpipeGuard&) = delete;

private:
    sigset_t m_before;
    bool m_pendingBefore;
};

} // namespace Norvane::Crypto::openssl
