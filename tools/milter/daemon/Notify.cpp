#include "daemon/Notify.h"

#include "daemon/Descriptor.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>

namespace norvmilter {

void notifyManager(const std::string& state) noexcept {
    const char* variable = std::getenv("NOTIFY_SOCKET");
    const std::string_view path = variable == nullptr ? "" : variable;
    sockaddr_un place{};
    if (path.empty() || path.size() >= sizeof place.sun_path)
        return;
    place.sun_family = AF_UNIX;
    std::memcpy(place.sun_path, path.data(), path.size());
    // The name of an abstract socket begins with a NUL and is as long as it says.
    if (path.front() == '@')
        place.sun_path[0] = '\0';
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
    const Descriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (socket)
        ::sendto(socket.get(), state.data(), state.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
                 reinterpret_cast<const sockaddr*>(&place), length);
}

} // namespace norvmilter
