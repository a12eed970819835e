#pragma once

/// \file
/// What the sources of `SocketImpl` share.

#include "FileCalls.h"
#include "SocketFailure.h"

#include <norvcmsg/SocketAddress.h>

#include <utility>

namespace Norvane::detail {

[[noreturn]] inline void fail(const char* where, int error, const SocketAddress& address = SocketAddress(),
                              SourceLocation here = SourceLocation::current()) {
    throwSocketErrno(where, "SocketImpl", address.asString(), error, here);
}

inline void closeDescriptor(int& descriptor) noexcept {
    const FileDescriptor closed(std::exchange(descriptor, -1));
}

/// Closes a descriptor that was made in its scope, unless it is kept.
class Opening {
public:
    explicit Opening(int& descriptor) noexcept : m_descriptor(descriptor), m_kept(descriptor >= 0) {}
    Opening(const Opening&) = delete;
    Opening& operator=(const Opening&) = delete;
    ~Opening() {
        if (!m_kept) {
            closeDescriptor(m_descriptor);
        }
    }
    void keep() noexcept { m_kept = true; }

private:
    int& m_descriptor;
    bool m_kept;
};

} // namespace Norvane::detail
