#pragma once

/// \file
/// How an exception of a stream crosses OpenSSL. A C++ exception must not unwind through C code, so the callbacks of a
/// stream's BIO keep the first one that the stream throws and answer "failed", now and to every later call, without
/// touching the stream again. Every OpenSSL call that is given such a BIO is made through `rethrowingStreamErrors`, so
/// that the caller gets the stream's own exception instead of OpenSSL's account of it:
///
/// \code
/// BIOMediaOut adapter(target);
/// const int written = openssl::rethrowingStreamErrors(adapter, [&] { return i2d_X509_bio(adapter, certificate); });
/// if (written == 0) {
///     failures::raiseWithErrors(...); // OpenSSL's own failure: the target threw nothing
/// }
/// \endcode
///
/// An exception that was kept outside of such a call (a plain BIO_write or BIO_flush on the adapter) is not lost: the
/// next call through this function throws it. A call that answers an object owned by the caller must answer it in an
/// owning pointer, so that it goes when the stream's exception is thrown.

#include <openssl/err.h>

#include <exception>
#include <utility>

namespace Norvane::Crypto::openssl {

/// Makes the OpenSSL call `call()` and answers what it answers. Throws what the stream threw under it, if anything,
/// with OpenSSL's error queue empty. `adapter` is a `BIOMediaIn`, a `BIOMediaOut` or anything else with
/// `std::exception_ptr takeStreamException()`.
template <class Adapter, class Call> auto rethrowingStreamErrors(Adapter& adapter, Call&& call) {
    auto answer = std::forward<Call>(call)();
    if (const std::exception_ptr kept = adapter.takeStreamException()) {
        ERR_clear_error();
        std::rethrow_exception(kept);
    }
    return answer;
}

} // namespace Norvane::Crypto::openssl
