#pragma once

/// \file
/// Where content waits that cannot be passed on yet.

#include <string>

namespace Norvane::Crypto::CMS {

/// The template of a temporary file as `SwapBufferMediaOut` takes it: what the caller asks for, or, for an empty text, a
/// file in the system's folder for such ("TMPDIR", or "/tmp").
std::string temporaryFile(const std::string& asked);

} // namespace Norvane::Crypto::CMS
