#pragma once

/// \file
/// Decoding of DER that may be hostile, and encoding.

#include "openssl/ErrorQueue.h"

#include <norvcmsg/Buffer.h>

#include <openssl/asn1.h>

#include <string>

namespace Norvane::Crypto::openssl {

/// Decodes with the `d2i_` function `Decode`. Null for no bytes and for bytes that do not decode; the error queue stays
/// as it was. The caller owns the result.
template <auto Decode> [[nodiscard]] auto decode(const unsigned char* der, unsigned int length) {
    const ErrorMark mark;
    using Result = decltype(Decode(nullptr, nullptr, 0L));
    if (der == nullptr || length == 0) {
        return Result(nullptr);
    }
    return Decode(nullptr, &der, static_cast<long>(length));
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
