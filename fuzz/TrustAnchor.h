#pragma once

/// \file
/// The anchor of the corpus of chains, and the key that everybody in them has.

#include "differential/StoredKey.h"

#include <authority/Authority.h>

namespace fuzz {

inline const norvauthority::Key& trustKey() {
    static const norvauthority::Key key = storedKey("eve");
    return key;
}

/// The same octets each time but for its signature.
inline const norvauthority::Identity& trustAnchor() {
    static const norvauthority::Identity root =
        norvauthority::issue({.subject = {{"CN", "Root"}},
                              .key = trustKey(),
                              .notBefore = norvauthority::Time::utc("200101000000Z"),
                              .notAfter = norvauthority::Time::utc("490101000000Z"),
                              .ca = true,
                              .keyUsage = 0x06U});
    return root;
}

} // namespace fuzz
