#pragma once

#include <compare>
#include <sys/stat.h>

namespace norvcrypt {

/// Which file something is, whatever name it was reached by.
struct FileIdentity {
    dev_t device;
    ino_t number;
    explicit FileIdentity(const struct stat& status) : device(status.st_dev), number(status.st_ino) {}
    auto operator<=>(const FileIdentity&) const = default;
};

} // namespace norvcrypt
