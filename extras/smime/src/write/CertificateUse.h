#pragma once

#include <norvcrypto/Certificate.h>
#include <norvcrypto/Hasher.h>

#include <ctime>
#include <optional>

namespace Norvane::Crypto::SMime::writing {

enum class Use : int { signing, encryption };

/// Asks whether a certificate is valid at a moment, and whether its key usage (RFC 5280, 4.2.1.3) and extended key usage
/// (RFC 8550, 4.4.4) allow that use. \throws Exception: no, and why
void requireUsable(const NVX509::RefCertificate& certificate, Use use, std::time_t at);

/// Whether the key is an RSA key, of either kind.
bool hasRsaKey(const NVX509::RefCertificate& certificate);

/// The digest that suits the key of a certificate: what `CMS::SignedWriter` takes when it is left to it; nothing for a key
/// whose digest has no number (Ed448).
std::optional<Hasher::Type> suitableDigest(const NVX509::RefCertificate& certificate);

} // namespace Norvane::Crypto::SMime::writing
