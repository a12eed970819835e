#pragma once

/// \file
/// The calling thread's OpenSSL error queue.

#include <string>

namespace Norvane::Crypto::openssl {

/// Drains the queue into one line: "0x<code>: <library> / <function> / <reason>; " for each entry, oldest first. A
/// missing text ends the result there; the queue is empty afterwards all the same.
std::string drainErrorQueue();

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
