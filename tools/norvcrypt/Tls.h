#pragma once

/// \file
/// What the TLS commands share: contexts from the files of the command line, and what is told about a peer.

#include "Command.h"

#include <norvcrypto/NorvSSL.h>

#include <openssl/ssl.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

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

/// Adds the options that fill `files`; a server needs a certificate and a key, a client may have them.
void addTlsFiles(CLI::App& command, TlsFiles& files, TlsSide side);

/// Adds --time-limit, in seconds.
void addTimeLimit(CLI::App& command, unsigned int& seconds, const std::string& help);

/// Called between the making of a connection and its first message, in the thread that makes it. Must not throw.
using TlsStart = std::function<void(SSL*)>;

/// A context that asks the peer for its certificate, verifies it, and goes on whatever comes out: SSL_get_verify_result
/// tells. `start` must outlive it. \throws Failure
Norvane::Crypto::NVSSL::RefContext tlsContext(const TlsFiles& files, TlsSide side, const TlsStart& start);

/// OpenSSL's queue of errors, which is empty then.
std::string openSslReasons();

/// What failed, with OpenSSL's reasons where the failure does not hold them itself.
std::string reasonOf(const Norvane::Exception& failure);

/// What was agreed on, the peer's chain in the order in which it was sent, and the verify result; to be escaped.
std::vector<std::string> describePeer(SSL* connection);

/// Whether the peer sent a certificate that verified.
bool isTrusted(SSL* connection);

/// Whether the peer's certificate is for that host: a name, or an address as text.
bool isForHost(SSL* connection, const std::string& host);

/// How a connection ended.
struct TlsEnd {
    bool orderly = false; ///< the peer told that it ends
    std::string alert;    ///< the peer's reason for giving up, if it gave one
};
/// Neither, when anybody on the way could have cut it.
TlsEnd endOf(const SSL* connection);

void addTlsConnect(CLI::App& tls, Action& action);
void addTlsServe(CLI::App& tls, Action& action);
void addTlsCheck(CLI::App& tls, Action& action);

} // namespace norvcrypt
