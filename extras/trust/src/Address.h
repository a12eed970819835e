#pragma once

/// \file
/// Mail addresses, taken apart as RFC 5321 and RFC 6531 have them.

#include <optional>
#include <string>
#include <string_view>

namespace Norvane::Crypto::Trust::detail {

struct Address {
    std::string local;  ///< without quotes and the backslashes in them
    std::string domain; ///< as it stands
};

/// The parts of an addr-spec in UTF-8; nothing for what is none.
std::optional<Address> parsed(std::string_view address);

/// A domain in the form in which domains are compared: ASCII in lower case, labels in other scripts as A-labels. Empty for what
/// is no domain.
std::string comparableDomain(const std::string& domain);

/// Whether a text has octets outside of ASCII.
bool isInternational(std::string_view text);

} // namespace Norvane::Crypto::Trust::detail
