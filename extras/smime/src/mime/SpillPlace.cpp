#include "SpillPlace.h"

#include <filesystem>
#include <system_error>

namespace Norvane::Crypto::SMime::mime {

std::string spillPlace(const std::string& asked) {
    if (!asked.empty())
        return asked;
    std::error_code failure;
    const std::filesystem::path folder = std::filesystem::temp_directory_path(failure);
    return (failure ? std::filesystem::path("/tmp") : folder) / "norvcrypto-XXXXXX";
}

} // namespace Norvane::Crypto::SMime::mime
