#include "daemon/Channel.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <poll.h>
#include <sys/socket.h>
#include <system_error>

namespace norvmilter {

namespace {
constexpr std::size_t longest = 4000;
}

std::pair<Channel, Channel> Channel::make() {
    std::array<int, 2> ends{};
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends.data()) != 0)
        throw std::system_error(errno, std::generic_category(), "socketpair");
    return {Channel(Descriptor(ends[0])), Channel(Descriptor(ends[1]))};
}

bool Channel::tell(const std::string& text) const noexcept {
    return ::send(m_descriptor.get(), text.data(), std::min(text.size(), longest), MSG_NOSIGNAL) >= 0;
}

std::optional<std::string> Channel::hear() const {
    std::array<char, longest> text{};
    const ssize_t length = ::recv(m_descriptor.get(), text.data(), text.size(), 0);
    if (length > 0)
        return std::string(text.data(), static_cast<std::size_t>(length));
    if (length < 0 && (errno == EAGAIN || errno == EINTR))
        return std::string();
    return std::nullopt;
}

bool waitToRead(int descriptor, std::chrono::milliseconds most) {
    pollfd waiting{descriptor, POLLIN, 0};
    return ::poll(&waiting, 1, static_cast<int>(std::max<std::chrono::milliseconds::rep>(most.count(), 0))) > 0;
}

} // namespace norvmilter
