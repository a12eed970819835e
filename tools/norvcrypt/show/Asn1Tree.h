#pragma once

/// \file
/// The elements of an encoding as they stand, for whoever looks for what is wrong with it.

#include <norvcmsg/Buffer.h>

#include <functional>
#include <string>

namespace norvcrypt {

/// Hands out a line for each element: where it is, how long its header and content are, what it is and, for short values, what
/// it says. BER and DER, damaged or not; nothing is decoded beyond the elements. What strings of octets hold is shown, too,
/// when it is one element. Deeper than 64 levels and beyond 20,000 lines nothing is shown, which is told. Lines may be shown as
/// they are.
void showTree(const Norvane::Buffer& encoded, const std::function<void(const std::string&)>& line);

} // namespace norvcrypt
