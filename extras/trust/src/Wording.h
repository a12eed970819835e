#pragma once

/// \file
/// What people read: a text and an advice for every reason.

#include <norvcrypto-trust/TrustVerdict.h>

#include <string>
#include <string_view>

namespace Norvane::Crypto::Trust::detail {

/// What a text tells beside its code; escaped for display, each at most `longestName` octets.
struct Details {
    std::string whose;  ///< the certificate: "CN=Anna,O=Org"
    std::string issuer; ///< its issuer, or that of the list
    std::string when;   ///< a moment
    std::string what;   ///< a number, an algorithm, an extension, an address
    std::string where;  ///< where a list is distributed
};

inline constexpr std::size_t longestName = 300;

/// A reason with its text and advice.
Reason worded(ReasonCode code, const Details& details);

/// At most `longestName` octets of a text that is escaped already, cut between characters.
std::string shortened(std::string text);
/// `text` escaped and shortened.
std::string shown(std::string_view text);

/// The subject of a certificate, or its serial number when it has no name.
std::string nameOf(const NVX509::RefCertificate& certificate);

} // namespace Norvane::Crypto::Trust::detail
