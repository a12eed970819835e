#pragma once

/// \file
/// How many addresses the text of an address field has, for telling whether GMime found all of them: of what it cannot read
/// it leaves parts out, which other readers may show.

#include <cstddef>
#include <optional>
#include <string_view>

namespace Norvane::Crypto::SMime::mime {

struct AddressCount {
    std::size_t addresses = 0;
    std::size_t others = 0; ///< items with text and no address; names of groups are none
};

/// Counts what stands between commas, semicolons and colons (RFC 5322, 3.4) and has an "@" outside of quotes and comments. In
/// front of "<" it may stand when the same address stands in the brackets: of "a@b ] <c@d>" GMime finds "a@b", others "c@d".
/// \returns nothing for quotes, comments and angle brackets that are not closed, and for an item with more than one address
[[nodiscard]] std::optional<AddressCount> countAddresses(std::string_view value);

} // namespace Norvane::Crypto::SMime::mime
