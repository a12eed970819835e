#pragma once

#include <norvcmsg/Buffer.h>

#include <string>
#include <string_view>

namespace norvcrypt {

/// What a file holds in the place of what was wanted: ": it is empty", ": it holds a private key"; what to do about it
/// where that is clear. Empty when nothing can be said.
std::string whatElseIsIn(const Norvane::Buffer& content);

/// What begins as other programs' armour does and is none of PEM's: "OpenPGP armour"; empty for anything else.
std::string foreignArmourIn(std::string_view text);

} // namespace norvcrypt
