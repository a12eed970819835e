#ifndef NORVCMSG_EXPORT_H
#define NORVCMSG_EXPORT_H

/// Marks what libnorvcmsg offers to other libraries; everything else stays hidden.
#define NORVCMSG_EXPORT __attribute__((visibility("default")))

#endif
