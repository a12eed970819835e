#ifndef NORVCMSG_SLEEP_H
#define NORVCMSG_SLEEP_H

/// \file
/// A short sleep. It is called `pause`, since POSIX has `sleep` in the global namespace.
///
/// \code
/// Norvane::pause(0, 3); // three milliseconds
/// \endcode

#include <norvcmsg/Export.h>

namespace Norvane {

/// Blocks the calling thread for at least the given time; signals do not cut it short.
NORVCMSG_EXPORT void pause(unsigned int seconds, unsigned int milliseconds);

} // namespace Norvane

#endif
