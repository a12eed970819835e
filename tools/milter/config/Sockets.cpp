#include "config/Sockets.h"

#include <norvcmsg/IPAddress.h>

#include <algorithm>
#include <sys/un.h>

namespace norvmilter {

namespace {

bool isPort(const std::string& text) {
    const bool isNumber = !text.empty() && text.size() <= 5 &&
                          std::ranges::all_of(text, [](char one) { return one >= '0' && one <= '9'; });
    return isNumber && std::stoi(text) >= 1 && std::stoi(text) <= 65535;
}

} // namespace

std::string problemOfSocket(const std::string& text) {
    const std::string kind = text.substr(0, text.find(':'));
    const std::string rest = kind.size() < text.size() ? text.substr(kind.size() + 1) : "";
    if (kind == "unix") {
        if (!rest.starts_with('/'))
            return "the path of a unix socket begins with \"/\"";
        return rest.size() < sizeof(sockaddr_un::sun_path) ? "" : "the path of a unix socket has at most 107 bytes";
    }
    const std::size_t at = rest.find('@');
    if ((kind != "inet" && kind != "inet6") || at == std::string::npos)
        return "unix:PATH, inet:PORT@ADDRESS or inet6:PORT@ADDRESS is wanted";
    if (!isPort(rest.substr(0, at)))
        return "the port is a number from 1 to 65535";
    const Norvane::IPAddress address = Norvane::IPAddress::fromText(rest.substr(at + 1));
    if (address.isNull() || address.isV6() != (kind == "inet6"))
        return kind == "inet" ? "an IPv4 address is wanted behind the \"@\""
                              : "an IPv6 address is wanted behind the \"@\"";
    return {};
}

std::string problemOfSubmit(const std::string& text) {
    const std::string scheme = "smtp://";
    const std::size_t colon = text.rfind(':');
    if (!text.starts_with(scheme) || colon == std::string::npos || colon <= scheme.size())
        return "smtp://HOST:PORT is wanted";
    const std::string host = text.substr(scheme.size(), colon - scheme.size());
    // Anything else would be something to a reader of URIs: a user, a path, a query.
    const bool isPlain = std::ranges::all_of(host, [](char one) {
        return (one >= 'a' && one <= 'z') || (one >= 'A' && one <= 'Z') || (one >= '0' && one <= '9') || one == '.' ||
               one == '-' || one == '[' || one == ']' || one == ':';
    });
    if (!isPlain)
        return "the host is a name or an address, IPv6 in brackets";
    return isPort(text.substr(colon + 1)) ? "" : "the port is a number from 1 to 65535";
}

} // namespace norvmilter
