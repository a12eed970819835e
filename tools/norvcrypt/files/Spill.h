#pragma once

#include <norvcmsg/SwapBufferMediaOut.h>

#include <string>

namespace norvcrypt {

/// Bytes that are kept in memory up to 1 MiB, and beyond in a file without a name, mode 0600, in the directory for
/// temporary files.
Norvane::SwapBufferMediaOut emptySpill();
/// The names of such files, as mkstemp takes them.
std::string spillTemplate();

} // namespace norvcrypt
