#ifndef NORVCRYPTO_NORV_SSL_H
#define NORVCRYPTO_NORV_SSL_H

/// \file
/// TLS contexts: what a program sets up once and shares between its connections. There are two ways to one. A
/// `ContextFactory` makes a bare context for a protocol and a side, and the program loads key and certificates into it:
///
/// \code
/// using namespace Norvane::Crypto;
/// initialize();
///
/// NVSSL::ContextFactory factory;
/// factory.init();
/// NVSSL::RefContext context = factory.create(NVSSL::ContextFactory::SSL_V23, false); // TLS, server side
/// context->certificatePath(chain);                                // own certificate first, then towards the root
/// context->privateKey(key);
/// if (!context->privateKeyIsValid()) {
///     return;                                                     // the key is not the certificate's
/// }
/// SSL_CTX* forOpenSSL = context;                                  // everything else, OpenSSL's way
/// \endcode
///
/// `norvSSL_CTX` keeps the one context that all of the appliance shares, read from fixed files:
///
/// \code
/// norvSSL_CTX::init(norvSSL_CTX::NORV_SSL_CTX_SERVER);            // once, at start-up
/// if (SSL* connection = norvSSL_CTX::norvSSL_new()) { ... SSL_free(connection); }
/// \endcode
///
/// Neither way makes a connection trustworthy by itself. A context of the factory asks no peer for a certificate until
/// the program calls SSL_CTX_set_verify. The appliance-wide context asks, and lets every peer pass: a handshake never
/// ends because a certificate is unknown, expired or revoked. Whoever uses the connection has to look at both
/// SSL_get_verify_result and SSL_get_peer_certificate, since a peer without a certificate has the result X509_V_OK.
/// `ConnectionOptions::requireTrust` (SSLConnection.h) has sockets do that, the host name included.
///
/// On both, server sides send no session tickets, a read never retries behind the caller's back (SSL_MODE_AUTO_RETRY is
/// off), and what else is not said here is OpenSSL's default for the machine, its configuration file included.
///
/// Peers may be hostile long before anybody knows who they are, so that both bound what one may cost:
/// - Certificates that come to more than 65,536 bytes in all end the handshake ("excessive message size"), where OpenSSL
///   takes 102,400; so does a longer list of names in a certificate request. SSL_CTX_set_max_cert_list changes it.
/// - `refuseCostlyMessages` stands as the message callback of the context.
/// - Contexts that a `ContextFactory` makes for `SSL_V23` agree on nothing below TLS 1.2, at whatever security level and
///   without a word in the machine's configuration file; where that asks for more, it is obeyed.
///   SSL_CTX_set_min_proto_version changes it. The versions of the appliance-wide context are the platform's alone.
/// - A server refuses renegotiation that the client begins, which is OpenSSL's default. A client takes part in what the
///   server begins; SSL_OP_NO_RENEGOTIATION ends that.
///
/// Failures are `Exception`s of code 4 and source module "NorvSSL"; where-text and line stand with each operation.
///
/// Threads: set a context up in one thread; from then on it may be shared by any number of connections and threads.

#include <norvcrypto/Certificate.h>
#include <norvcrypto/Export.h>
#include <norvcrypto/Key.h>
#include <norvcrypto/NorvRefcounted>
#include <norvcrypto/SSLConnection.h>

#include <cstddef>
#include <list>

struct ssl_ctx_st;
struct ssl_st;

namespace Norvane::Crypto::NVSSL {

/// The body of a context: owns one OpenSSL `SSL_CTX`, which connections made on it keep alive as well. The setters
/// belong to set-up time.
class NORVCRYPTO_EXPORT Context : public RefImpl, private NonCopyable {
public:
    /// \param context freed with this body; may be null, and every setter then fails
    explicit Context(ssl_ctx_st* context);
    ~Context() override;

    /// Whether a private key is loaded and belongs to the loaded certificate. Leaves nothing in the OpenSSL queue.
    [[nodiscard]] bool privateKeyIsValid() const;
    /// Loads the private key; OpenSSL takes a reference of its own. A certificate of another key that is loaded already
    /// makes it fail.
    /// \throws Exception "void Norvane::Crypto::NVSSL::Context::privateKey(const Norvane::Crypto::RefKey&)", line 31,
    ///         with OpenSSL's errors: an empty key or handle, or one that OpenSSL refuses
    void privateKey(const RefKey& key);
    /// Loads the context's own certificate; OpenSSL takes a reference of its own. A private key that is loaded already
    /// and belongs to another certificate is dropped: `privateKeyIsValid` tells.
    /// \throws Exception "void Norvane::Crypto::NVSSL::Context::certificate(const
    ///         Norvane::Crypto::NVX509::RefCertificate&)", line 42, with OpenSSL's errors: an empty handle, or a
    ///         certificate that OpenSSL refuses (at the machine's security level a key or a digest may be too weak)
    void certificate(const NVX509::RefCertificate& certificate);
    /// Appends a certificate to the chain that is sent after the own one.
    ///
    /// Deliberate, and dangerous: the `X509` is handed over as it is, without a reference of its own, and is freed with
    /// the context. A certificate that also frees it, as one that was read from bytes or a file does, must give it up
    /// after this call, or it is freed twice:
    ///
    /// \code
    /// context->appendToCertificatePath(issuer);
    /// issuer->relinquishOwnerShip();              // the context owns it now; use `issuer` no longer than the context
    /// \endcode
    ///
    /// So append no certificate twice, nor to two contexts, and nothing that borrows its `X509`. When the call throws,
    /// nothing was handed over.
    /// \throws Exception "void Norvane::Crypto::NVSSL::Context::appendToCertificatePath(const
    ///         Norvane::Crypto::NVX509::RefCertificate&)", line 54, with OpenSSL's errors: an empty handle, or no
    ///         memory
    void appendToCertificatePath(const NVX509::RefCertificate& certificate);
    /// Loads the first certificate as the context's own and appends the others in their order, from the issuer of the
    /// first towards the root. An empty list changes nothing. What `appendToCertificatePath` says holds for every
    /// certificate but the first; when one of them fails, those before it stay.
    /// \throws Exception as `certificate` and `appendToCertificatePath`
    void certificatePath(const std::list<NVX509::RefCertificate>& path);

    /// What `SSLSocket`s on this context ask of their connections, unless they have options of their own; nothing at first.
    void connectionOptions(const ConnectionOptions& options) { m_options = options; }
    [[nodiscard]] const ConnectionOptions& connectionOptions() const noexcept { return m_options; }

    /// The `SSL_CTX`, which stays this body's; null when it was made around null.
    [[nodiscard]] ssl_ctx_st* sslContext() const noexcept { return m_context; }

private:
    ssl_ctx_st* m_context;
    ConnectionOptions m_options;
};

} // namespace Norvane::Crypto::NVSSL

namespace Norvane {
extern template class RefCounted<Crypto::NVSSL::Context>;
extern template class Ref<Crypto::NVSSL::Context>;
} // namespace Norvane

namespace Norvane::Crypto::NVSSL {

/// Ends a connection over what a peer sends to keep this side busy: a certificate that would cost too much to decode
/// (OpenSSL decodes all that come, keys and extensions included, before anything can be asked about them), or more
/// messages after the handshake than the data is worth: key updates, session tickets (RFC 8446, 4.6), hello requests of a
/// server and refused hellos of a client count once, the handshakes of a server that renegotiates four times, and 64 are
/// free, then one for each 4,096 bytes received beside handshake messages. So does a server that chooses a modulus of more
/// than 8,192 bits for Diffie-Hellman (OpenSSL takes 10,000, a second of work). The failure is a handshake's, or that of
/// `receive`, with the reason in front of OpenSSL's errors; `send` answers 0.
///
/// All contexts that this library makes have it as their message callback. A program that installs one of its own there
/// (SSL_CTX_set_msg_callback, SSL_set_msg_callback) takes its place, and must call it first, with the arguments that it
/// was given; it may also give it to a context that it made itself. It throws nothing, looks at nothing but handshake
/// messages of TLS that came in and the alerts that refuse renegotiation, and makes a refused message malformed in place; where
/// there is none to refuse, the connection's reading BIO reads nothing more, by a callback that takes the place of any other.
/// \param isWritten 0 for what was received \param contentType, bytes, length as OpenSSL hands them in
/// \param connection may be null, nothing is done then
NORVCRYPTO_EXPORT void refuseCostlyMessages(int isWritten, int version, int contentType, const void* bytes,
                                            std::size_t length, ssl_st* connection, void* argument) noexcept;

/// A handle on a context.
class NORVCRYPTO_EXPORT RefContext : public Ref<Context> {
public:
    /// An empty handle.
    RefContext();
    /// Takes over a body that was just made with `new`.
    /// \throws Exception "RefCounted constructor for RefImpl failed.", code 4, no file, line 0: a null body
    explicit RefContext(Context* body);
    RefContext(const RefContext& other);
    RefContext& operator=(const RefContext& other);
    ~RefContext() override;

    /// The `SSL_CTX`, which stays the context's; null for an empty handle.
    operator ssl_ctx_st*() const; // NOLINT(google-explicit-constructor): handed to C functions as it is
};

/// Makes bare contexts. Stateless: one factory may be used from several threads.
class NORVCRYPTO_EXPORT ContextFactory {
public:
    /// The protocol of a context. Other values are none.
    enum Method : int {
        SSL_V2 = 1, ///< SSL 2, which the installed OpenSSL lacks: `create` fails
        SSL_V3 = 2, ///< SSL 3, which the installed OpenSSL may lack: `create` then fails
        TLS_V1 = 3, ///< TLS 1.0 and nothing else, at security level 0, without which it cannot shake hands; broken, for
                    ///< peers that know nothing better
        SSL_V23 = 4 ///< what both sides know best, TLS 1.3 included and nothing below TLS 1.2
    };

    ContextFactory();
    ContextFactory(const ContextFactory& other) = default;
    ContextFactory& operator=(const ContextFactory& other) = default;
    virtual ~ContextFactory();

    /// Starts OpenSSL's TLS layer and loads its error texts. Call it before the first `create`; again is harmless.
    void init();

    /// A new context without key, certificate, verify mode, trusted certificates or callbacks of
    /// the program's; what bounds the cost of peers is set.
    /// \param client true: for connections that this program opens; false: for those that it accepts
    /// \throws Exception "virtual Norvane::Crypto::NVSSL::RefContext
    ///         Norvane::Crypto::NVSSL::ContextFactory::create(Norvane::Crypto::NVSSL::ContextFactory::Method, bool)":
    ///         line 147, a value of `method` that is none, for a client; line 169, the same for a server; line 181,
    ///         with OpenSSL's errors, OpenSSL could not make the context or lacks the protocol
    virtual RefContext create(Method method, bool client);
};

} // namespace Norvane::Crypto::NVSSL

namespace Norvane {

/// The one TLS context that all connections of the appliance share, configured from fixed files:
///
/// | file | what |
/// |---|---|
/// | /migadmin/etc/cert/server/apps/server.key | the appliance's private key, PEM |
/// | /migadmin/etc/cert/server/apps/server.crt | its certificate chain, PEM, own certificate first |
/// | /etc/cacert.pem | trusted certificates, PEM; their names are sent to clients that are asked for a certificate |
/// | /migadmin/etc/cert/server/ca | directory of trusted certificates, filed by hash (`openssl rehash`) |
/// | /migadmin/etc/cert/server/crl | directory of revocation lists, filed by hash (`openssl rehash`) |
///
/// A peer is asked for its certificate, and its chain is verified with revocation lists for every issuer that has one
/// on file; an issuer without a list passes. Deliberate: the outcome never ends a handshake. It is left for whoever
/// uses the connection to read, with SSL_get_verify_result and SSL_get_peer_certificate.
///
/// `init` runs once at start-up, before other threads use the shared context; `norvSSL_new` may be called from any thread then.
class NORVCRYPTO_EXPORT norvSSL_CTX {
public:
    /// The side of the shared context. Both present the same identity.
    enum NORV_SSL_CTX_TYPE : int {
        NORV_SSL_CTX_SERVER = 0,
        NORV_SSL_CTX_CLIENT = 1 ///< as is every other value but 0
    };

    norvSSL_CTX() = delete;

    /// Offers OpenSSL a new set of locks, as it needed before release 1.1 (the installed one locks by itself and ignores
    /// them: threads need no call of this), and builds the shared context; the protocol versions are those that the
    /// platform's `ssl_version_options` leaves (our own: TLS 1.2 and 1.3). Returns 0 in every case and throws nothing:
    /// `norvSSL_new` tells. The reasons of a failure are then in the OpenSSL queue of this thread, for
    /// `Norvane::Crypto::getErrString`.
    ///
    /// Without a private key, a certificate chain and that both belong together there is no shared context. Deliberate:
    /// when "/etc/cacert.pem" cannot be read, there is one, with the appliance's identity, that asks no peer for a
    /// certificate. A second call replaces the context and frees nothing of the first. A private key that is encrypted
    /// makes OpenSSL prompt on the terminal of the process.
    static int init(NORV_SSL_CTX_TYPE type);

    /// A new `SSL` on the shared context, which the caller frees with SSL_free; null when there is no shared context.
    static ssl_st* norvSSL_new();
};

} // namespace Norvane

#endif
