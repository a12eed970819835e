#pragma once

/// \file
/// Whole files for the readers of certificates and lists, which answer "nothing" instead of throwing.

#include <norvcmsg/Buffer.h>
#include <norvcmsg/File.h>

#include <optional>

namespace Norvane::Crypto::NVX509 {

/// True when the first byte is the tag of a DER SEQUENCE, which is also the character "0".
inline bool startsAsDer(const Buffer& bytes) {
    return !bytes.empty() && bytes.at(0) == 0x30;
}

/// The bytes of a file; nothing when it does not exist, cannot be read to its end or is larger than a buffer.
std::optional<Buffer> fileContent(const File::Path& path);

} // namespace Norvane::Crypto::NVX509
