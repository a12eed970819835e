#ifndef NORVCRYPTO_SSL_CONNECTION_H
#define NORVCRYPTO_SSL_CONNECTION_H

/// \file
/// What may be asked of a TLS connection before it is made, and what is known about it once it stands, as values.
///
/// \code
/// using namespace Norvane::Crypto;
/// NVSSL::ConnectionOptions options;
/// options.timeLimit = 30000;                     // milliseconds, for each wait, that for the connection among them
/// options.handshakeLimit = 10000;                // and for the whole handshake, however busy the peer is
/// options.hostName = "mx.example.org";           // sent to the server (SNI), and compared with its certificate
/// options.requireTrust = true;                   // no connection with anybody else
///
/// NVSSL::SSLSocket socket(context, address, options);
/// const NVSSL::SessionFacts facts = socket.session();
/// facts.protocol;                                // "TLSv1.3"
/// \endcode
///
/// Options of a context (`Context::connectionOptions`) hold for all sockets on it that have none of their own.
///
/// Host names are compared as RFC 9525 says: with the dNSName entries of the certificate's subjectAltName, a wildcard
/// being a whole label at the left; with its iPAddress entries when the name is an IP address. The common name of the
/// subject counts for nothing.
///
/// Threads: both are values. Host names in other scripts load libidn2, once in a process, from whatever thread asks first.

#include <norvcmsg/Types.h>
#include <norvcrypto/Certificate.h>
#include <norvcrypto/Export.h>

#include <list>
#include <string>

namespace Norvane::Crypto::NVSSL {

/// What a program asks of a connection. The defaults ask for nothing: connections are as they are without options.
struct ConnectionOptions {
    /// `Socket::timeLimit` of a socket that has none when it connects, and of each that is accepted: milliseconds for each
    /// wait, 0 for no limit. It bounds the plain connection as well.
    uint_t timeLimit = 0;
    /// Milliseconds that the whole handshake may take, from the moment that the plain connection stands; 0 for no limit.
    /// A peer that says a byte now and then does not begin it anew. It also keeps a non-blocking socket from trying the
    /// handshake again and again: the handshake is waited for, up to the limit.
    uint_t handshakeLimit = 0;
    /// Who the server has to be: a DNS name, in any script, or the text of an IP address ("192.0.2.1", "2001:db8::1"). A
    /// DNS name is sent to the server, which may have several certificates (SNI, RFC 6066). Empty: nothing is sent or
    /// compared. A certificate of another host has the verify result 62 or 64, unless its chain fails before. Not looked
    /// at by servers.
    std::string hostName{};
    /// Whether `hostName` is sent, where it is a DNS name.
    bool sendHostName = true;
    /// Whether a connection is refused whose peer has no certificate, or one that does not verify, or that of another host
    /// than `hostName`. A callback of the context's that only lets the handshake go on does not let it pass; one that verifies
    /// in OpenSSL's place (`SSL_CTX_set_cert_verify_callback`) is believed what it says of the chain, good when it says nothing,
    /// and not asked about the host. Servers then insist on certificates of their clients.
    bool requireTrust = false;
};

/// Whether the peer's certificate is that of `ConnectionOptions::hostName`.
enum class HostCheck : int {
    notAsked = 0,      ///< no host name was given
    noCertificate = 1, ///< the peer sent none
    matches = 2,
    differs = 3
};

/// A connection after its handshake. The texts of OpenSSL are stable names; the peer chose `serverName` and
/// `applicationProtocol`, within the limits of TLS: escape them before they are shown.
struct SessionFacts {
    std::string protocol;                    ///< "TLSv1.2", "TLSv1.3"
    std::string cipher;                      ///< OpenSSL's name: "TLS_AES_256_GCM_SHA384"
    int cipherBits = 0;                      ///< of the secret key
    std::string group;                       ///< of the key exchange: "x25519", "secp256r1"; empty when there was none
    NVX509::RefCertificate certificate;      ///< the peer's; an empty handle when it sent none
    std::list<NVX509::RefCertificate> chain; ///< what it sent, its own first; empty when the session was resumed
    long verifyResult = 0;                   ///< OpenSSL's number, 0 for a peer without a certificate, too
    std::string verifyText;                  ///< "ok", "self-signed certificate", ...
    HostCheck hostCheck = HostCheck::notAsked; ///< made whatever the verify result is
    std::string serverName;                    ///< what the client asked for (SNI); empty when for nothing
    std::string applicationProtocol;           ///< agreed on (ALPN, RFC 7301); empty when none was
    bool isResumed = false;                    ///< from an earlier session, whose certificate and verify result it has

    /// Whether the peer showed a certificate that verifies and, if a host name was given, is that host's.
    [[nodiscard]] bool isTrusted() const {
        return !certificate.isNull() && verifyResult == 0 &&
               (hostCheck == HostCheck::notAsked || hostCheck == HostCheck::matches);
    }
};

/// A host name as DNS, TLS and certificates write it: ASCII, in the case that it was given in, without a dot at the end;
/// labels in other scripts as RFC 5891 converts them ("bücher.example" is "xn--bcher-kva.example"). IP addresses in their
/// shortest form.
/// \param name UTF-8
/// \throws Exception "NVSSL::asciiHostName", code 4, source module "NorvSSL": what is no host name (labels of 1 to 63
///         letters, digits, hyphens and underscores, 253 characters in all), does not convert, or needs libidn2 where that
///         is not installed; the text tells
[[nodiscard]] NORVCRYPTO_EXPORT std::string asciiHostName(const std::string& name);

/// Whether a certificate was issued for a host, compared as above; it says nothing about who issued it. False for an empty
/// handle. Leaves the OpenSSL queue as it was.
/// \throws Exception as `asciiHostName`
[[nodiscard]] NORVCRYPTO_EXPORT bool isIssuedTo(const NVX509::RefCertificate& certificate, const std::string& hostName);

} // namespace Norvane::Crypto::NVSSL

#endif
