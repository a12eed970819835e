#include <norvcmsg/Strings.h>

#include "Ascii.h"

namespace Norvane {

namespace {

constexpr const char* whiteSpace = " \t\n\v\f\r";

} // namespace

std::string stringLeftTrim(const std::string& text) {
    const auto first = text.find_first_not_of(whiteSpace);
    return first == std::string::npos ? std::string() : text.substr(first);
}

std::string stringRightTrim(const std::string& text) {
    return text.substr(0, text.find_last_not_of(whiteSpace) + 1);
}

std::string& stringToUpperNoCopy(std::string& text) {
    for (char& character : text) {
        character = ascii::toUpper(character);
    }
    return text;
}

bool stringCompareNoCase(const std::string& a, const std::string& b, unsigned int maximum) {
    const auto compared = maximum == 0 ? std::string_view::npos : maximum;
    return ascii::equalNoCase(std::string_view(a).substr(0, compared), std::string_view(b).substr(0, compared));
}

} // namespace Norvane
