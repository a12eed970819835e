#pragma once

/// \file
/// What `norvcrypt inspect` tells about an object, as a tree of keys and values. Texts in it hold the bytes that stand
/// in the object; Render.h shows them.

#include "recognise/DerAndPem.h"

#include <norvcrypto/Certificate.h>
#include <norvcrypto/CertificateRevocationList.h>
#include <norvcrypto/Key.h>

#include <nlohmann/json.hpp>

namespace norvcrypt {

using Description = nlohmann::ordered_json;

/// Describes one object: "type" first, then its values; what is absent is left out. Oddities that do not keep the
/// object from being read stand under "problems". \throws Failure or Norvane::Exception: it cannot be read
Description describe(const FoundObject& object);

/// What `describe` tells of a certificate, a list or a key, without the type.
Description listFacts(const Norvane::Crypto::NVX509::RefCertificateRevocationList& list);
Description certificateFacts(const Norvane::Crypto::NVX509::RefCertificate& certificate);
Description keyFacts(const Norvane::Crypto::RefKey& key);

} // namespace norvcrypt
