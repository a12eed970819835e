#include "daemon/MetricsServer.h"

#include <array>
#include <cerrno>
#include <exception>
#include <poll.h>
#include <string_view>
#include <sys/socket.h>

namespace norvmilter {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t longestRequest = 4096;
constexpr std::chrono::seconds longestTime(2);

std::chrono::milliseconds until(Clock::time_point end) {
    return std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
}

/// Up to the empty line that ends it. False: it did not come whole, in time or in 4 KB.
bool readRequest(const Descriptor& client, Clock::time_point end, std::string& request) {
    std::array<char, 1024> piece{};
    while (request.find("\r\n\r\n") == std::string::npos && request.find("\n\n") == std::string::npos) {
        if (request.size() >= longestRequest || !waitToRead(client.get(), until(end)))
            return false;
        const ssize_t got = ::recv(client.get(), piece.data(), piece.size(), MSG_DONTWAIT);
        if (got > 0)
            request.append(piece.data(), static_cast<std::size_t>(got));
        else if (got == 0 || (errno != EAGAIN && errno != EINTR))
            return false;
    }
    return true;
}

void send(const Descriptor& client, Clock::time_point end, std::string_view text) {
    while (!text.empty()) {
        pollfd waiting{client.get(), POLLOUT, 0};
        const auto left = until(end).count();
        if (left <= 0 || ::poll(&waiting, 1, static_cast<int>(left)) <= 0)
            return;
        const ssize_t sent = ::send(client.get(), text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent >= 0)
            text.remove_prefix(static_cast<std::size_t>(sent));
        else if (errno != EAGAIN && errno != EINTR)
            return;
    }
}

std::string answerWith(const char* status, const char* type, const std::string& body) {
    return std::string("HTTP/1.0 ") + status + "\r\nContent-Type: " + type +
           "\r\nContent-Length: " + std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body;
}

} // namespace

MetricsServer::MetricsServer(int listening, std::function<std::string()> text)
    : m_listening(listening),
      m_text(std::move(text)),
      m_thread([this] { run(); }) {}

MetricsServer::~MetricsServer() {
    m_stop.first.tell("stop");
    m_thread.join();
}

void MetricsServer::run() {
    while (true) {
        std::array<pollfd, 2> waiting{{{m_listening, POLLIN, 0}, {m_stop.second.descriptor(), POLLIN, 0}}};
        if (::poll(waiting.data(), waiting.size(), -1) < 0 && errno != EINTR)
            return;
        if (waiting[1].revents != 0)
            return;
        if (waiting[0].revents == 0)
            continue;
        const Descriptor client(::accept4(m_listening, nullptr, nullptr, SOCK_CLOEXEC));
        if (!client) {
            // No descriptors are left, say: not again at once.
            waitToRead(m_stop.second.descriptor(), std::chrono::milliseconds(100));
            continue;
        }
        try {
            answer(client);
        } catch (const std::exception&) {
            // Out of memory: this one gets no answer.
            continue;
        }
    }
}

void MetricsServer::answer(const Descriptor& client) {
    const Clock::time_point end = Clock::now() + longestTime;
    std::string request;
    std::string reply;
    if (!readRequest(client, end, request))
        reply = answerWith("400 Bad Request", "text/plain", "not a request\n");
    else if (!request.starts_with("GET ") && !request.starts_with("HEAD "))
        reply = answerWith("405 Method Not Allowed", "text/plain", "GET alone\n");
    else if (!std::string_view(request).substr(request.find(' ') + 1).starts_with("/metrics"))
        reply = answerWith("404 Not Found", "text/plain", "only /metrics is here\n");
    else
        reply = answerWith("200 OK", "text/plain; version=0.0.4; charset=utf-8", m_text());
    if (request.starts_with("HEAD "))
        reply.resize(reply.find("\r\n\r\n") + 4);
    send(client, end, reply);
}

} // namespace norvmilter
