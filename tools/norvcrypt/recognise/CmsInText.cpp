#include "recognise/CmsInText.h"
#include "base/Failure.h"
#include "recognise/DerAndPem.h"

#include <algorithm>
#include <cctype>
#include <string_view>
#include <vector>

namespace norvcrypt {

namespace {

/// A structure as it travels in a mail: what to do, for whoever saved it as it came.
std::string adviceOn(const Norvane::Buffer& content) {
    static constexpr std::string_view header = "content-type:";
    const std::string_view text(reinterpret_cast<const char*>(content.data()), content.length());
    const auto sameLetter = [](char one, char other) { return std::tolower(static_cast<unsigned char>(one)) == other; };
    if (std::search(text.begin(), text.end(), header.begin(), header.end(), sameLetter) != text.end())
        return ", which looks like a mail: take it out with openssl smime -pk7out";
    // SEQUENCE with a long or an indefinite length.
    return text.starts_with("MI") ? ", which looks like base64: decode it with openssl base64 -d" : "";
}

} // namespace

Norvane::Buffer structureInText(const Norvane::Buffer& content, const std::string& name) {
    const std::vector<FoundObject> objects = objectsIn(content);
    const auto isCms = [](const FoundObject& object) { return object.kind == ObjectKind::cms; };
    const auto count = std::count_if(objects.begin(), objects.end(), isCms);
    if (count > 1)
        throw Failure("more than one CMS structure in " + name);
    if (count == 0 && !looksLikeDer(content))
        throw Failure("no CMS structure in " + name + adviceOn(content));
    // What looks binary and is none has the library tell what is wrong with it.
    return count == 0 ? content : std::find_if(objects.begin(), objects.end(), isCms)->der;
}

} // namespace norvcrypt
