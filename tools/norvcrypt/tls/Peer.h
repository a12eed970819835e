#pragma once

/// \file
/// What is told about the peer of a TLS connection.

#include <openssl/ssl.h>

#include <string>
#include <vector>

namespace norvcrypt {

/// What was agreed on, the peer's chain in the order in which it was sent, and the verify result, as lines to be shown.
std::vector<std::string> describePeer(SSL* connection);

/// Whether the peer sent a certificate that verified.
bool isTrusted(SSL* connection);

/// Whether the peer's certificate is for that host, a name or an address as text, as programs have it compared
/// (SSLConnection.h): the common name counts for nothing.
bool isForHost(SSL* connection, const std::string& host);

/// How a connection ended.
struct TlsEnd {
    bool orderly = false; ///< the peer told that it ends
    std::string alert;    ///< the peer's reason for giving up, if it gave one
};
/// Neither, when anybody on the way could have cut it.
TlsEnd endOf(const SSL* connection);

} // namespace norvcrypt
