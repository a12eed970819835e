#include "Certificate/FileContent.h"

#include <norvcmsg/Exception.h>

#include <limits>

namespace Norvane::Crypto::NVX509 {

std::optional<Buffer> fileContent(const File::Path& path) {
    try {
        if (!path.exists()) {
            return std::nullopt;
        }
        const auto size = path.status(false).size();
        if (size > static_cast<unsigned long long>(std::numeric_limits<int>::max())) {
            return std::nullopt;
        }
        Buffer content(static_cast<int>(size), 0);
        FileMediaIn source(path);
        source.read(content, 0);
        return content;
    } catch (const Exception&) {
        return std::nullopt;
    }
}

} // namespace Norvane::Crypto::NVX509
