#pragma once

/// \file
/// What stands in the PEM files of an identity.

#include <norvcmsg/Buffer.h>
#include <norvcrypto/Certificate.h>
#include <norvcrypto/Key.h>

#include <list>
#include <optional>

namespace Norvane::Crypto::NVX509::keystore {

/// All certificates of a text, warmed, so that threads can share them; at least one. \throws Refusal: none, or one that
/// does not decode
std::list<RefCertificate> certificatesOf(const Buffer& pem);

/// The first certificate of a text, not decoded; nothing when there is none or it is damaged.
std::optional<Buffer> firstCertificate(const Buffer& pem);

/// The one line of a passphrase file, without its end. \throws Refusal
Buffer passphraseOf(const Buffer& text);

/// The first private key of a text. Never prompts. \throws Refusal, Exhausted
RefKey privateKeyOf(const Buffer& pem, const std::optional<Buffer>& passphrase);

} // namespace Norvane::Crypto::NVX509::keystore
