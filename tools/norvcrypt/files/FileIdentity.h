#pragma once

#include <sys/stat.h>
#include <tuple>

namespace norvcrypt {

/// Which file something is, whatever name it was reached by.
struct FileIdentity {
    dev_t device;
    ino_t number;
    explicit FileIdentity(const struct stat& status) : device(status.st_dev), number(status.st_ino) {}
    bool operator<(const FileIdentity& other) const {
        return std::tie(device, number) < std::tie(other.device, other.number);
    }
};

} // namespace norvcrypt
