#include "Owners.h"

#include "Files.h"

#include <norvcmsg/Escape.h>
#include <norvcmsg/Strings.h>

#include <string_view>

namespace Norvane::Crypto::NVX509::keystore {

std::vector<DirectoryKeyStore::Owner> ownersOf(const Buffer& text) {
    constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";
    std::string_view rest(reinterpret_cast<const char*>(text.data()), text.length());
    if (rest.substr(0, byteOrderMark.size()) == byteOrderMark) {
        rest.remove_prefix(byteOrderMark.size());
    }
    std::vector<DirectoryKeyStore::Owner> owners;
    for (unsigned int line = 1; !rest.empty(); ++line) {
        const auto length = rest.find('\n');
        const std::string pattern = stringLeftTrim(stringRightTrim(std::string(rest.substr(0, length))));
        rest.remove_prefix(length == std::string_view::npos ? rest.size() : length + 1);
        if (!isDisplayable(pattern)) {
            throw Refusal("line " + std::to_string(line) + " holds bytes that are no text");
        }
        if (!pattern.empty() && pattern.front() != '#') {
            owners.push_back({StringPattern(pattern), line});
        }
    }
    return owners;
}

} // namespace Norvane::Crypto::NVX509::keystore
