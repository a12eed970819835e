#ifndef NORVCRYPTO_SSL_SOCKET_H
#define NORVCRYPTO_SSL_SOCKET_H

/// \file
/// Stream sockets whose bytes pass through TLS: a `Socket` of the common library with a body that shakes hands when it
/// connects or accepts.
///
/// \code
/// using namespace Norvane;
/// using namespace Norvane::Crypto;
/// NVSSL::RefContext context = NVSSL::ContextFactory().create(NVSSL::ContextFactory::SSL_V23, true);
/// SSL_CTX_load_verify_locations(context, "trusted.pem", nullptr);
///
/// NVSSL::ConnectionOptions options;                                      // see SSLConnection.h
/// options.timeLimit = 30000;                                             // milliseconds
/// options.handshakeLimit = 10000;
/// options.hostName = "mx.example.org";
/// options.requireTrust = true;
/// NVSSL::SSLSocket socket(context, SocketAddress("192.0.2.1:465"), options); // TCP and TLS with that host, or an exception
/// socket.send(reinterpret_cast<const uchar_t*>("QUIT\r\n"), 6);
/// uchar_t answer[16384];                                                 // a whole TLS record, see `receive`
/// const int got = socket.receive(answer, sizeof answer);                 // 0 at the end
/// \endcode
///
/// A server listens on a socket of its own context and takes connections, each with its handshake:
///
/// \code
/// NVSSL::SSLSocket listener(serverContext, 2);                           // IPv4
/// listener.bind(SocketAddress("0.0.0.0:465"));
/// listener.listen();
/// NVSSL::SSLSocket peer(listener.accept());                              // the accepted socket, with its SSL
/// \endcode
///
/// STARTTLS (RFC 3207 and its like): a plain connection turns into TLS once both sides agreed to. What the program has
/// received and not used yet is handed in, and must be nothing: whoever sits between the two could have put it there, to
/// be taken for what the server says under TLS.
///
/// \code
/// Socket plain(true);
/// plain.timeLimit(30000);
/// plain.connect(SocketAddress("192.0.2.1:25"));
/// Buffer unread;
/// ...                                                                    // "STARTTLS", and "220 go ahead" in answer
/// NVSSL::SSLSocket socket = NVSSL::SSLSocket::upgradeClient(context, plain, unread, options);
/// socket.session().cipher;                                               // "TLS_AES_256_GCM_SHA384"
/// \endcode
///
/// Trust. A handshake that ends well says nothing about the peer unless the context was told to verify; with a context
/// that lets everybody pass, as the appliance-wide one does, the answers of SSL_get_verify_result and
/// SSL_get_peer_certificate are what counts. Neither compares the host name: `ConnectionOptions::hostName` does. With
/// `ConnectionOptions::requireTrust` there is no connection with a peer that is not trusted; otherwise `session` tells.
///
/// Failures are `SocketException`s with the where-text "SocketException" and `Exception`s with that of the operation,
/// source module "SSLSocket", code 4 where nothing else is said; what plain sockets throw comes as it is. Where the
/// parameters are fixed, OpenSSL's errors are those of the cause (where-text "OpenSSL", code 4), which `asString` tells as
/// well; there is none when OpenSSL told none. The thread's error queue is empty after each of them: a later failure does
/// not tell the reasons of this one. A peer that goes away never ends the process: nothing that is written here raises
/// SIGPIPE.
///
/// Waiting. A blocking socket waits for as long as the peer takes, or up to its `timeLimit` each time the peer has to
/// do something; in `accept` it is the listening socket's limit that holds for the handshake. Without a limit, a peer
/// that connects and says nothing keeps `accept` for ever, and with one, a peer that says a byte at a time keeps it for
/// long: `ConnectionOptions::handshakeLimit` ends both, and still it is best to accept in threads of their own. What a peer can send without any data in it is bounded (`refuseCostlyMessages`),
/// so that it cannot keep `receive` busy without end, but the limit begins anew with each thing that comes: a program that
/// wants an answer within a time shuts the socket down from another thread. Deliberate: on a non-blocking socket a handshake, and a
/// `send` that the system does not take, is tried again at once and without end, which keeps the processor busy: give it a
/// `handshakeLimit`, or shake hands in blocking mode, and send large pieces there. A descriptor that the program made non-blocking by itself, while
/// `isBlocking` is true, is waited for all the same in `send` and `receive`.
///
/// Threads: a context may be shared by sockets of many threads. On one socket `send` and `receive` exclude each other:
/// a thread that waits in `receive` keeps the other from sending. Connecting, accepting and destruction take no lock.

#include <norvcmsg/Socket.h>
#include <norvcrypto/Export.h>
#include <norvcrypto/NorvSSL.h>
#include <norvcrypto/SSLConnection.h>

#include <optional>

namespace Norvane {
class Buffer;
}

namespace Norvane::Crypto::NVSSL {

class Handshake;

/// The body of an SSL socket: the plain socket's, a context and the connection made on it.
class NORVCRYPTO_EXPORT SSLSocketImpl : public SocketImpl {
public:
    /// Not connected. \param context kept by a handle of its own; may be empty, `connect` and `accept` then fail
    /// \param family not looked at here: `Socket::set` takes it
    SSLSocketImpl(RefContext& context, int family);
    /// Connected. \throws what `connect` throws
    SSLSocketImpl(RefContext& context, const SocketAddress& address);
    /// Connected as `options` say. \throws what `connect` throws
    SSLSocketImpl(RefContext& context, const SocketAddress& address, const ConnectionOptions& options);
    /// Tells the peer that the connection ends (one close notify, no wait for the peer's), and closes it. Waits, as
    /// `send` does, when the peer has stopped reading and the system holds all it will.
    ~SSLSocketImpl() override;

    /// Takes the next connection of a listening socket and shakes hands as the server. The new socket is a blocking one
    /// on the same context. A null handle with `errno` `EAGAIN` when a non-blocking listener has none.
    ///
    /// The options, `hostName` aside, hold for the connection that is accepted.
    ///
    /// A failure is the connection's, not the listener's: call again.
    /// \throws Exception "virtual Norvane::Socket Norvane::Crypto::NVSSL::SSLSocketImpl::accept()": line 107,
    ///         "NVSSL::Context must not be empty."; line 119, "Could not create an SSL instance."
    /// \throws SocketException line 125, "SSL_set_fd failed"; line 146, OpenSSL's errors: the handshake failed; "the peer is
    ///         not trusted: " and why (`requireTrust`); or as `SocketImpl::accept`
    Socket accept() override;
    /// Sends all of `data`. \return the bytes sent, `length` or 0
    ///
    /// Deliberate: some failures answer 0 and throw nothing. That is a fatal protocol error (SSL_ERROR_SSL, its
    /// errors are dropped), a connection that this side has closed, and a write that has to read first
    /// (SSL_ERROR_WANT_READ, a renegotiation on a non-blocking socket), which may be tried again with the same bytes.
    /// So compare what was sent. A `length` of 0, or of 2147483648 and more, sends nothing and is answered with 0.
    /// \throws SocketException line 163, code 1: not connected; line 198, "virtual int
    ///         Norvane::Crypto::NVSSL::SSLSocketImpl::send(const Norvane::uchar_t*, Norvane::uint_t)" and the number of
    ///         the SSL error: 5 (SSL_ERROR_SYSCALL), the peer is gone or the connection failed before; 3
    ///         (SSL_ERROR_WANT_WRITE), the time limit passed: the same `data` may be sent again, other bytes not; 6
    ///         (SSL_ERROR_ZERO_RETURN), the peer ended the connection within a renegotiation
    int send(const uchar_t* data, uint_t length) override;
    /// Always true, so that callers of plain sockets never wait for readability on an SSL socket; `receive` waits
    /// itself.
    bool readable() override;
    /// Connects and shakes hands as the client. Deliberate: an empty context is noticed after the plain connection was
    /// made. After a failure the socket is of no more use.
    /// \throws Exception "virtual void Norvane::Crypto::NVSSL::SSLSocketImpl::connect(const Norvane::SocketAddress&)":
    ///         line 62, "NVSSL::Context must not be empty."; line 69, "Could not create an SSL instance."
    /// \throws SocketException line 76, "SSL_set_fd failed"; line 97, "SSL_connect failed"; "the peer is not trusted: " and
    ///         why (`requireTrust`); or as `SocketImpl::connect`. When the handshake took longer than its limit, OpenSSL's
    ///         errors tell of a connection that timed out.
    /// \throws Exception as `asciiHostName`, before anything is connected
    void connect(const SocketAddress& address) override;
    /// Receives what has arrived, up to `length` bytes. \return the number of bytes; 0 at the end of the stream, each
    /// time, with `errno` 0; 0 when a non-blocking socket has nothing, or cannot write what TLS has
    /// to answer, with `errno` `EAGAIN`; 0 when `length` is 0 or
    /// 2147483648 and more
    ///
    /// The end is the peer's close notify, or just that of the plain connection, which anyone on the way could have
    /// cut: after the latter, SSL_get_shutdown lacks SSL_RECEIVED_SHUTDOWN. Deliberate: an alert with which the peer
    /// gave up the connection (a TLS 1.3 server that wants another client certificate sends one after the handshake)
    /// reads as the end too; its text is then in the OpenSSL queue, which is empty after the other two. Take it out with
    /// `getErrString`, or a later failure of the thread may tell it as its own.
    ///
    /// Deliberate: the wait looks at the plain connection alone. Bytes of a TLS record that were decrypted and did not
    /// fit into `buffer` do not end it, so that a blocking call may wait for ever with bytes at hand. With a `buffer`
    /// of 16384 bytes or more nothing is ever left behind.
    /// \throws SocketException line 212, code 1: not connected; line 249, "virtual int
    ///         Norvane::Crypto::NVSSL::SSLSocketImpl::receive(Norvane::uchar_t*, Norvane::uint_t)" and the number of
    ///         the SSL error: 1 (SSL_ERROR_SSL), what came is no TLS of this connection; 5 (SSL_ERROR_SYSCALL), the
    ///         connection was reset or failed before; or as `SocketImpl::readable` and `SocketImpl::writable`
    int receive(uchar_t* buffer, uint_t length) override;

    /// See `SSLSocket`.
    void options(const ConnectionOptions& options) { m_options = options; }
    [[nodiscard]] const ConnectionOptions& options() const;
    [[nodiscard]] SessionFacts session() const;
    void upgrade(Socket& plain, const Buffer& unread, bool client);

    /// The connection, which stays this body's; null until the plain connection was made.
    [[nodiscard]] ssl_st* ssl() const noexcept { return m_ssl; }

private:
    void shakeHandsAsClient(const Handshake& handshake, bool waits);
    void shakeHandsAsServer(const Handshake& handshake, uint_t eachWait, bool waits);

    RefContext m_context;
    ssl_st* m_ssl = nullptr;
    std::optional<ConnectionOptions> m_options; ///< none: the context's
};

/// A handle on an SSL socket.
class NORVCRYPTO_EXPORT SSLSocket : public Socket {
public:
    /// Not connected, to listen or to connect later; blocking, with address reuse.
    /// \param context may be empty; `connect` and `accept` then fail
    /// \param family 2 for IPv4, 10 for IPv6 \throws SocketException "SocketImpl::set": another family
    SSLSocket(RefContext& context, int family);
    /// Connected to a server; blocking. \throws what `SSLSocketImpl::connect` throws
    SSLSocket(RefContext& context, const SocketAddress& address);
    /// The same, as `options` say.
    SSLSocket(RefContext& context, const SocketAddress& address, const ConnectionOptions& options);
    /// The same connection as `socket`; null when that is null or no SSL socket.
    explicit SSLSocket(const Socket& socket);
    SSLSocket(const SSLSocket& other);
    SSLSocket& operator=(const SSLSocket& other);
    ~SSLSocket() override;

    /// Shakes hands as the client over a plain connection that stands: STARTTLS. The connection moves into the socket that
    /// is returned, with its mode and time limit; `plain` and its copies are not open from then on, whatever becomes of
    /// the handshake. Nothing else may use them meanwhile. A non-blocking socket is waited for, as a blocking one is.
    ///
    /// \param unread what the program has received and not used; has to be empty. What has arrived and was not received
    ///        is looked at, too: a server that speaks TLS says nothing before the client does
    /// \throws SocketException "came in plain text before the handshake", with the number of bytes: somebody may have put
    ///         them in front of what the server says under TLS. `plain` is left as it was: close it
    /// \throws SocketException code 1, "not connected"; "speaks TLS already"; and what `connect` throws after that
    static SSLSocket upgradeClient(RefContext& context, Socket& plain, const Buffer& unread);
    static SSLSocket upgradeClient(RefContext& context, Socket& plain, const Buffer& unread,
                                   const ConnectionOptions& options);
    /// The same as the server, after it has sent its consent. The client may have begun the handshake by then: what was not
    /// received is taken for TLS, and ends the handshake when it is none. What follows the client's request in `unread`
    /// came before the consent, and is refused.
    /// \throws as `upgradeClient`, and what `accept` throws after it took a connection
    static SSLSocket upgradeServer(RefContext& context, Socket& plain, const Buffer& unread);
    static SSLSocket upgradeServer(RefContext& context, Socket& plain, const Buffer& unread,
                                   const ConnectionOptions& options);

    /// What is asked of the connection, to be set before it connects or listens; the context's options hold otherwise.
    void options(const ConnectionOptions& options);
    [[nodiscard]] const ConnectionOptions& options() const;
    /// What the connection is after its handshake, asked of OpenSSL each time. Not while another thread sends or receives.
    /// \throws SocketException code 1, "not connected": no handshake has ended well
    [[nodiscard]] SessionFacts session() const;

    /// The connection, for OpenSSL's questions about it; it lives as long as the socket. Null before the plain
    /// connection was made, and for a null handle.
    operator ssl_st*() const; // NOLINT(google-explicit-constructor): handed to C functions as it is
};

} // namespace Norvane::Crypto::NVSSL

#endif
