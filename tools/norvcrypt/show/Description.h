#pragma once

/// \file
/// What `norvcrypt inspect` tells about an object, as a tree of keys and values. Texts in it hold the bytes that stand
/// in the object; Render.h shows them.

#include "recognise/DerAndPem.h"

#include <norvcrypto/Certificate.h>
#include <norvcrypto/CertificateRevocationList.h>
#include <norvcrypto/Key.h>

#include <nlohmann/json.hpp>

#include <cstddef>

namespace norvcrypt {

using Description = nlohmann::ordered_json;

/// Which entries of a revocation list are told, counted from 1; none when the last is before the first.
struct EntryRange {
    std::size_t first = 1;
    std::size_t last = 10;
};

/// Describes one object: "type" first, then its values; what is absent is left out. Oddities that do not keep the
/// object from being read stand under "problems". \throws Failure or Norvane::Exception: it cannot be read
Description describe(const FoundObject& object, const EntryRange& range);

/// What `describe` tells of a certificate, a list or a key, without the type.
Description listFacts(const Norvane::Crypto::NVX509::RefCertificateRevocationList& list, const EntryRange& range);
/// Without its entries.
Description listFacts(const Norvane::Crypto::NVX509::RefCertificateRevocationList& list);
Description certificateFacts(const Norvane::Crypto::NVX509::RefCertificate& certificate);
Description keyFacts(const Norvane::Crypto::RefKey& key);

} // namespace norvcrypt
