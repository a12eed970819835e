#ifndef NORVCMSG_STRINGS_H
#define NORVCMSG_STRINGS_H

/// \file
/// Small operations on texts. They know ASCII only: letters beyond it are left alone and the locale plays no part.
///
/// \code
/// std::string type = Norvane::stringLeftTrim(Norvane::stringRightTrim(" cn "));
/// Norvane::stringToUpperNoCopy(type);                      // "CN"
/// Norvane::stringCompareNoCase("Mail", "mAIL", 0);         // true
/// Norvane::stringCompareNoCase("mail.a.test", "MAIL.b", 5) // true: the first five characters are equal
/// \endcode

#include <norvcmsg/Export.h>

#include <string>

namespace Norvane {

/// `text` without the white space (blank, HT, LF, VT, FF, CR) at its start.
[[nodiscard]] NORVCMSG_EXPORT std::string stringLeftTrim(const std::string& text);

/// `text` without the white space at its end.
[[nodiscard]] NORVCMSG_EXPORT std::string stringRightTrim(const std::string& text);

/// Turns the letters a to z of `text` into upper case, in place. Returns `text`.
NORVCMSG_EXPORT std::string& stringToUpperNoCopy(std::string& text);

/// True when the texts are equal without regard to the case of the letters A to Z. With a `maximum` other than 0 only
/// that many bytes from the start are compared.
[[nodiscard]] NORVCMSG_EXPORT bool stringCompareNoCase(const std::string& a, const std::string& b,
                                                       unsigned int maximum);

} // namespace Norvane

#endif
