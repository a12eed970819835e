#pragma once

/// \file
/// The grammar of RFC 5321 section 4.1.2 and 4.1.3, and its extension by RFC 6531 section 3.3.

#include <cstddef>
#include <optional>
#include <string_view>

namespace Norvane::mailbox {

/// Where the "@" of a Mailbox stands; nothing when `text` is none.
[[nodiscard]] std::optional<std::size_t> parse(std::string_view text, bool allowUtf8);

} // namespace Norvane::mailbox
