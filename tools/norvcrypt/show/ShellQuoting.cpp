#include "show/ShellQuoting.h"

#include <norvcmsg/Escape.h>

#include <string_view>

namespace norvcrypt {

namespace {

/// For a path with bytes that cannot be shown: as a command that writes it, for any shell.
std::string printfOf(const std::string& argument) {
    std::string text = "\"$(printf '";
    for (const char letter : argument) {
        const auto byte = static_cast<unsigned char>(letter);
        if (byte < 0x20 || byte >= 0x7F || letter == '\'' || letter == '\\' || letter == '%')
            text.append({'\\', static_cast<char>('0' + (byte >> 6U)), static_cast<char>('0' + ((byte >> 3U) & 7U)),
                         static_cast<char>('0' + (byte & 7U))});
        else
            text += letter;
    }
    return text + "')\"";
}

} // namespace

std::string quoted(const std::string& path) {
    std::string argument = path.starts_with('-') ? "./" + path : path;
    static constexpr std::string_view plain = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_./-+,:@%";
    if (!argument.empty() && argument.find_first_not_of(plain) == std::string::npos)
        return argument;
    if (!Norvane::isDisplayable(argument))
        return printfOf(argument);
    std::string text = "'";
    for (const char letter : argument)
        text += letter == '\'' ? std::string("'\\''") : std::string(1, letter);
    return text + "'";
}

} // namespace norvcrypt
