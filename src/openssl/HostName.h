#pragma once

/// \file
/// Who the peer of a TLS connection has to be: names and IP addresses in certificates (RFC 9525) and in the handshake
/// (RFC 6066).

#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <string>

namespace Norvane::Crypto::openssl {

/// A host: a name in ASCII, or the octets of an IP address. One of them is empty.
struct Host {
    std::string name;
    std::string octets;
};

/// Whether a certificate was issued for a host.
bool isIssuedTo(X509* certificate, const Host& host);

/// Has the verify result tell whether the peer is that host and, with `send`, tells the server which name is meant. False,
/// with the reason in the queue, when there is no memory.
bool expectHost(SSL* ssl, const Host& host, bool send);

/// Ends the handshake of a peer that does not verify, or shows no certificate to a server. A verify callback of the
/// program's stays. To a server, sessions of connections that did not insist are unknown: a client that came back with one
/// would be turned away, whatever its certificate is.
void insistOnCertificate(SSL* ssl, bool client);

/// Lets nobody come back with a server's session, which would not be verified anew.
void forgetSession(SSL* ssl);

} // namespace Norvane::Crypto::openssl
