#include "files/Interrupts.h"

#include <array>
#include <climits>
#include <cstring>
#include <ctime>
#include <unistd.h>

namespace norvcrypt {

namespace {

/// A temporary file, for the signal handler.
struct Temporary {
    std::array<char, PATH_MAX> name;
    volatile std::sig_atomic_t exists;
};
/// A command writes two files that belong together, or each thread one.
std::array<Temporary, mostWriters + 1> s_temporaries{};
std::mutex s_naming;

constexpr std::array interrupts{SIGHUP, SIGINT, SIGTERM};

void removeTemporaries() {
    for (const Temporary& temporary : s_temporaries)
        if (temporary.exists != 0)
            static_cast<void>(unlink(temporary.name.data()));
}

extern "C" void endInterrupted(int signal) {
    removeTemporaries();
    // The handler was reset when it was entered: the signal now ends the process as it would have without us.
    static_cast<void>(raise(signal));
}

/// Those that are not ignored.
sigset_t heededInterrupts() {
    sigset_t heeded;
    sigemptyset(&heeded);
    for (const int signal : interrupts) {
        struct sigaction now {};
        if (sigaction(signal, nullptr, &now) == 0 && now.sa_handler != SIG_IGN)
            sigaddset(&heeded, signal);
    }
    return heeded;
}

} // namespace

void prepareInterrupts() {
    struct sigaction action {};
    action.sa_handler = endInterrupted;
    action.sa_flags = static_cast<int>(SA_RESETHAND | SA_NODEFER);
    const sigset_t heeded = heededInterrupts();
    for (const int signal : interrupts)
        if (sigismember(&heeded, signal) == 1)
            sigaction(signal, &action, nullptr);
}

Uninterrupted::Uninterrupted() {
    sigset_t blocked;
    sigemptyset(&blocked);
    for (const int signal : interrupts)
        sigaddset(&blocked, signal);
    // The signals first: a handler that comes while the lock is held would find a file half named.
    pthread_sigmask(SIG_BLOCK, &blocked, &m_before);
    m_lock = std::unique_lock(s_naming);
}

Uninterrupted::~Uninterrupted() {
    m_lock.unlock();
    pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
}

std::optional<std::size_t> rememberTemporary(const std::string& name) {
    for (std::size_t slot = 0; slot < s_temporaries.size(); ++slot) {
        Temporary& temporary = s_temporaries[slot];
        if (temporary.exists != 0)
            continue;
        std::memcpy(temporary.name.data(), name.c_str(), name.size() + 1);
        temporary.exists = 1;
        return slot;
    }
    return std::nullopt;
}

void forgetTemporary(std::size_t slot) {
    s_temporaries[slot].exists = 0;
}

SharedInterrupts::SharedInterrupts() : m_waiting(pthread_self()), m_awaited(heededInterrupts()) {
    sigaddset(&m_awaited, SIGRTMIN);
    pthread_sigmask(SIG_BLOCK, &m_awaited, &m_before);
}

SharedInterrupts::~SharedInterrupts() {
    // What was to wake may have come when nobody waited any more; let through, it would end the process.
    constexpr timespec now{.tv_sec = 0, .tv_nsec = 0};
    sigset_t waking;
    sigemptyset(&waking);
    sigaddset(&waking, SIGRTMIN);
    while (sigtimedwait(&waking, nullptr, &now) == SIGRTMIN)
        continue;
    pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
}

void SharedInterrupts::wait() const {
    constexpr timespec aSecond{.tv_sec = 1, .tv_nsec = 0}; // where the signal that wakes could not be queued
    while (!m_over) {
        const int number = sigtimedwait(&m_awaited, nullptr, &aSecond);
        if (number <= 0 || number == SIGRTMIN)
            continue;
        s_naming.lock(); // for good: nobody names a file any more
        removeTemporaries();
        struct sigaction action {};
        action.sa_handler = SIG_DFL;
        sigaction(number, &action, nullptr);
        static_cast<void>(raise(number));
        sigset_t one;
        sigemptyset(&one);
        sigaddset(&one, number);
        pthread_sigmask(SIG_UNBLOCK, &one, nullptr);
    }
}

void SharedInterrupts::wake() {
    m_over = true;
    pthread_kill(m_waiting, SIGRTMIN);
}

} // namespace norvcrypt
