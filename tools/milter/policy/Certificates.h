#pragma once

/// \file
/// The certificate to encrypt to for an address.

#include "message/Temporary.h"
#include "stores/Stores.h"

#include <norvcmsg/EmailAddress.h>
#include <norvcrypto/Certificate.h>

#include <string>
#include <vector>

namespace norvmilter {

struct FoundCertificate {
    Norvane::Crypto::NVX509::RefCertificate certificate; ///< an empty handle when there is none that can be used
    std::string source;                                  ///< "the store", "learnt"
    std::vector<std::string> refusals;                   ///< why others are not used, one line each, escaped
};

/// An address as it stands and, where its domain is of another script, in the ways in which a store may have it: as A-labels and
/// as U-labels. Nothing where it is no address.
[[nodiscard]] std::vector<Norvane::EmailAddress> spellingsOf(const std::string& address);

/// The first one that the verdict accepts: those of the store by the precedence of their patterns, then those that were learnt.
/// \throws Temporary there is nobody to judge, or the time is over
[[nodiscard]] FoundCertificate encryptionCertificateFor(const LoadedStores& stores, const LearntFolder* learnt,
                                                        const std::string& address, const Deadline& deadline);

} // namespace norvmilter
