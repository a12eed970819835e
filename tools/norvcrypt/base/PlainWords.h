#pragma once

/// \file
/// What went wrong in words for people. Names of classes, places in sources and OpenSSL's own reasons are for those who look
/// for a fault in a program: --debug adds them.

#include <norvcmsg/Exception.h>

#include <string>

namespace norvcrypt {

/// Has everything be told from now on.
void tellAll(bool all) noexcept;
[[nodiscard]] bool tellsAll() noexcept;

/// A failure of the library.
std::string inPlainWords(const Norvane::Exception& failure);
/// A text that may hold OpenSSL's reasons, as the library writes them: "0x4800066: PEM routines / get_name / no start line; ".
std::string inPlainWords(const std::string& text);

} // namespace norvcrypt
