#ifndef NORVCRYPTO_EXPORT_H
#define NORVCRYPTO_EXPORT_H

/// Marks what libnorvcrypto offers to other programs; everything else stays hidden.
#define NORVCRYPTO_EXPORT __attribute__((visibility("default")))

#endif
