#pragma once

/// \file
/// A TLS context from the files of the command line.

#include <norvcrypto/NorvSSL.h>

#include <openssl/ssl.h>

#include <functional>
#include <optional>
#include <string>

namespace norvcrypt {

enum class TlsSide { client, server };

/// The files of one side.
struct TlsFiles {
    std::optional<std::string> certificate;
    std::optional<std::string> key;
    std::optional<std::string> passphraseFile;
    std::optional<std::string> ca;
    std::optional<std::string> crl;
};

/// Called between the making of a connection and its first message, in the thread that makes it. Must not throw.
using TlsStart = std::function<void(SSL*)>;

/// A context that asks the peer for its certificate, verifies it, and goes on whatever comes out: SSL_get_verify_result
/// tells. `start` must outlive it. \throws Failure
Norvane::Crypto::NVSSL::RefContext tlsContext(const TlsFiles& files, TlsSide side, const TlsStart& start);

} // namespace norvcrypt
