#include "daemon/ListenSocket.h"

#include <cerrno>
#include <cstring>
#include <netdb.h>
#include <stdexcept>
#include <string_view>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <system_error>

namespace norvmilter {

namespace {

constexpr int backlog = 128;

[[noreturn]] void refuse(const std::string& address, const std::string& what) {
    throw std::runtime_error("cannot listen on " + address + ": " + what);
}

std::string reason(int number = errno) {
    return std::generic_category().message(number);
}

sockaddr_un placeOf(const std::string& path) {
    sockaddr_un place{};
    place.sun_family = AF_UNIX;
    std::memcpy(place.sun_path, path.data(), path.size());
    return place;
}

bool isListenedOn(const std::string& path) {
    const sockaddr_un place = placeOf(path);
    const Descriptor asking(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    // A full queue of connections (EAGAIN) is a listener, too.
    return asking && (::connect(asking.get(), reinterpret_cast<const sockaddr*>(&place), sizeof place) == 0 ||
                      errno == EAGAIN || errno == EACCES);
}

} // namespace

ListenSocket::ListenSocket(const std::string& address, mode_t mode) : m_address(address) {
    const std::size_t colon = address.find(':');
    const std::string kind = address.substr(0, colon);
    const std::string rest = colon == std::string::npos ? std::string() : address.substr(colon + 1);
    if (rest.empty())
        refuse(address, "not of the form unix:PATH, inet:PORT@ADDRESS or inet6:PORT@ADDRESS");
    if (kind == "unix" || kind == "local")
        listenAt(rest, mode);
    else if (kind == "inet")
        listenAt(AF_INET, rest);
    else if (kind == "inet6")
        listenAt(AF_INET6, rest);
    else
        refuse(address, "\"" + kind + "\" is none of unix, inet and inet6");
}

void ListenSocket::listenAt(const std::string& path, mode_t mode) {
    sockaddr_un longest{};
    if (path.size() >= sizeof longest.sun_path)
        refuse(m_address, "the path is longer than " + std::to_string(sizeof longest.sun_path - 1) + " bytes");
    struct stat found {};
    if (::lstat(path.c_str(), &found) == 0) {
        if (!S_ISSOCK(found.st_mode))
            refuse(m_address, "there is a file that is no socket");
        if (isListenedOn(path))
            refuse(m_address, "somebody listens on it already");
        if (::unlink(path.c_str()) != 0)
            refuse(m_address, "the old socket cannot be removed: " + reason());
    }
    Descriptor listening(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!listening)
        refuse(m_address, reason());
    // It must not be there with other permissions for a moment either.
    const sockaddr_un place = placeOf(path);
    const mode_t before = ::umask(0777 & ~mode);
    const int bound = ::bind(listening.get(), reinterpret_cast<const sockaddr*>(&place), sizeof place);
    const int error = errno;
    ::umask(before);
    if (bound != 0)
        refuse(m_address, reason(error));
    if (::lstat(path.c_str(), &found) != 0 || ::listen(listening.get(), backlog) != 0)
        refuse(m_address, reason());
    m_path = path;
    m_inode = found.st_ino;
    m_descriptor = std::move(listening);
}

void ListenSocket::listenAt(int family, const std::string& portAndAddress) {
    const std::size_t at = portAndAddress.find('@');
    const std::string port = portAndAddress.substr(0, at);
    std::string host = at == std::string::npos ? std::string() : portAndAddress.substr(at + 1);
    if (host.size() > 2 && host.front() == '[' && host.back() == ']')
        host = host.substr(1, host.size() - 2);
    const bool isName = host == "localhost";
    addrinfo wanted{};
    wanted.ai_family = family;
    wanted.ai_socktype = SOCK_STREAM;
    wanted.ai_flags = AI_PASSIVE | AI_NUMERICSERV | (isName ? 0 : AI_NUMERICHOST);
    addrinfo* found = nullptr;
    const int failed = ::getaddrinfo(host.empty() ? nullptr : host.c_str(), port.c_str(), &wanted, &found);
    if (failed != 0)
        refuse(m_address, ::gai_strerror(failed));
    Descriptor listening(::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int yes = 1;
    const bool works =
        listening && ::setsockopt(listening.get(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes) == 0 &&
        (family != AF_INET6 || ::setsockopt(listening.get(), IPPROTO_IPV6, IPV6_V6ONLY, &yes, sizeof yes) == 0) &&
        ::bind(listening.get(), found->ai_addr, found->ai_addrlen) == 0 && ::listen(listening.get(), backlog) == 0;
    const int error = errno;
    ::freeaddrinfo(found);
    if (!works)
        refuse(m_address, reason(error));
    m_descriptor = std::move(listening);
}

void ListenSocket::give(uid_t user, gid_t group) const {
    if (!m_path.empty() && ::lchown(m_path.c_str(), user, group) != 0)
        refuse(m_address, reason());
}

void ListenSocket::remove() noexcept {
    struct stat found {};
    if (!m_path.empty() && ::lstat(m_path.c_str(), &found) == 0 && found.st_ino == m_inode)
        ::unlink(m_path.c_str());
    m_path.clear();
}

} // namespace norvmilter
