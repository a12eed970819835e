#pragma once

/// \file
/// Which certificates a chain may be built from.

#include "OpenSsl.h"
#include "Snapshot.h"

#include <list>
#include <unordered_map>
#include <vector>

namespace Norvane::Crypto::Trust::detail {

/// The certificates that names lead to from the judged one, issuer by issuer: no others can come into its chain.
struct Candidates {
    std::vector<X509*> known;       ///< of the snapshot, anchors included, in its order
    std::vector<X509*> fromMessage; ///< of the message, in its order
    std::vector<X509*> tooLarge;    ///< of the message, but not to be used, for their keys
    std::unordered_map<const X509*, NVX509::RefCertificate> handles; ///< of the message
    std::size_t given = 0;                                           ///< how many certificates the message has
    bool crowded = false;                                            ///< more of one name than `maximumNamesakes`
};

/// \param lists whether those count, too, who issue lists for them
Candidates candidatesFor(const NVX509::RefCertificate& certificate,
                         const std::list<NVX509::RefCertificate>& fromMessage, const Snapshot& snapshot, bool lists);

} // namespace Norvane::Crypto::Trust::detail
