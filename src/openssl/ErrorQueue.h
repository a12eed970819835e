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
};

} // namespace Norvane::Crypto::openssl
