#pragma once

/// \file
/// Socket addresses as the system's calls take them.

#include <norvcmsg/SocketAddress.h>

#include <sys/socket.h>

namespace Norvane::detail {

struct NativeAddress {
    sockaddr_storage storage{};
    socklen_t length = sizeof(sockaddr_storage);

    [[nodiscard]] sockaddr* get() noexcept { return reinterpret_cast<sockaddr*>(&storage); }
};

/// `address` must not be null.
[[nodiscard]] NativeAddress toNative(const SocketAddress& address);

/// Null for a family other than the Internet's.
[[nodiscard]] SocketAddress fromNative(const sockaddr* address);

} // namespace Norvane::detail
