#pragma once

/// \file
/// The verbs that throw a failure. What was attached and whether the OpenSSL queue was drained is in the verb's name.

#include "failures/Failures.h"
#include "openssl/ErrorQueue.h"

#include <norvcmsg/Exception.h>
#include <norvcmsg/SourceLocation.h>

#include <string>
#include <string_view>

namespace Norvane::Crypto::failures {

/// The exception for a failure, for the few places that attach more to it than the verbs below do.
template <class E = Exception>
[[nodiscard]] E exceptionFor(const Failure& failure, SourceLocation here = SourceLocation::current()) {
    return E(failure.where, failure.code, failure.file, failure.line != 0 ? failure.line : here.line());
}

/// Throws without a detail; the OpenSSL queue stays as it is.
template <class E = Exception>
[[noreturn]] void raise(const Failure& failure, SourceLocation here = SourceLocation::current()) {
    throw exceptionFor<E>(failure, here);
}

/// Throws with a fixed detail text; the OpenSSL queue stays as it is.
template <class E = Exception> [[noreturn]] void raise(const Failure& failure, const std::string& detail,
                                                       SourceLocation here = SourceLocation::current()) {
    auto exception = exceptionFor<E>(failure, here);
    exception.stringParameter(detail);
    throw exception;
}

/// Throws with `prefix` and the OpenSSL errors as detail, and leaves the queue empty.
template <class E = Exception> [[noreturn]] void raiseWithErrors(const Failure& failure, std::string_view prefix = "",
                                                                 SourceLocation here = SourceLocation::current()) {
    raise<E>(failure, std::string(prefix) + openssl::drainErrorQueue(), here);
}

/// Throws with a caught failure as the cause.
[[noreturn]] inline void raiseBecause(const Failure& failure, const Exception& cause,
                                      SourceLocation here = SourceLocation::current()) {
    auto exception = exceptionFor(failure, here);
    exception.cause(cause);
    throw exception;
}

} // namespace Norvane::Crypto::failures
