#pragma once

/// \file
/// Decoding of DER that may be hostile, and encoding.

#include "openssl/Acceptance.h"
#include "openssl/ErrorQueue.h"

#include <norvcmsg/Buffer.h>

#include <openssl/asn1.h>
#include <openssl/err.h>

#include <climits>
#include <string>
#include <utility>

namespace Norvane::Crypto::openssl {

/// Decodes with the `d2i_` function `Decode`. Null for no bytes, for bytes that do not decode and for more than OpenSSL
/// counts, which narrows lengths to an int on its way; the error queue stays as it was. The caller owns the result.
/// \throws std::bad_alloc: without memory nothing is known of the bytes
template <auto Decode> [[nodiscard]] auto decode(const unsigned char* der, unsigned int length) {
    const ErrorMark mark;
    using Result = decltype(Decode(nullptr, nullptr, 0L));
    if (der == nullptr || length == 0 || length > static_cast<unsigned int>(INT_MAX)) {
        return Result(nullptr);
    }
    const Result decoded = Decode(nullptr, &der, static_cast<long>(length));
    if (decoded == nullptr) {
        mark.throwWithoutMemory();
    }
    return decoded;
}

/// Likewise for what holds public keys: null for what is refused, too.
template <auto Decode> [[nodiscard]] auto decodeAccepted(const unsigned char* der, unsigned int length) {
    using Result = decltype(Decode(nullptr, nullptr, 0L));
    return refusalOf(der, length) == Refusal::none ? decode<Decode>(der, length) : Result(nullptr);
}

/// Makes the OpenSSL call `call()` and answers what it answers: null or false for failure. Only a failure leaves its
/// entries in the error queue; calls that succeed queue them too, about readable but odd parts.
template <class Call> auto queueingOnlyFailure(Call&& call) {
    ERR_set_mark();
    auto answer = std::forward<Call>(call)();
    if (answer) {
        ERR_pop_to_mark();
    } else {
        ERR_clear_last_mark();
    }
    return answer;
}

/// Decodes one structure from `source` with the `d2i_` function `Decode`, into the owning pointer `Pointer`. Null when
/// the bytes are none, with the reasons in the error queue: at least one, also where OpenSSL gives none (the source
/// ended between two elements).
template <class Pointer, auto Decode> Pointer decodeFrom(BIO* source, const char* function) noexcept {
    Pointer structure = queueingOnlyFailure([&] { return Pointer(Decode(source, nullptr)); });
    if (!structure && ERR_peek_error() == 0) {
        queueError(function, ERR_LIB_ASN1, ASN1_R_NOT_ENOUGH_DATA);
    }
    return structure;
}

/// Decodes with the `d2i_` function `Decode` what is not refused; queues a refusal.
template <auto Decode> void* decodeUnlessRefused(void** /*reused*/, const unsigned char** der, long length) {
    return isAccepted("ASN1_d2i_bio", refusalOf(*der, static_cast<std::size_t>(length))) ? Decode(nullptr, der, length)
                                                                                         : nullptr;
}

/// Reads one element as OpenSSL's own decoders from a source do, and sees its bytes before anything is decoded.
template <auto Decode> auto readUnlessRefused(BIO* source, void* /*reused*/) {
    using Result = decltype(Decode(nullptr, nullptr, 0L));
    return static_cast<Result>(ASN1_d2i_bio(nullptr, decodeUnlessRefused<Decode>, source, nullptr));
}

/// `decodeFrom` for what holds public keys: a refusal, too, is a reason.
template <class Pointer, auto Decode> Pointer decodeAcceptedFrom(BIO* source, const char* function) noexcept {
    return decodeFrom<Pointer, readUnlessRefused<Decode>>(source, function);
}

/// The whole DER encoding of an integer; empty when it cannot be encoded.
[[nodiscard]] Buffer encodeInteger(const ASN1_INTEGER* integer);

/// The content octets alone: the old interface had a function for it (`i2c_ASN1_INTEGER`), the installed one keeps it
/// to itself.
[[nodiscard]] Buffer integerContent(const ASN1_INTEGER* integer);

/// A GeneralizedTime with the digits and the zone of `time`, null when `time` is no valid time. The old interface
/// copied the text, with a century for a UTCTime; the installed one converts a time with an offset to UTC and completes
/// missing seconds.
[[nodiscard]] ASN1_GENERALIZEDTIME* toGeneralizedTime(const ASN1_TIME* time);

} // namespace Norvane::Crypto::openssl
