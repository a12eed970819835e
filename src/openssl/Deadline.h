#pragma once

/// \file
/// A time after which a connection reads nothing more.

#include <openssl/ssl.h>

#include <chrono>
#include <optional>

namespace Norvane::Crypto::openssl {

/// While it lives, reading from the plain connection fails with ETIMEDOUT once the time has come: OpenSSL goes on by itself
/// for as long as there is something to be read, and some messages it passes over without end.
class Deadline {
public:
    using Time = std::chrono::steady_clock::time_point;
    Deadline(SSL* ssl, std::optional<Time> end) noexcept;
    Deadline(const Deadline&) = delete;
    Deadline& operator=(const Deadline&) = delete;
    ~Deadline();

private:
    static long called(BIO* bio, int operation, const char* data, std::size_t length, int argument, long number,
                       int result, std::size_t* processed);
    BIO* m_reading;
    std::optional<Time> m_end;
};

} // namespace Norvane::Crypto::openssl
