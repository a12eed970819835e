#pragma once

#include <functional>
#include <string_view>

namespace norvcrypt {

/// Generates a MIME message of some megabytes (RFC 2045: two texts and three attachments, lines ending in CR LF), the
/// same one each time, and hands it out in pieces.
void generateMessage(const std::function<void(std::string_view)>& write);

} // namespace norvcrypt
