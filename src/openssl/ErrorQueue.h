#pragma once

/// \file
/// The calling thread's OpenSSL error queue.

#include <string>

namespace Norvane::Crypto::openssl {

/// Drains the queue into one line: "0x<code>: <library> / <function> / <reason>; " for each entry, oldest first. A
/// missing text ends the result there; the queue is empty afterwards all the same.
std::string drainErrorQueue();

/// Queues an error as OpenSSL's own `function` would: for bad arguments that are refused before OpenSSL, which would
/// crash on them or read them as something else, gets to see them.
void queueError(const char* function, int library, int reason, const char* file = __builtin_FILE(),
                int line = __builtin_LINE());

/// Drops what is queued while it lives, and leaves what was queued before: for calls that queue errors for odd but
/// readable input.
class ErrorMark {
public:
    ErrorMark() noexcept;
    ~ErrorMark();
    ErrorMark(const ErrorMark&) = delete;
    ErrorMark& operator=(const ErrorMark&) = delete;

    /// To be asked once OpenSSL said no: whether it did for lack of memory, which says nothing of what was looked at. Drops
    /// what is queued.
    [[nodiscard]] bool ranOutOfMemory() const noexcept;
    /// \throws std::bad_alloc where that is so
    void throwWithoutMemory() const;

private:
    bool m_onlyOurs; // nothing was queued before; otherwise only the last entry can be looked at
};

} // namespace Norvane::Crypto::openssl
