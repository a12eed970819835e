#pragma once

/// \file
/// What the old interface kept in plain fields of an X509_CRL and the installed one hides. All of these leave the error
/// queue as it was.

#include "openssl/Pointers.h"

#include <openssl/x509.h>
#include <openssl/x509v3.h>

namespace Norvane::Crypto::openssl {

/// All reasons of revocation that are defined.
inline constexpr unsigned int allReasons = 0x807F;

/// The scope of a list: the issuing distribution point and what follows from it.
struct CrlScope {
    IssuingDistPointPtr point;         ///< null when the list has none that can be read
    unsigned int flags = 0;            ///< IDP_PRESENT and its companions
    unsigned int reasons = allReasons; ///< the reasons that the list covers
};
/// The scope of all reasons for a list without issuing distribution point, and for null.
CrlScope crlScope(const X509_CRL* list);

/// The non-negative integer of the extension `nid`; null when the list has none, and for a null list.
IntegerPtr crlInteger(const X509_CRL* list, int nid);

} // namespace Norvane::Crypto::openssl
