#ifndef NORVCRYPTO_CRYPTO_H
#define NORVCRYPTO_CRYPTO_H

/// \file
/// Start, stop and error text of the library. A program calls `initialize()` once, before any other operation of the
/// library, and `cleanup()` once, after the last one, each from one thread while no other thread uses the library:
///
/// \code
/// int main() {
///     Norvane::Crypto::initialize();
///     try {
///         serveMail();
///     } catch (const Norvane::Exception& failure) {
///         std::cerr << failure.asString() << '\n';
///     }
///     Norvane::Crypto::cleanup();
/// }
/// \endcode
///
/// How the library reports failure: it is thrown as a `Norvane::Exception` (or its subclasses `MediaException` and
/// `SocketException`) with a where-text, a code (4 for a failed operation, bad input or a failed construction; 1 for a
/// null handle, a failed cast or a socket that is not connected), the source module and the line. Where an OpenSSL call
/// failed, a string parameter carries OpenSSL's errors in the form of `getErrString()`, or, where the parameters are fixed,
/// as on TLS sockets, the cause does; the calling thread's error queue is empty afterwards. An exception without any
/// parameter leaves the queue as it is. A failure that another one caused carries that one as its cause.
///
/// What answers instead of throwing says so where it is declared: tests and look-ups, readers that give an empty handle,
/// `norvSSL_CTX::init`, which always answers 0, and a TLS socket's `send`, which answers 0 for some failures.

#include <norvcrypto/Export.h>
#include <norvcrypto/NorvRefcounted>

#include <string>

namespace Norvane::Crypto {

/// Starts OpenSSL: its random generator, ciphers, digests, TLS layer and error texts. Loads the default and the legacy
/// provider into OpenSSL's default library context, which changes the whole host process: other users of OpenSSL in it
/// find the legacy algorithms too, and IDEA, which comes from libgcrypt. That is loaded and started by the first key for IDEA
/// or the first message under it, in whichever thread: a program that configures libgcrypt does so before. A second call
/// repeats everything, which is harmless. Never throws; what OpenSSL answers is ignored.
///
/// The first step is the function `openssl_init_with_rng`, with C linkage, which a program may replace by defining its
/// own.
NORVCRYPTO_EXPORT void initialize();

/// Gives back the tables that `initialize()` loaded, as far as the installed OpenSSL gives any back. Leaves the random
/// generator, the providers and every thread's error queue alone. A second call is harmless.
NORVCRYPTO_EXPORT void cleanup();

/// Drains the calling thread's OpenSSL error queue into one line: for each error, oldest first, "0x", its code in lower
/// case hexadecimal, ": ", the library text, " / ", the function text, " / ", the reason text and "; ". The empty text
/// for an empty queue. The queue is always empty afterwards, so that this is to be called right after the OpenSSL call
/// that failed and before the next one on the same thread.
///
/// Deliberate: where OpenSSL has no text for a code, the result ends right there, without the rest of that error and
/// without the errors that followed it.
NORVCRYPTO_EXPORT std::string getErrString();

/// A body that no operation of the library creates or calls; see `TracerRef`.
class NORVCRYPTO_EXPORT Tracer : public RefImpl {
public:
    Tracer();
    ~Tracer() override;
};

} // namespace Norvane::Crypto

namespace Norvane {
extern template class RefCounted<Crypto::Tracer>;
extern template class Ref<Crypto::Tracer>;
} // namespace Norvane

namespace Norvane::Crypto {

/// The handle that every hasher holds and that stays null for its whole life.
class NORVCRYPTO_EXPORT TracerRef : public Ref<Tracer> {
public:
    TracerRef();
    ~TracerRef() override;
    TracerRef(const TracerRef& other);
    TracerRef& operator=(const TracerRef& other);
};

} // namespace Norvane::Crypto

#endif
