#include "openssl/SigpipeGuard.h"

#include <unistd.h>

#include <cerrno>
#include <ctime>

namespace Norvane::Crypto::openssl {

namespace {

sigset_t onlySigpipe() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGPIPE);
    return set;
}

bool isPending() {
    sigset_t pending;
    sigpending(&pending);
    return sigismember(&pending, SIGPIPE) == 1;
}

} // namespace

SigpipeGuard::SigpipeGuard() noexcept {
    const int error = errno;
    const sigset_t pipe = onlySigpipe();
    pthread_sigmask(SIG_BLOCK, &pipe, &m_before);
    // Where it was not blocked, a pending one would have been delivered.
    m_pendingBefore = sigismember(&m_before, SIGPIPE) == 1 && isPending();
    errno = error;
}

SigpipeGuard::~SigpipeGuard() {
    const int error = errno;
    if (!m_pendingBefore) {
        const sigset_t pipe = onlySigpipe();
        const timespec noWait{};
        siginfo_t signal{};
        int taken = 0;
        do {
            taken = sigtimedwait(&pipe, &signal, &noWait);
        } while (taken < 0 && errno == EINTR);
        // A write raises it in the name of its own process; another's goes back, to be delivered below.
        if (taken == SIGPIPE && signal.si_pid != getpid()) {
            kill(getpid(), SIGPIPE);
        }
    }
    pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
    errno = error;
}

} // namespace Norvane::Crypto::openssl
