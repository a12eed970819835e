#pragma once

/// Marks what libnorvcrypto offers to other programs; everything else stays hidden.
#define NORVCRYPTO_EXPORT __attribute__((visibility("default")))
