#ifndef NORVCMSG_TYPES_H
#define NORVCMSG_TYPES_H

namespace Norvane {

/// One octet of a stream or buffer.
using uchar_t = unsigned char;

/// A length in bytes: lengths are 32 bits wide throughout the interface.
using uint_t = unsigned int;

} // namespace Norvane

#endif
