#pragma once

/// \file
/// How the modules of the library look into a structure without having all of it decoded.

#include "openssl/LazyPkcs7.h"

#include <norvcrypto/CMS.h>

namespace Norvane::Crypto::CMS {

struct StructureParts {
    /// A structure that was decoded from a source, with what of it waits; null for every other one.
    static openssl::LazyPkcs7* of(const RefContentInfo& content) {
        const _ContentInfo* body = content.isNull() ? nullptr : content.operator->();
        return body == nullptr ? nullptr : body->m_parts.get();
    }
    /// The structure without what waits, or null.
    static PKCS7* structureOf(const RefContentInfo& content) {
        const _ContentInfo* body = content.isNull() ? nullptr : content.operator->();
        return body == nullptr ? nullptr : body->m_structure;
    }

    static SignedData signedData(const RefContentInfo& content);
    static EnvelopedData envelopedData(const RefContentInfo& content);
};

} // namespace Norvane::Crypto::CMS
