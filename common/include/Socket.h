#ifndef NORVCMSG_SOCKET_H
#define NORVCMSG_SOCKET_H

/// \file
/// Stream sockets: TCP over IPv4 and IPv6. `Socket` is a handle (see NorvRefcounted) on a body, `SocketImpl`; another
/// kind of stream, such as one that encrypts, is a body that overrides the five virtual operations.
///
/// \code
/// Norvane::Socket client(true);                                // a client
/// client.connect(Norvane::SocketAddress("127.0.0.1:25"));
/// client.send(reinterpret_cast<const Norvane::uchar_t*>("QUIT\r\n"), 6); // 6
/// Norvane::uchar_t answer[512];
/// const int got = client.receive(answer, sizeof answer);       // 1 to 512; 0 at the end of the stream
///
/// Norvane::Socket listener(true);                              // a server
/// listener.bind(Norvane::SocketAddress("[::1]:0"));            // port 0: the kernel chooses
/// listener.listen();
/// listener.localAddress().asString();                          // "[::1]:39711"
/// Norvane::Socket peer = listener.accept();
/// \endcode
///
/// Waiting. A socket is blocking unless told otherwise: its operations wait, for as long as it takes or up to
/// `timeLimit`. A non-blocking one never waits: an operation that would have to gives 0, false or a null handle and sets
/// `errno` to `EAGAIN` (`connect`: `EINPROGRESS`). Signals interrupt no operation, and no operation ever raises SIGPIPE.
/// Descriptors are closed in programs that this one starts, and may have any number (waits use poll).
///
/// Failures. What the system refuses is thrown as `SocketException`, code 4, where-text "SocketImpl::" and the
/// operation, with the address (if any) and the reason as text and the error number as integer parameter; a wait that
/// exceeds the time limit has `ETIMEDOUT`. An operation on a socket that is not open or not connected throws
/// `SocketException` with code 1, the where-text and the text "not connected". A null handle throws as in NorvRefcounted.
///
/// Threads. A plain socket takes no lock: one thread may send while another receives and several may accept, but two
/// must not send at once. A body that overrides may be stricter. What sets a socket up belongs to one thread, before.
/// `shutdown` may be called from any thread, at any time as long as a handle is held; it ends the waits of the others.

#include <norvcmsg/Export.h>
#include <norvcmsg/Mutex.h>
#include <norvcmsg/SocketAddress.h>
#include <norvcmsg/Types.h>
#include <norvcrypto/NorvRefcounted>

namespace Norvane {

class Socket;

/// The body of a socket: owns the descriptor, which is made by the first `bind`, `listen` or `connect` or filled in by
/// `accept(SocketImpl*)`. The destructor closes it, nothing earlier (`moveTo` hands it on), so that no thread can meet its number reused (only
/// what could not be opened wholly is closed at once).
///
/// A derived body may override the five virtual operations, no more. It runs the plain ones by their qualified names
/// and may use the three protected members below:
///
/// \code
/// int CountingImpl::receive(Norvane::uchar_t* buffer, Norvane::uint_t length) {
///     const Norvane::Synchronized lock(m_mutex);
///     const int got = SocketImpl::receive(buffer, length);
///     m_count += got;
///     return got;
/// }
/// \endcode
class NORVCMSG_EXPORT SocketImpl : public virtual RefImpl {
public:
    /// Not open: TCP, blocking, address reuse on, IPv4 if nothing else tells the family.
    SocketImpl();
    SocketImpl(const SocketImpl&) = delete;
    SocketImpl& operator=(const SocketImpl&) = delete;
    /// Closes the descriptor.
    ~SocketImpl() override;

    /// Takes the next connection of a listening socket. The new socket is blocking, whatever this one is. A null handle
    /// with `errno` `EAGAIN` when a non-blocking listener has none. \throws SocketException as `accept(SocketImpl*)`
    virtual Socket accept();
    /// Sends all of `data` when blocking, what the system takes when not. \return the number of bytes taken
    /// \throws SocketException "SocketImpl::send"; how many bytes went out before the failure is not known
    virtual int send(const uchar_t* data, uint_t length);
    /// True when `receive` or `accept` would not wait (the end of the stream and a failure count). A blocking socket
    /// waits until it is and so answers nothing but true. \throws SocketException "SocketImpl::readable"
    virtual bool readable();
    /// Connects; the descriptor is made for the family of `address`, unless `bind` made one. A blocking socket waits for
    /// the peer. A non-blocking one returns with `errno` `EINPROGRESS` when the peer takes its time (0 when the
    /// connection stands): wait until `writable` and ask `connected`. A socket that was not bound may try the next
    /// address when this throws. \throws SocketException "SocketImpl::connect"
    virtual void connect(const SocketAddress& address);
    /// Receives what has arrived, up to `length` bytes. \return the number of bytes; 0 at the end of the stream, with
    /// `errno` 0, and when a non-blocking socket has none, with `errno` `EAGAIN`; 0 when `length` is 0
    /// \throws SocketException "SocketImpl::receive"
    virtual int receive(uchar_t* buffer, uint_t length);

    /// Takes the next connection into `target`, which must not be open; `target` keeps its own mode and time limit.
    /// Connections that failed before they were taken are passed over. \return false, with `errno` `EAGAIN` and `target`
    /// as it was, when this socket is non-blocking and there is none
    /// \throws SocketException "SocketImpl::accept". Of its errors `EMFILE`, `ENFILE`, `ENOBUFS` and `ENOMEM` pass: pause
    /// and call again; `EINVAL` tells that the socket does not listen, or no more (`shutdown`)
    [[nodiscard]] bool accept(SocketImpl* target);

    /// Gives the connection to `target`, which must not be open, with mode, time limit and family, as when the plain
    /// connection goes on under TLS. This socket is not open then. No other thread may use either meanwhile.
    /// \throws SocketException "SocketImpl::moveTo", code 1: not open; code 4: it listens, or `target` is open
    void moveTo(SocketImpl& target);

    /// See `Socket::set`; only type 1 is there.
    void set(int type, bool nonBlocking, bool reuseAddress, int family);
    /// See `Socket`.
    void bind(const SocketAddress& address);
    void listen(int backlog);
    bool writable();
    bool connected();
    void shutdown(bool receiving, bool sending);
    void blocking(bool wait);
    [[nodiscard]] bool isBlocking() const noexcept { return m_blocking; }
    void timeLimit(uint_t milliseconds) noexcept { m_timeLimit = milliseconds; }
    [[nodiscard]] uint_t timeLimit() const noexcept { return m_timeLimit; }
    void noDelay(bool on);
    [[nodiscard]] SocketAddress localAddress() const;
    [[nodiscard]] SocketAddress remoteAddress() const;
    [[nodiscard]] int descriptor() const noexcept { return m_descriptor; }

protected:
    // What derived bodies may use. They lock the mutex and read the other two; changing these is this class's business.

    /// The socket's own lock, never null. No operation of this class takes it, so a derived one may call all of them
    /// while it holds it.
    Mutex* m_mutex;
    /// -1 while the socket is not open. The descriptor of a connected blocking socket blocks, that of a non-blocking one
    /// does not, so that reads and writes of others (OpenSSL's) behave as the mode says; that of a listening one never
    /// blocks.
    int m_descriptor = -1;
    /// When it is clear, operations that would wait report `EAGAIN` instead.
    bool m_blocking = true;

private:
    void open(const char* where, int family);
    void openForListening(const char* where, int family);
    void requireOpen(const char* where) const;
    bool wait(const char* where, const SocketAddress& peer, short events) const;
    void applyMode(const char* where) const;

    bool m_listening = false;
    bool m_reuseAddress = true;
    int m_family;
    uint_t m_timeLimit = 0;
    SocketAddress m_peer; ///< that `connect` was asked for
    Mutex m_ownMutex;
};

extern template class RefCounted<SocketImpl>;
extern template class Ref<SocketImpl>;

/// A handle on a socket; each operation is that of the body. The connection closes with its last handle.
class NORVCMSG_EXPORT Socket : public Ref<SocketImpl> {
public:
    enum Type : int {
        STREAM = 1 ///< TCP
    };

    /// A null handle.
    Socket();
    /// \param plain true makes a plain TCP body; false leaves the handle null, for a derived class that brings its own
    ///              body (`reset(makeReference<Body, SocketImpl>(...))`)
    explicit Socket(bool plain);
    /// Takes over a counted reference, which may be null.
    explicit Socket(RefCounted<SocketImpl>* reference);
    Socket(const Socket& other);
    Socket& operator=(const Socket& other);
    ~Socket() override;

    /// Tells how the socket is to be. Nothing is opened: the descriptor comes with `bind`, `listen` or `connect`. On an
    /// open socket the mode changes at once, and the other three have no effect.
    ///
    /// \param type         STREAM
    /// \param nonBlocking  false: operations wait; true: they do not, see above
    /// \param reuseAddress true lets `bind` take a port on which connections of an earlier listener are still fading
    ///                     (SO_REUSEADDR); false refuses it for that minute
    /// \param family       2 for IPv4, 10 for IPv6: what `listen` without `bind` listens on. `bind` and `connect` go by
    ///                     their address
    /// \throws SocketException "SocketImpl::set", code 4: another type or family
    void set(Type type, bool nonBlocking, bool reuseAddress, int family);

    /// Connects to a peer. \throws SocketException see `SocketImpl::connect`
    void connect(const SocketAddress& address);
    /// Asks for a local address; port 0 lets the kernel choose. An IPv6 socket is for IPv6 alone, "[::]:25" too: to
    /// serve both families, listen on two sockets. \throws SocketException "SocketImpl::bind"
    void bind(const SocketAddress& address);
    /// Begins to listen. \param backlog how many connections may wait to be accepted; the system limits it too
    /// \throws SocketException "SocketImpl::listen"
    void listen(int backlog = 4096);
    /// The next connection, see `SocketImpl::accept`; a null handle when a non-blocking socket has none.
    [[nodiscard]] Socket accept();
    /// \return how many bytes were taken, see `SocketImpl::send`
    int send(const uchar_t* data, uint_t length);
    /// \return how many bytes came, 0 at the end, see `SocketImpl::receive`
    int receive(uchar_t* buffer, uint_t length);
    /// See `SocketImpl::readable`.
    [[nodiscard]] bool readable();
    /// True when `send` would take a byte or a begun `connect` has ended, well or not. A blocking socket waits for that.
    /// \throws SocketException "SocketImpl::writable"
    [[nodiscard]] bool writable();
    /// True when the connection stands (it may have been ended since), false when it does not or not yet.
    /// \throws SocketException "SocketImpl::connect": a begun `connect` failed
    [[nodiscard]] bool connected();
    /// Ends the directions at once, for every handle: the peer reads the end of the stream, waiting operations of other
    /// threads return. On a listening socket with `receiving` it ends `accept`. The descriptor stays until the last
    /// handle goes. \throws SocketException "SocketImpl::shutdown", code 1: not open
    void shutdown(bool receiving = true, bool sending = true);
    /// Lets go: this handle is null then, and the connection closes if it was the last. \see shutdown
    void close() noexcept;

    /// \param wait true for a blocking socket
    void blocking(bool wait);
    [[nodiscard]] bool isBlocking() const;
    /// How long a blocking operation waits for the peer to do something, each time it has to; 0 (the start) for ever.
    /// `connect` waits once, `accept` and `receive` once, `send` for each piece that the system takes. A body that
    /// leaves its waits to another layer keeps the limit only where it says so.
    void timeLimit(uint_t milliseconds);
    [[nodiscard]] uint_t timeLimit() const;
    /// \param on true sends small pieces at once instead of collecting them (TCP_NODELAY)
    /// \throws SocketException "SocketImpl::noDelay", code 1: not open
    void noDelay(bool on);
    /// \throws SocketException "SocketImpl::localAddress", code 1: not open
    [[nodiscard]] SocketAddress localAddress() const;
    /// \throws SocketException "SocketImpl::remoteAddress", code 1: not connected
    [[nodiscard]] SocketAddress remoteAddress() const;
    /// -1 while the socket is not open. To wait on with others; it stays the socket's.
    [[nodiscard]] int descriptor() const;
};

} // namespace Norvane

#endif
