#pragma once

#include <string>

namespace Norvane::Crypto::SMime::mime {

/// Where files without a name are made: as the caller has it, or the system's folder for temporary files. Where that is not
/// there (a stale TMPDIR), /tmp: whether anything has to be kept in a file is not known yet.
[[nodiscard]] std::string spillPlace(const std::string& asked);

} // namespace Norvane::Crypto::SMime::mime
