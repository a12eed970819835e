#pragma once

/// \file
/// A source for decoders. The adapter that reads from a stream reports the length it was asked for even where the
/// stream ended, and a decoder that believes it decodes what was never sent. This BIO stands above the adapter and
/// reports what the stream really delivered.

#include "openssl/Pointers.h"

namespace Norvane::Crypto::openssl {

/// A BIO that reads from the stream under `adapter`, the BIO of a `BIOMediaIn`, which must outlive it. A count is short
/// only at the end of the stream (a stream that delivers a byte at a time is asked again) and 0 after it; retries are
/// never asked for. What the stream throws is kept by the adapter: make calls through `rethrowingStreamErrors` with the
/// adapter. Null when `adapter` is no adapter that reads; \throws std::bad_alloc
BioPtr trueCountBio(BIO* adapter);

} // namespace Norvane::Crypto::openssl
